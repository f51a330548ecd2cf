// Runs network calls, one after the other, and prints a line for each:
//
//   net_probe.exe connect 127.0.0.1 8080 / sendto 127.0.0.1 53
//   connect 0
//   sendto 10051
//
// The number is the Winsock error, 0 for success. Commands:
//
//   connect|wsaconnect|connectex ADDRESS PORT
//       TCP
//   sendto|wsasendto|sendmsg ADDRESS PORT
//       one datagram
//   recvfrom|recv|wsarecvfrom|wsarecv|recvmsg ADDRESS PORT ASK
//       sends ASK there, then receives; prints bytes and data too
//   overlapped END CALL WHEN ADDRESS PORT ASK
//       the same by an overlapped receive. CALL: wsarecvfrom, recvmsg. WHEN: pending, immediate. END: result,
//       resultex, wsaresult, port, portex, routine
//   serve PORT
//       binds, receives, answers where it came from; prints bytes and data too
//   unpatched
//       prints how many functions of ws2_32 and dnsapi lead elsewhere
//   resolve HOW NAME PORT
//       asks for NAME, then connects; prints the error of each. HOW: hostent, addrinfo, addrinfo_narrow,
//       addrinfoex, addrinfoex_event and addrinfoex_bare (overlapped, with and without an event), dns_a,
//       dns_w, dns_utf8
#include <winsock2.h>
#include <ws2tcpip.h>

#include <mswsock.h>
#include <windns.h>

#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "tests/sockets.h"

namespace {

using vorn::test::Address;
using vorn::test::Local;
using vorn::test::Local6;
using Arguments = std::vector<std::string>;

constexpr DWORD kPatienceMs = 10'000;

Address Parse(const std::string& text, const std::string& port) {
  const auto number = static_cast<std::uint16_t>(std::stoi(port));
  Address address = text.find(':') == text.npos ? Local(0, number) : Local6(number);
  if (address.any.sa_family == AF_INET)
    address.v4.sin_addr.s_addr = inet_addr(text.c_str());
  else
    inet_pton(AF_INET6, text.c_str(), &address.v6.sin6_addr);
  return address;
}

int ErrorOf(bool success) { return success ? 0 : WSAGetLastError(); }

// For IPv4 as well as IPv6; waits for what it receives.
class Socket : public vorn::test::Socket {
 public:
  Socket(int family, int type) : vorn::test::Socket(family, type) {
    const DWORD off = 0;
    if (family == AF_INET6)
      setsockopt(*this, IPPROTO_IPV6, IPV6_V6ONLY, reinterpret_cast<const char*>(&off), sizeof off);
    SetReceiveTimeout(kPatienceMs);
  }
  void BindAnywhere(int family) const {
    Address any{};
    any.any.sa_family = static_cast<u_short>(family);
    Bind(any);
  }
};

template <class Function>
Function Extension(SOCKET s, GUID id) {
  Function function = nullptr;
  DWORD bytes = 0;
  WSAIoctl(s, SIO_GET_EXTENSION_FUNCTION_POINTER, &id, sizeof id, &function, sizeof function, &bytes, nullptr,
           nullptr);
  return function;
}

int ConnectEx(const Socket& s, const Address& to) {
  s.BindAnywhere(to.any.sa_family);
  OVERLAPPED overlapped{};
  overlapped.hEvent = CreateEventW(nullptr, TRUE, FALSE, nullptr);
  DWORD bytes = 0;
  if (Extension<LPFN_CONNECTEX>(s, WSAID_CONNECTEX)(s, &to.any, to.length(), nullptr, 0, nullptr,
                                                    &overlapped))
    return 0;
  if (WSAGetLastError() != WSA_IO_PENDING) return WSAGetLastError();
  DWORD flags = 0;
  return ErrorOf(WSAGetOverlappedResult(s, &overlapped, &bytes, TRUE, &flags));
}

int Connect(const std::string& how, const Address& to) {
  const Socket s(to.any.sa_family, SOCK_STREAM);
  if (how == "connect") return ErrorOf(connect(s, &to.any, to.length()) == 0);
  if (how == "connectex") return ConnectEx(s, to);
  return ErrorOf(WSAConnect(s, &to.any, to.length(), nullptr, nullptr, nullptr, nullptr) == 0);
}

int Send(SOCKET s, const std::string& how, Address to, std::string text) {
  WSABUF buffer{static_cast<ULONG>(text.size()), text.data()};
  DWORD sent = 0;
  if (how == "wsasendto")
    return ErrorOf(WSASendTo(s, &buffer, 1, &sent, 0, &to.any, to.length(), nullptr, nullptr) == 0);
  if (how == "sendmsg") {
    WSAMSG message{};
    message.name = &to.any;
    message.namelen = to.length();
    message.lpBuffers = &buffer;
    message.dwBufferCount = 1;
    return ErrorOf(Extension<LPFN_WSASENDMSG>(s, WSAID_WSASENDMSG)(s, &message, 0, &sent, nullptr, nullptr) ==
                   0);
  }
  return ErrorOf(sendto(s, text.data(), static_cast<int>(text.size()), 0, &to.any, to.length()) >= 0);
}

// A receive of each kind, and what came of it.
struct Receive {
  char data[16] = {'#', '#', '#', '#', '#', '#', '#', '#', '#', '#'};
  Address from{};
  int from_length = sizeof(Address);
  WSABUF buffer{10, data};
  WSAMSG message{};
  DWORD bytes = 0, flags = 0;
  OVERLAPPED overlapped{};
  int error = 0;

