// From a call's destination or source to a verdict, and to the message that tells the host.
#include "Net/dns_cache.h"
#include "Net/net_mgr.h"
#include "Platform/last_error.h"
#include "Policy/section_format.h"

namespace VornCore {
namespace {

using net_helper::SocketAddress;
using vorn::policy::kVerdictAllow;
using vorn::policy::kVerdictDeny;

struct Endpoint {
  char text[net_helper::kAddressTextBytes] = {};
  std::uint16_t port = 0;

  Endpoint() = default;
  Endpoint(const sockaddr* address, std::uint32_t length) {
    (void)net_helper::SockaddrToText(address, static_cast<std::int32_t>(length), text, &port);
  }
};

// A socket connected by ConnectEx tells its peer only after this option was set.
bool ReadPeerAddress(SOCKET s, SocketAddress& peer, std::uint32_t& length) noexcept {
  (void)net_helper::setsockopt(s, SOL_SOCKET, SO_UPDATE_CONNECT_CONTEXT, nullptr, 0);
  peer = {};
  int bytes = net_helper::kAddressBytes;
  if (net_helper::getpeername(s, peer.get(), &bytes) != 0) return false;
  length = static_cast<std::uint32_t>(bytes);
  return true;
}

}  // namespace

std::uint32_t CNetMgr::GetSocketProtocol(SOCKET s) noexcept {
  const SocketRecord record = model_.QuerySocket(s, false);
  return record.known() ? record.protocol : kProtocolUnknown;
}

bool CNetMgr::IsUncheckedSocket(SOCKET s) noexcept {
  const SocketRecord record = model_.QuerySocket(s, false);
  return !record.known() || record.is_server || record.protocol == kProtocolTcp;
}

void CNetMgr::CountSend(SOCKET s, std::uint32_t length) noexcept {
  if (length) model_.AddSendCount(s, 1);
}

bool CNetMgr::CheckConnect(SOCKET s, const sockaddr* address, std::uint32_t length) noexcept {
  if (s == INVALID_SOCKET) return true;
  platform::LastErrorKeeper keep;
  const SocketRecord record = model_.QuerySocket(s, false);
  if (!record.known()) return true;
  return CheckDestination(AuditType::kConnect, record, address, length) == kVerdictAllow;
}

bool CNetMgr::CheckTraffic(SOCKET s, const sockaddr* address, std::uint32_t length, AuditType type) noexcept {
  if (s == INVALID_SOCKET) return true;
  platform::LastErrorKeeper keep;
  const SocketRecord record = model_.QuerySocket(s, type == AuditType::kRecv);
  if (!record.known() || record.is_server || record.protocol == kProtocolTcp) return true;
  return CheckDestination(type, record, address, length) == kVerdictAllow;
}

std::uint32_t CNetMgr::CheckDestination(AuditType type, const SocketRecord& record, const sockaddr* address,
                                        std::uint32_t length) noexcept {
  SocketAddress peer;
  if (!address || !length) {
    if (!ReadPeerAddress(record.socket, peer, length)) return kVerdictDeny;
    address = peer.get();
  }
  const net_helper::SockaddrAdapter adapter(address, length);
  if (!adapter.Address() || !adapter.Length()) return kVerdictDeny;

  DomainName domain;
  GetDnsCache().FindDomainByAddress(adapter.Address(), adapter.Length(), domain);
  const vorn::policy::DestinationDecision decision =
      model_.CheckSocketACL(domain.get(), adapter.Address(), adapter.Length(), record.protocol);
  const bool allowed = decision.verdict == kVerdictAllow;
  if (allowed && type != AuditType::kConnect) return decision.verdict;

  const Endpoint destination(adapter.Address(), adapter.Length());
  AuditDestination(record.socket, {.type = type,
                                   .status = allowed ? STATUS_SUCCESS : STATUS_ACCESS_DENIED,
                                   .decision = decision,
                                   .domain = domain.get(),
                                   .source = "",
                                   .source_port = 0,
                                   .destination = destination.text,
                                   .destination_port = destination.port,
                                   .protocol = record.protocol});
  return decision.verdict;
}

void CNetMgr::AuditDestination(SOCKET s, NetAuditFacts facts) noexcept {
  Endpoint source;
  SocketAddress local;
  std::int32_t length = 0;
  if (s != INVALID_SOCKET && net_helper::ReadLocalAddress(s, local, &length))
    source = Endpoint(local.get(), static_cast<std::uint32_t>(length));
  facts.source = source.text;
  facts.source_port = source.port;
  model_.SendNetAudit(facts);
}

}  // namespace VornCore
