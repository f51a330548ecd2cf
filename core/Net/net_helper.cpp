#include "Net/net_helper.h"

#include <cstring>

#include "Platform/untrusted.h"
#include "Policy/net_rules.h"

namespace VornCore::net_helper {

bool ReadAddress(const sockaddr* address, std::uint32_t length, SocketAddress& copy) noexcept {
  if (!address || !length) return false;
  const std::uint32_t kept = length < kIPv6Bytes ? length : kIPv6Bytes;
  memset(copy.bytes + kept, 0, kIPv6Bytes - kept);
  return platform::CopyGuarded(copy.bytes, address, kept) &&
         (length == kept ||
          platform::IsReadable(reinterpret_cast<const char*>(address) + kept, length - kept));
}

SockaddrAdapter::SockaddrAdapter(const sockaddr* address, std::uint32_t length) noexcept
    : address_(address), length_(length) {
  SocketAddress copy;
  if (length < kIPv6Bytes || !ReadAddress(address, kIPv6Bytes, copy)) return;
  if (copy.family() != AF_INET6 || !vorn::policy::IsMappedIPv4(copy.host())) return;
  converted_ = {};
  converted_.sin_family = AF_INET;
  converted_.sin_port = GetSockaddrPort(copy.get());
  memcpy(&converted_.sin_addr, copy.host() + 12, 4);
  address_ = reinterpret_cast<const sockaddr*>(&converted_);
  length_ = kIPv4Bytes;
}

std::uint16_t GetSockaddrPort(const sockaddr* address) noexcept {
  if (address->sa_family != AF_INET && address->sa_family != AF_INET6) return 0;
  return reinterpret_cast<const sockaddr_in*>(address)->sin_port;  // at byte 2 in both families
}

bool IsSameSockaddr(const sockaddr* a, const sockaddr* b) noexcept {
  if (a->sa_family != b->sa_family || GetSockaddrPort(a) != GetSockaddrPort(b)) return false;
  auto* a_bytes = reinterpret_cast<const std::uint8_t*>(a);
  auto* b_bytes = reinterpret_cast<const std::uint8_t*>(b);
  if (a->sa_family == AF_INET) return memcmp(a_bytes + 4, b_bytes + 4, 4) == 0;
  return a->sa_family == AF_INET6 && memcmp(a_bytes + 8, b_bytes + 8, 16) == 0;
}

std::int32_t SockaddrToText(const sockaddr* address, std::int32_t length, char* text,
                            std::uint16_t* port) noexcept {
  SocketAddress copy;
  if (length < 1 || !ReadAddress(address, static_cast<std::uint32_t>(length), copy) || !copy.IsInternet())
    return -1;
  if (static_cast<std::uint32_t>(length) < (copy.family() == AF_INET ? kIPv4Bytes : kIPv6Bytes)) return -1;
  *port = ntohs(GetSockaddrPort(copy.get()));
  if (text) inet_ntop(copy.family(), copy.host(), text, kAddressTextBytes - 1);
  return 0;
}

bool ReadLocalAddress(SOCKET socket, SocketAddress& address, std::int32_t* length) noexcept {
  address = {};
  int bytes = kAddressBytes;
  const bool read = net_helper::getsockname(socket, address.get(), &bytes) == 0;
  if (length) *length = bytes;
  return read;
}

int getpeername(SOCKET s, sockaddr* name, int* namelen) noexcept {
  const auto function = platform::Winsock().getpeername;
  return function ? function(s, name, namelen) : SOCKET_ERROR;
}

int getsockname(SOCKET s, sockaddr* name, int* namelen) noexcept {
  const auto function = platform::Winsock().getsockname;
  return function ? function(s, name, namelen) : SOCKET_ERROR;
}

int getsockopt(SOCKET s, int level, int option, char* value, int* bytes) noexcept {
  const auto function = platform::Winsock().getsockopt;
  return function ? function(s, level, option, value, bytes) : SOCKET_ERROR;
}

int setsockopt(SOCKET s, int level, int option, const char* value, int bytes) noexcept {
  const auto function = platform::Winsock().setsockopt;
  return function ? function(s, level, option, value, bytes) : SOCKET_ERROR;
}

const char* inet_ntop(int family, const void* host, char* text, std::size_t text_bytes) noexcept {
  const auto function = platform::Winsock().inet_ntop;
  return function ? function(family, host, text, text_bytes) : nullptr;
}

std::uint16_t ntohs(std::uint16_t network) noexcept {
  const auto function = platform::Winsock().ntohs;
  return function ? function(network) : std::uint16_t{0};
}

std::uint32_t ntohl(std::uint32_t network) noexcept {
  const auto function = platform::Winsock().ntohl;
  return function ? function(network) : 0xFFFFFFFF;
}

}  // namespace VornCore::net_helper