  void Run(SOCKET s, const std::string& how, LPWSAOVERLAPPED with = nullptr,
           LPWSAOVERLAPPED_COMPLETION_ROUTINE routine = nullptr) {
    int result = -1;
    if (how == "recvfrom" || how == "recv") {
      result = how == "recv" ? recv(s, data, 10, 0) : recvfrom(s, data, 10, 0, &from.any, &from_length);
      bytes = result > 0 ? static_cast<DWORD>(result) : 0;
      result = result > 0 ? 0 : -1;
    } else if (how == "wsarecvfrom") {
      result = WSARecvFrom(s, &buffer, 1, &bytes, &flags, &from.any, &from_length, with, routine);
    } else if (how == "wsarecv") {
      result = WSARecv(s, &buffer, 1, &bytes, &flags, with, routine);
    } else {
      message.name = &from.any;
      message.namelen = from_length;
      message.lpBuffers = &buffer;
      message.dwBufferCount = 1;
      result = Extension<LPFN_WSARECVMSG>(s, WSAID_WSARECVMSG)(s, &message, &bytes, with, routine);
    }
    error = ErrorOf(result == 0);
  }
  // Bytes, then the buffer with "." for each NUL.
  std::string Text() const {
    std::string text(data, 10);
    for (char& c : text)
      if (!c) c = '.';
    return " " + std::to_string(bytes) + " " + text;
  }
};

Receive* routine_receive;
bool routine_ran;

void CALLBACK Routine(DWORD error, DWORD bytes, LPWSAOVERLAPPED, DWORD) {
  routine_receive->error = static_cast<int>(error);
  routine_receive->bytes = bytes;
  routine_ran = true;
}

void Collect(Receive& receive, const Socket& s, const std::string& end, HANDLE port) {
  BOOL ok = FALSE;
  ULONG_PTR key = 0;
  OVERLAPPED* got = nullptr;
  OVERLAPPED_ENTRY entries[4] = {};
  ULONG removed = 0;
  if (end == "result") ok = GetOverlappedResult(s.handle(), &receive.overlapped, &receive.bytes, TRUE);
  if (end == "resultex")
    ok = GetOverlappedResultEx(s.handle(), &receive.overlapped, &receive.bytes, kPatienceMs, FALSE);
  if (end == "wsaresult")
    ok = WSAGetOverlappedResult(s, &receive.overlapped, &receive.bytes, TRUE, &receive.flags);
  if (end == "port") ok = GetQueuedCompletionStatus(port, &receive.bytes, &key, &got, kPatienceMs);
  if (end == "portex") {
    ok = GetQueuedCompletionStatusEx(port, entries, 4, &removed, kPatienceMs, FALSE);
    receive.bytes = entries[0].dwNumberOfBytesTransferred;
  }
  if (end == "routine") {
    for (int i = 0; i < 50 && !routine_ran; ++i) SleepEx(100, TRUE);
    if (!routine_ran) receive.error = WSAETIMEDOUT;
    return;
  }
  receive.error = ErrorOf(ok);
}

std::string Overlapped(const Arguments& a) {  // END CALL WHEN ADDRESS PORT ASK
  const Address to = Parse(a[4], a[5]);
  const Socket s(to.any.sa_family, SOCK_DGRAM);
  s.BindAnywhere(to.any.sa_family);
  const HANDLE port =
      a[1].rfind("port", 0) == 0 ? CreateIoCompletionPort(s.handle(), nullptr, 1, 0) : nullptr;
  Receive receive;
  routine_receive = &receive;
  routine_ran = false;
  const auto routine = a[1] == "routine" ? &Routine : nullptr;
  if (a[3] == "immediate") {
    if (const int error = Send(s, "sendto", to, a[6])) return " " + std::to_string(error) + " (ask)";
    fd_set readable{1, {s}};
    timeval patience{10, 0};
    select(0, &readable, nullptr, nullptr, &patience);
    receive.Run(s, a[2], &receive.overlapped, routine);
  } else {
    if (const int error = Send(s, "sendto", to, "none")) return " " + std::to_string(error) + " (first)";
    receive.Run(s, a[2], &receive.overlapped, routine);
    if (receive.error == WSA_IO_PENDING) Send(s, "sendto", to, a[6]);
  }
  if (receive.error == WSA_IO_PENDING) Collect(receive, s, a[1], port);
  if (port) CloseHandle(port);
  const bool failed_at_once = receive.error != 0 && !routine_ran;
  while (routine && !routine_ran && SleepEx(50, TRUE) == WAIT_IO_COMPLETION) {
  }
  const char* const surplus = failed_at_once && routine_ran ? " (routine called)" : "";
  return " " + std::to_string(receive.error) + receive.Text() + surplus;
}

std::string Converse(const Arguments& a) {  // HOW ADDRESS PORT ASK
  const Address to = Parse(a[1], a[2]);
  const Socket s(to.any.sa_family, SOCK_DGRAM);
  if (const int error = Send(s, "sendto", to, a[3])) return " " + std::to_string(error) + " (ask)";
  Receive receive;
  receive.Run(s, a[0]);
  return " " + std::to_string(receive.error) + receive.Text();
}

std::string Serve(const std::string& port) {
  const Socket s(AF_INET, SOCK_DGRAM);
  const Address at = Parse("127.0.0.1", port);
  if (!s.Bind(at).port()) return " " + std::to_string(WSAGetLastError());
  Receive receive;
  receive.Run(s, "recvfrom");
  if (!receive.error) receive.error = Send(s, "sendto", receive.from, "answer");
  return " " + std::to_string(receive.error) + receive.Text();
}

// ---- Names ----

bool FirstAddress(const sockaddr* from, std::size_t length, Address& to) {
  if (!from || length > sizeof to) return false;
  memcpy(&to, from, length);
  return true;
}

bool FirstRecord(const DNS_RECORD* list, Address& to) {
  for (; list; list = list->pNext) {
    if (list->wType != DNS_TYPE_A) continue;
    to.v4.sin_family = AF_INET;
    to.v4.sin_addr.s_addr = list->Data.A.IpAddress;
    return true;
  }
  return false;
}

bool Resolve(const std::string& how, const std::string& name, Address& to, int& error) {
  const std::wstring wide(name.begin(), name.end());
  error = 0;
  if (how == "hostent") {
    const hostent* answer = gethostbyname(name.c_str());
    if (!answer) return error = WSAGetLastError(), false;
    to.v4.sin_family = AF_INET;
    memcpy(&to.v4.sin_addr, answer->h_addr_list[0], 4);
    return true;
  }
  if (how == "addrinfo_narrow") {
    addrinfo* list = nullptr;
    error = getaddrinfo(name.c_str(), nullptr, nullptr, &list);
    return !error && FirstAddress(list->ai_addr, list->ai_addrlen, to);
  }
  if (how == "addrinfo") {
    ADDRINFOW* list = nullptr;
    error = GetAddrInfoW(wide.c_str(), nullptr, nullptr, &list);
    return !error && FirstAddress(list->ai_addr, list->ai_addrlen, to);
  }
  if (how.rfind("addrinfoex", 0) == 0) {
    ADDRINFOEXW* list = nullptr;
    OVERLAPPED overlapped{};
    if (how == "addrinfoex_event") overlapped.hEvent = CreateEventW(nullptr, TRUE, FALSE, nullptr);
    error = GetAddrInfoExW(wide.c_str(), nullptr, NS_DNS, nullptr, nullptr, &list, nullptr,
                           how == "addrinfoex" ? nullptr : &overlapped, nullptr, nullptr);
    if (error == WSA_IO_PENDING && overlapped.hEvent) {
      WaitForSingleObject(overlapped.hEvent, kPatienceMs);
      error = static_cast<int>(overlapped.Internal);
    }
    return !error && FirstAddress(list->ai_addr, list->ai_addrlen, to);
  }
  DNS_RECORD* list = nullptr;
  if (how == "dns_a") error = DnsQuery_A(name.c_str(), DNS_TYPE_A, 0, nullptr, &list, nullptr);
  if (how == "dns_w") error = DnsQuery_W(wide.c_str(), DNS_TYPE_A, 0, nullptr, &list, nullptr);
  if (how == "dns_utf8")
    error =
        DnsQuery_UTF8(name.c_str(), DNS_TYPE_A, 0, nullptr, reinterpret_cast<DNS_RECORDA**>(&list), nullptr);
  return !error && FirstRecord(list, to);
}

std::string ResolveAndConnect(const Arguments& a) {  // HOW NAME PORT
  Address to{};
  int error = 0;
  if (!Resolve(a[1], a[2], to, error)) return " " + std::to_string(error);
  to.v4.sin_port = htons(static_cast<u_short>(std::stoi(a[3])));
  return " 0 " + std::to_string(Connect("connect", to));
}

// ---- Others ----

// Exports that begin with a jump out of the module.
int CountPatched(const wchar_t* module_name) {
  const auto* image = reinterpret_cast<const std::uint8_t*>(LoadLibraryW(module_name));
  const auto* headers = reinterpret_cast<const IMAGE_NT_HEADERS*>(
      image + reinterpret_cast<const IMAGE_DOS_HEADER*>(image)->e_lfanew);
  const auto* exports = reinterpret_cast<const IMAGE_EXPORT_DIRECTORY*>(
      image + headers->OptionalHeader.DataDirectory[IMAGE_DIRECTORY_ENTRY_EXPORT].VirtualAddress);
  const auto* functions = reinterpret_cast<const DWORD*>(image + exports->AddressOfFunctions);
  int patched = 0;
  for (DWORD i = 0; i < exports->NumberOfFunctions; ++i) {
    const std::uint8_t* code = image + functions[i];
    std::int32_t distance;
    memcpy(&distance, code + 1, sizeof distance);
    const auto target = static_cast<std::uintptr_t>(code + 5 + distance - image);
    patched += *code == 0xE9 && target >= headers->OptionalHeader.SizeOfImage;
  }
  return patched;
}

std::string Run(const Arguments& a) {
  const std::string& how = a[0];
  if (how.find("connect") != how.npos) return " " + std::to_string(Connect(how, Parse(a[1], a[2])));
  if (how.find("send") != how.npos) {
    const Address to = Parse(a[1], a[2]);
    const Socket s(to.any.sa_family, SOCK_DGRAM);
    return " " + std::to_string(Send(s, how, to, "hello"));
  }
  if (how == "overlapped") return Overlapped(a);
  if (how == "serve") return Serve(a[1]);
  if (how == "resolve") return ResolveAndConnect(a);
  if (how == "unpatched")
    return " " + std::to_string(CountPatched(L"ws2_32.dll") + CountPatched(L"dnsapi.dll"));
  return Converse(a);
}

}  // namespace

int main(int count, char** words) {
  WSADATA data;
  for (int i = 0; i < 2; ++i) {  // as a program and its libraries do
    if (const int error = WSAStartup(MAKEWORD(2, 2), &data)) return error;
    Sleep(2);  // two reports of one millisecond could not be told from one that was sent twice
  }
  std::vector<Arguments> commands(1);
  for (int i = 1; i < count; ++i) {
    if (std::string(words[i]) == "/")
      commands.emplace_back();
    else
      commands.back().emplace_back(words[i]);
  }
  for (const Arguments& command : commands) {
    if (command.empty()) continue;
    printf("%s%s\n", command[0].c_str(), Run(command).c_str());
    fflush(stdout);
    Sleep(1);  // messages of one kind that come faster are a flood, of which some are dropped
  }
  return 0;
}
