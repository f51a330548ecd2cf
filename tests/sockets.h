// Sockets and loopback addresses for tests and their probes.
#pragma once

#include <winsock2.h>
#include <ws2tcpip.h>

#include <mswsock.h>

#include <cstdint>
#include <string>

namespace vorn::test {

union Address {
  sockaddr any;
  sockaddr_in v4;
  sockaddr_in6 v6;
  int length() const { return any.sa_family == AF_INET ? sizeof v4 : sizeof v6; }
  std::uint16_t port() const { return ntohs(v4.sin_port); }
};

inline Address Local(std::uint8_t last, std::uint16_t port = 0) {  // 127.0.0.last
  Address address{};
  address.v4.sin_family = AF_INET;
  address.v4.sin_port = htons(port);
  address.v4.sin_addr.s_addr = htonl(0x7F000000u + last);
  return address;
}
inline Address Local6(std::uint16_t port = 0) {  // ::1
  Address address{};
  address.v6.sin6_family = AF_INET6;
  address.v6.sin6_port = htons(port);
  address.v6.sin6_addr.s6_addr[15] = 1;
  return address;
}

class Socket {
 public:
  Socket(int family, int type) : handle_(socket(family, type, 0)) {}
  ~Socket() { Close(); }
  Socket(const Socket&) = delete;
  Socket& operator=(const Socket&) = delete;

  operator SOCKET() const { return handle_; }
  HANDLE handle() const { return reinterpret_cast<HANDLE>(handle_); }
  void Close() {
    if (handle_ != INVALID_SOCKET) closesocket(handle_);
    handle_ = INVALID_SOCKET;
  }
  // Somebody else has closed it.
  void Release() { handle_ = INVALID_SOCKET; }
  // The address with the port that it got; all zero when it cannot be bound.
  Address Bind(Address to) const {
    int length = to.length();
    const bool bound = bind(handle_, &to.any, length) == 0 && getsockname(handle_, &to.any, &length) == 0;
    return bound ? to : Address{};
  }
  void SetReceiveTimeout(DWORD milliseconds) const {
    setsockopt(handle_, SOL_SOCKET, SO_RCVTIMEO, reinterpret_cast<const char*>(&milliseconds),
               sizeof milliseconds);
  }

 private:
  SOCKET handle_;
};

inline int ErrorOf(bool success) { return success ? 0 : WSAGetLastError(); }

template <class Function>
Function Extension(SOCKET s, GUID id) {
  Function function = nullptr;
  DWORD bytes = 0;
  WSAIoctl(s, SIO_GET_EXTENSION_FUNCTION_POINTER, &id, sizeof id, &function, sizeof function, &bytes, nullptr,
           nullptr);
  return function;
}

// A receive of each kind, and what came of it.
struct Receive {
  char data[17] = "################";
  Address from{};
  int from_length = 0;
  WSABUF buffer{10, data};
  WSAMSG message{};
  DWORD bytes = 0, flags = 0;
  OVERLAPPED overlapped{};
  int error = 0;

  // how: recv, recvfrom, wsarecv, wsarecvfrom or recvmsg
  int Run(SOCKET s, const std::string& how, LPWSAOVERLAPPED with = nullptr,
          LPWSAOVERLAPPED_COMPLETION_ROUTINE routine = nullptr) {
    const int room = static_cast<int>(buffer.len);
    from_length = sizeof from;
    if (how == "recvfrom" || how == "recv") {
      const int got =
          how == "recv" ? recv(s, data, room, 0) : recvfrom(s, data, room, 0, &from.any, &from_length);
      bytes = got > 0 ? static_cast<DWORD>(got) : 0;
      return error = ErrorOf(got > 0);
    }
    if (how == "wsarecvfrom")
      return error = ErrorOf(
                 WSARecvFrom(s, &buffer, 1, &bytes, &flags, &from.any, &from_length, with, routine) == 0);
    if (how == "wsarecv") return error = ErrorOf(WSARecv(s, &buffer, 1, &bytes, &flags, with, routine) == 0);
    message = {&from.any, from_length, &buffer, 1, {}, 0};
    return error = ErrorOf(
               Extension<LPFN_WSARECVMSG>(s, WSAID_WSARECVMSG)(s, &message, &bytes, with, routine) == 0);
  }
  // Error, bytes, and the buffer with "." for each NUL.
  std::string Text() const {
    std::string text(data, buffer.len);
    for (char& c : text)
      if (!c) c = '.';
    return " " + std::to_string(error) + " " + std::to_string(bytes) + " " + text;
  }
};

}  // namespace vorn::test
