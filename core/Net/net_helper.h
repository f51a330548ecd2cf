// Socket addresses as network decisions see them. AF_INET and AF_INET6 are understood; every other family
// counts as no address.
//
//   offset  0       2      4            8                        24
//   IPv4   | family | port | address    | zero          | 16
//   IPv6   | family | port | flow info  | address (16)   | scope id | 28
//
// Port and address are in network order.
// Addresses come from the application and may be unreadable, short or of any family: nothing here faults on
// them. Any thread; nothing allocates.
#pragma once

#include <cstddef>
#include <cstdint>

#include "Platform/net_types.h"
#include "Platform/winsock.h"

namespace VornCore::net_helper {

inline constexpr std::uint32_t kIPv4Bytes = sizeof(sockaddr_in);   // 16
inline constexpr std::uint32_t kIPv6Bytes = sizeof(sockaddr_in6);  // 28
inline constexpr std::uint32_t kAddressBytes = 128;   // room for any address that Winsock returns
inline constexpr std::size_t kAddressTextBytes = 66;  // numeric text form with its NUL

// A copy of an address, zero behind its length.
struct alignas(8) SocketAddress {
  std::uint8_t bytes[kAddressBytes];

  sockaddr* get() { return reinterpret_cast<sockaddr*>(bytes); }
  const sockaddr* get() const { return reinterpret_cast<const sockaddr*>(bytes); }
  std::uint16_t family() const { return get()->sa_family; }
  bool IsInternet() const { return family() == AF_INET || family() == AF_INET6; }
  // The 4 or 16 address bytes in network order, of an internet address.
  const std::uint8_t* host() const { return bytes + (family() == AF_INET ? 4 : 8); }
  std::uint32_t host_bytes() const { return family() == AF_INET ? 4 : 16; }
};

// Copies what decisions read of an address (at most its first 28 bytes). False for null, no bytes, or memory
// that cannot be read for length bytes.
[[nodiscard]] bool ReadAddress(const sockaddr* address, std::uint32_t length, SocketAddress& copy) noexcept;

// An address as rules see it: IPv4 that travels over a dual-stack IPv6 socket (::ffff:a.b.c.d) as IPv4, any
// other address as it stands. A view of the caller's memory: it lives no longer than the call.
class SockaddrAdapter {
 public:
  SockaddrAdapter(const sockaddr* address, std::uint32_t length) noexcept;
  virtual ~SockaddrAdapter() = default;
  SockaddrAdapter(const SockaddrAdapter&) = delete;
  SockaddrAdapter& operator=(const SockaddrAdapter&) = delete;

  const sockaddr* Address() const { return address_; }
  std::uint32_t Length() const { return length_; }

 private:
  const sockaddr* address_;
  std::uint32_t length_;
  sockaddr_in converted_;  // what address_ points to after a conversion
};

// The port as stored (network order); 0 for other families. 0 also stands for "not bound yet".
std::uint16_t GetSockaddrPort(const sockaddr* address) noexcept;

// Same family (IPv4 or IPv6), port and address bytes. Flow information and scope id do not count.
bool IsSameSockaddr(const sockaddr* a, const sockaddr* b) noexcept;

// Writes the port in host order and, unless text is null, the numeric text form into text, a zero-filled
// buffer of kAddressTextBytes. 0, or -1 with nothing written for an unreadable or short address or another
// family.
std::int32_t SockaddrToText(const sockaddr* address, std::int32_t length, char* text,
                            std::uint16_t* port) noexcept;

// The local address of a socket. False when it cannot be read.
[[nodiscard]] bool ReadLocalAddress(SOCKET socket, SocketAddress& address,
                                    std::int32_t* length = nullptr) noexcept;

// The Winsock functions of the same names; while one cannot be resolved it answers -1, inet_ntop writes
// nothing, ntohs answers 0 and ntohl 0xFFFFFFFF.
int getpeername(SOCKET s, sockaddr* name, int* namelen) noexcept;
int getsockname(SOCKET s, sockaddr* name, int* namelen) noexcept;
int getsockopt(SOCKET s, int level, int option, char* value, int* bytes) noexcept;
int setsockopt(SOCKET s, int level, int option, const char* value, int bytes) noexcept;
const char* inet_ntop(int family, const void* host, char* text, std::size_t text_bytes) noexcept;
std::uint16_t ntohs(std::uint16_t network) noexcept;
std::uint32_t ntohl(std::uint32_t network) noexcept;

}  // namespace VornCore::net_helper
