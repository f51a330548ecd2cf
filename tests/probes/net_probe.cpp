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
//   resolve HOW NAME PORT
//       asks for NAME, then connects; prints the error of each. HOW: hostent, addrinfo, addrinfo_narrow,
//       addrinfoex, addrinfoex_event and addrinfoex_bare (overlapped, with and without an event), dns_a,
//       dns_w, dns_utf8
#include <winsock2.h>
#include <ws2tcpip.h>

#include <windns.h>

#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "tests/sockets.h"

namespace {

using vorn::test::Address;
using vorn::test::ErrorOf;
using vorn::test::Extension;
using vorn::test::Local;
using vorn::test::Local6;
using vorn::test::Receive;
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
  return receive.Text() + (failed_at_once && routine_ran ? " (routine called)" : "");
}

std::string Converse(const Arguments& a) {  // HOW ADDRESS PORT ASK
  const Address to = Parse(a[1], a[2]);
  const Socket s(to.any.sa_family, SOCK_DGRAM);
  if (const int error = Send(s, "sendto", to, a[3])) return " " + std::to_string(error) + " (ask)";
  Receive receive;
  receive.Run(s, a[0]);
  return receive.Text();
}

std::string Serve(const std::string& port) {
  const Socket s(AF_INET, SOCK_DGRAM);
  const Address at = Parse("127.0.0.1", port);
  if (!s.Bind(at).port()) return " " + std::to_string(WSAGetLastError());
  Receive receive;
  receive.Run(s, "recvfrom");
  if (!receive.error) receive.error = Send(s, "sendto", receive.from, "answer");
  return receive.Text();
}

// ---- Names ----

// The first IPv4 address of an answer of each kind.
const void* HostOf(const hostent* answer) { return answer->h_addr_list[0]; }
template <class Info>
const void* HostOf(const Info* list) {
  return &reinterpret_cast<const sockaddr_in*>(list->ai_addr)->sin_addr;
}
const void* HostOf(const DNS_RECORD* list) {
  while (list && list->wType != DNS_TYPE_A) list = list->pNext;
  return list ? &list->Data.A.IpAddress : nullptr;
}

// The error, or 0 with the address. answer: a pointer that the call which gave the error has set.
template <class Answer>
int Resolved(int error, const Answer& answer, Address& to) {
  const void* const host = error ? nullptr : HostOf(answer);
  if (host) memcpy(&to.v4.sin_addr, host, 4);
  return error || host ? error : WSANO_DATA;
}

int Resolve(const std::string& how, const std::string& name, Address& to) {
  const std::wstring wide(name.begin(), name.end());
  if (how == "hostent") {
    const hostent* answer = gethostbyname(name.c_str());
    return Resolved(ErrorOf(answer), answer, to);
  }
  if (how == "addrinfo_narrow") {
    addrinfo* list = nullptr;
    return Resolved(getaddrinfo(name.c_str(), nullptr, nullptr, &list), list, to);
  }
  if (how == "addrinfo") {
    ADDRINFOW* list = nullptr;
    return Resolved(GetAddrInfoW(wide.c_str(), nullptr, nullptr, &list), list, to);
  }
  if (how.rfind("addrinfoex", 0) == 0) {
    ADDRINFOEXW* list = nullptr;
    OVERLAPPED overlapped{};
    if (how == "addrinfoex_event") overlapped.hEvent = CreateEventW(nullptr, TRUE, FALSE, nullptr);
    int error = GetAddrInfoExW(wide.c_str(), nullptr, NS_DNS, nullptr, nullptr, &list, nullptr,
                               how == "addrinfoex" ? nullptr : &overlapped, nullptr, nullptr);
    if (error == WSA_IO_PENDING && overlapped.hEvent) {
      WaitForSingleObject(overlapped.hEvent, kPatienceMs);
      error = static_cast<int>(overlapped.Internal);
    }
    return Resolved(error, list, to);
  }
  DNS_RECORD* list = nullptr;
  auto* const narrow = reinterpret_cast<DNS_RECORDA**>(&list);
  return Resolved(how == "dns_a"   ? DnsQuery_A(name.c_str(), DNS_TYPE_A, 0, nullptr, &list, nullptr)
                  : how == "dns_w" ? DnsQuery_W(wide.c_str(), DNS_TYPE_A, 0, nullptr, &list, nullptr)
                                   : DnsQuery_UTF8(name.c_str(), DNS_TYPE_A, 0, nullptr, narrow, nullptr),
                  list, to);
}

std::string ResolveAndConnect(const Arguments& a) {  // HOW NAME PORT
  Address to = Local(0, static_cast<std::uint16_t>(std::stoi(a[3])));
  if (const int error = Resolve(a[1], a[2], to)) return " " + std::to_string(error);
  return " 0 " + std::to_string(Connect("connect", to));
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
