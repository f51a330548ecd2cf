// Whether a destination may be reached, and what is known about the process's sockets.
//
// The model decides and remembers; it blocks nothing. Rules are read in the section on every check, so a host
// that rewrites them changes the next decision.
//
//   sockets_ ─► record ─► record ─► …       in order of creation
//
//   by socket    handle                       → the first record of the handle
//   by queue     registered-I/O request queue → its record
//   by bound     protocol, bound address      → a record of that server address
//   touched_     the records without a port that an operation has touched lately: it may have bound
//                them without bind, so a check asks Winsock about these, and only these
//
// Any thread. One lock guards the records; it is held across getsockname.
#pragma once

#include <cstdint>

#include "Net/net_helper.h"
#include "Platform/lock.h"
#include "Policy/destination_decision.h"
#include "Policy/message.h"
#include "VornCore/Base/hash_index.h"
#include "VornCore/Base/list.h"

namespace VornCore {

inline constexpr std::uint32_t kProtocolTcp = 6, kProtocolUdp = 17;
inline constexpr std::uint32_t kProtocolUnknown = 256;  // of a socket without a record

struct SocketRecord {
  std::uint32_t protocol;  // kProtocolTcp, kProtocolUdp
  std::uint32_t family;
  net_helper::SocketAddress bound_address;  // as last read; zero until bound
  bool is_server;                           // traffic of a server socket is not checked
  std::uint64_t request_queue;              // registered I/O; 0 without one
  SOCKET socket;                            // INVALID_SOCKET in a copy that was not found
  std::uint64_t send_count;
  std::uint64_t rio_send_count;

  bool known() const { return socket != INVALID_SOCKET; }
};

// What an audit message tells the host about one call. Texts are numeric addresses, ports are in host order.
struct NetAuditFacts {
  vorn::policy::AuditType type;
  NTSTATUS status;
  vorn::policy::DestinationDecision decision;
  const wchar_t* domain;  // null without one
  const char* source;
  std::uint16_t source_port;  // 0 when unknown
  const char* destination;
  std::uint16_t destination_port;
  std::uint32_t protocol;
};

class SocketACLModel {
 public:
  SocketACLModel() = default;
  virtual ~SocketACLModel();
  SocketACLModel(const SocketACLModel&) = delete;
  SocketACLModel& operator=(const SocketACLModel&) = delete;

  // domain: UTF-16 or null. An address that is null, empty or unreadable leaves domain and default rules to
  // decide.
  vorn::policy::DestinationDecision CheckSocketACL(const wchar_t* domain, const sockaddr* address,
                                                   std::uint32_t length, std::uint32_t protocol) noexcept;

  // A copy of the socket's record; of an unknown socket all zero but socket = INVALID_SOCKET. With classify,
  // a socket that is bound to a port and has never sent becomes a server.
  SocketRecord QuerySocket(SOCKET socket, bool classify) noexcept;

  void AddSocket(std::uint32_t protocol, std::uint32_t family, SOCKET socket) noexcept;
  void RemoveSocket(SOCKET socket) noexcept;  // the first record of the handle
  // Another address than the stored one also forgets the sends and the server role.
  void SetBoundAddress(SOCKET socket, const net_helper::SocketAddress& address) noexcept;
  void SetRequestQueue(SOCKET socket, std::uint64_t queue) noexcept;
  SOCKET FindSocketByRequestQueue(std::uint64_t queue) noexcept;
  void AddSendCount(SOCKET socket, std::uint64_t count) noexcept;
  void AddRioSendCount(SOCKET socket, std::uint64_t count) noexcept;
  std::int32_t socket_count() noexcept;

  void PrintNetACL() noexcept;  // every rule, when debug logging is on
  void SendNetAudit(const NetAuditFacts& facts) noexcept;

 private:
  struct BySocket;
  struct ByQueue;
  struct ByBound;
  struct Touched;
  struct TrackedSocket;

  TrackedSocket* Find(SOCKET socket) const noexcept;
  TrackedSocket* FindTouched(SOCKET socket) noexcept;
  void Touch(TrackedSocket* tracked) noexcept;
  void StoreBound(TrackedSocket* tracked, const net_helper::SocketAddress& address) noexcept;
  void RefreshTouchedSockets(std::uint32_t protocol) noexcept;
  void Forget(TrackedSocket* tracked) noexcept;
  ListHead& TouchedList(std::uint32_t protocol) noexcept {
    return touched_[protocol == kProtocolTcp ? 0 : 1];
  }
  class RuleContext;

  bool CheckOwnServer(const net_helper::SocketAddress& destination, std::uint32_t length,
                      std::uint32_t protocol) noexcept;

  platform::CriticalSection lock_;
  ListHead sockets_;
  ListHead touched_[2];  // TCP, UDP
  std::uint64_t next_serial_ = 0;
  HashIndex<TrackedSocket, BySocket> by_socket_;
  HashIndex<TrackedSocket, ByQueue> by_queue_;
  HashIndex<TrackedSocket, ByBound> by_bound_;
};

}  // namespace VornCore
