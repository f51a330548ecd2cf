#include "Net/socket_acl_model.h"

#include <atomic>
#include <cstring>
#include <new>

#include "Policy/net_rules.h"
#include "Policy/wide.h"
#include "VornCore/Base/channel.h"
#include "VornCore/Base/clock.h"
#include "VornCore/Base/log.h"
#include "VornCore/Base/shared_data.h"
#include "VornCore/Base/strings.h"

namespace VornCore {
namespace {

namespace policy = vorn::policy;
using net_helper::SocketAddress;
using policy::kVerdictDeny;
using policy::VerdictText;

// How often a touched record is looked at before it counts as left unbound: the check of the operation that
// touched it runs before the system binds the socket, so the next check has to look once more.
constexpr int kLooksAfterTouch = 2;

std::atomic<std::uint64_t> g_check_sample_sent = 0, g_rio_sample_sent = 0;

struct AddressText {
  char text[net_helper::kAddressTextBytes] = {};

  AddressText() = default;
  AddressText(std::uint32_t family, const void* host) {
    net_helper::inet_ntop(static_cast<int>(family), host, text, sizeof text - 1);
  }
};

policy::IpAddress ToIpAddress(const SocketAddress& address) {
  policy::IpAddress ip;
  ip.family = address.family();
  memcpy(ip.bytes.data(), address.host(), address.host_bytes());
  ip.port = net_helper::ntohs(net_helper::GetSockaddrPort(address.get()));
  return ip;
}

// A pattern or domain for a log line; text may be unterminated and at any alignment.
HeapText LogText(std::u16string_view text) { return text.empty() ? nullptr : CountedToAnsi(policy::W(text)); }

}  // namespace

struct SocketACLModel::Touched : ListNode {
  int looks_left = 0;  // 0: not in the list of touched records
};

struct InOrder : ListNode {};

struct SocketACLModel::TrackedSocket : InOrder,
                                       Touched,
                                       HashNode<BySocket>,
                                       HashNode<ByQueue>,
                                       HashNode<ByBound> {
  SocketRecord record = {};
  std::uint64_t serial = 0;  // position in the list

  bool has_port() const { return net_helper::GetSockaddrPort(record.bound_address.get()) != 0; }

  static std::uint64_t BoundHash(const SocketAddress& address, std::uint32_t protocol) {
    std::uint64_t halves[2] = {};
    memcpy(halves, address.host(), address.host_bytes());
    const std::uint64_t rest = (std::uint64_t{protocol} << 32) | (std::uint64_t{address.family()} << 16) |
                               net_helper::GetSockaddrPort(address.get());
    return HashWord(HashWord(halves[0] ^ rest) + halves[1]);
  }
};

SocketACLModel::~SocketACLModel() {
  platform::LockGuard lock(lock_);
  while (ListNode* first = FirstNode(sockets_))
    Forget(static_cast<TrackedSocket*>(static_cast<InOrder*>(first)));
}

// ---- Records ----

SocketACLModel::TrackedSocket* SocketACLModel::Find(SOCKET socket) const noexcept {
  return by_socket_.Find(HashWord(socket), [&](const TrackedSocket& t) { return t.record.socket == socket; });
}

// For operations that may go on to bind the socket.
SocketACLModel::TrackedSocket* SocketACLModel::FindTouched(SOCKET socket) noexcept {
  TrackedSocket* tracked = Find(socket);
  if (tracked) Touch(tracked);
  return tracked;
}

void SocketACLModel::Touch(TrackedSocket* tracked) noexcept {
  if (tracked->has_port()) return;
  if (!tracked->looks_left) Append(TouchedList(tracked->record.protocol), static_cast<Touched*>(tracked));
  tracked->looks_left = kLooksAfterTouch;
}

void SocketACLModel::StoreBound(TrackedSocket* tracked, const SocketAddress& address) noexcept {
  by_bound_.Remove(tracked);
  tracked->record.bound_address = address;
  if (tracked->has_port())
    by_bound_.Insert(tracked, TrackedSocket::BoundHash(address, tracked->record.protocol));
}

void SocketACLModel::RefreshTouchedSockets(std::uint32_t protocol) noexcept {
  ListHead& list = TouchedList(protocol);
  for (ListNode *node = FirstNode(list), *next; node; node = next) {
    next = NextNode(node);
    auto* tracked = static_cast<TrackedSocket*>(static_cast<Touched*>(node));
    SocketAddress address;
    if (!tracked->has_port() && net_helper::ReadLocalAddress(tracked->record.socket, address))
      StoreBound(tracked, address);
    if (!tracked->has_port() && --tracked->looks_left) continue;
    tracked->looks_left = 0;
    Remove(list, node);
  }
}

void SocketACLModel::AddSocket(std::uint32_t protocol, std::uint32_t family, SOCKET socket) noexcept {
  auto* tracked = new (std::nothrow) TrackedSocket;
  if (!tracked) return;
  tracked->record.protocol = protocol;
  tracked->record.family = family;
  tracked->record.socket = socket;
  platform::LockGuard lock(lock_);
  tracked->serial = next_serial_++;
  Append(sockets_, static_cast<InOrder*>(tracked));
  by_socket_.Insert(tracked, HashWord(socket));
  Touch(tracked);  // a duplicate of another process's socket may be bound already
}

void SocketACLModel::Forget(TrackedSocket* tracked) noexcept {
  if (tracked->looks_left) Remove(TouchedList(tracked->record.protocol), static_cast<Touched*>(tracked));
  by_socket_.Remove(tracked);
  by_queue_.Remove(tracked);
  by_bound_.Remove(tracked);
  Remove(sockets_, static_cast<InOrder*>(tracked));
  delete tracked;
}

void SocketACLModel::RemoveSocket(SOCKET socket) noexcept {
  platform::LockGuard lock(lock_);
  if (TrackedSocket* tracked = Find(socket)) Forget(tracked);
}

void SocketACLModel::SetBoundAddress(SOCKET socket, const SocketAddress& address) noexcept {
  platform::LockGuard lock(lock_);
  TrackedSocket* tracked = Find(socket);
  if (!tracked || net_helper::IsSameSockaddr(tracked->record.bound_address.get(), address.get())) return;
  StoreBound(tracked, address);
  tracked->record.send_count = 0;
  tracked->record.is_server = false;
}

void SocketACLModel::SetRequestQueue(SOCKET socket, std::uint64_t queue) noexcept {
  platform::LockGuard lock(lock_);
  TrackedSocket* tracked = Find(socket);
  if (!tracked) return;
  by_queue_.Remove(tracked);
  tracked->record.request_queue = queue;
  by_queue_.Insert(tracked, HashWord(queue));
}

SOCKET SocketACLModel::FindSocketByRequestQueue(std::uint64_t queue) noexcept {
  platform::LockGuard lock(lock_);
  const TrackedSocket* first = nullptr;
  by_queue_.Find(HashWord(queue), [&](const TrackedSocket& t) {
    if (t.record.request_queue == queue && (!first || t.serial < first->serial)) first = &t;
    return false;
  });
  return first ? first->record.socket : INVALID_SOCKET;
}

void SocketACLModel::AddSendCount(SOCKET socket, std::uint64_t count) noexcept {
  platform::LockGuard lock(lock_);
  if (TrackedSocket* tracked = FindTouched(socket)) tracked->record.send_count += count;
}

void SocketACLModel::AddRioSendCount(SOCKET socket, std::uint64_t count) noexcept {
  std::uint64_t total = 0;
  {
    platform::LockGuard lock(lock_);
    if (TrackedSocket* tracked = FindTouched(socket)) total = tracked->record.rio_send_count += count;
  }
  if (total && MaySendSample(g_rio_sample_sent, GetPreciseTimeMicros()))
    SendSample(total, 0, 0, policy::kSubtypeSampleRioActivity, nullptr);
}

SocketRecord SocketACLModel::QuerySocket(SOCKET socket, bool classify) noexcept {
  SocketRecord copy{};
  copy.socket = INVALID_SOCKET;
  bool classified = false;
  {
    platform::LockGuard lock(lock_);
    TrackedSocket* tracked = FindTouched(socket);
    if (!tracked) return copy;
    SocketRecord& record = tracked->record;
    classified = classify && !record.is_server && record.send_count == 0 && tracked->has_port();
    if (classified) record.is_server = true;
    copy = record;
  }
  if (classified)
    VORN_LOG_N("Determine server is socket:%d port:%d protocol:%d", static_cast<int>(copy.socket),
               net_helper::ntohs(net_helper::GetSockaddrPort(copy.bound_address.get())),
               static_cast<int>(copy.protocol));
  return copy;
}

std::int32_t SocketACLModel::socket_count() noexcept {
  platform::LockGuard lock(lock_);
  return sockets_.count;
}

// ---- Decision ----

// Whether the destination is exactly where a socket of this process and protocol is bound.
bool SocketACLModel::CheckOwnServer(const SocketAddress& destination, std::uint32_t length,
                                    std::uint32_t protocol) noexcept {
  if (length > net_helper::kAddressBytes) return false;
  platform::LockGuard lock(lock_);
  RefreshTouchedSockets(protocol);
  return by_bound_.Find(TrackedSocket::BoundHash(destination, protocol), [&](const TrackedSocket& t) {
    return t.record.protocol == protocol &&
           net_helper::IsSameSockaddr(t.record.bound_address.get(), destination.get());
  });
}

// Tells the kernel about the process's own servers, and logs its steps.
class SocketACLModel::RuleContext final : public policy::DestinationContext {
 public:
  RuleContext(SocketACLModel& model, const SocketAddress& destination, std::uint32_t length,
              std::uint32_t protocol, const policy::DestinationFacts& facts) noexcept
      : model_(model), destination_(destination), length_(length), protocol_(protocol), facts_(facts) {}

  bool IsOwnServer() noexcept override { return model_.CheckOwnServer(destination_, length_, protocol_); }

  void OnAddress(const policy::AddressRuleMatch& match) noexcept override {
    if (match.decided) verdict_ = match.verdict;
    if (!IsDebugLogEnabled()) return;
    const policy::IpAddress& ip = *facts_.address;
    const AddressText text(ip.family, ip.bytes.data());
    const AddressText rule = match.rule_address.family
                                 ? AddressText(match.rule_address.family, match.rule_address.bytes.data())
                                 : AddressText();
    VORN_LOG_I("[Net ACL] ACL:[%d:%s] ip: %s[%d] config:%s/%d matched:%d", static_cast<int>(verdict_),
               VerdictText(verdict_), *text.text ? text.text : "nil", ip.port, rule.text,
               static_cast<int>(match.prefix_length), match.decided);
  }
  void OnName(const policy::DomainRuleMatch& match) noexcept override {
    if (match.decided) verdict_ = match.verdict;
    if (!IsDebugLogEnabled()) return;
    VORN_LOG_I("[Net ACL] ACL:[%d:%s] %s matched:[%d:%s]", static_cast<int>(verdict_), VerdictText(verdict_),
               OrNil(LogText(facts_.name)), match.decided, OrNil(LogText(match.pattern)));
  }
  void OnDefault(const policy::NetRuleMatch& match) noexcept override {
    if (match.decided) verdict_ = match.verdict;
    if (IsDebugLogEnabled())
      VORN_LOG_I("[Net ACL] ACL:[%d:%s] matched:%d", static_cast<int>(verdict_), VerdictText(verdict_),
                 match.decided);
  }

 private:
  SocketACLModel& model_;
  const SocketAddress& destination_;
  const std::uint32_t length_, protocol_;
  const policy::DestinationFacts& facts_;
  std::uint32_t verdict_ = kVerdictDeny;
};

policy::DestinationDecision SocketACLModel::CheckSocketACL(const wchar_t* domain, const sockaddr* address,
                                                           std::uint32_t length,
                                                           std::uint32_t protocol) noexcept {
  const std::uint64_t start = GetPreciseTimeMicros();
  policy::DestinationFacts facts;
  if (domain) facts.name = policy::U16(std::wstring_view(domain));
  SocketAddress destination;
  policy::IpAddress ip;
  if (net_helper::ReadAddress(address, length, destination) && destination.IsInternet()) {
    ip = ToIpAddress(destination);
    facts.address = &ip;
  }
  RuleContext context(*this, destination, length, protocol, facts);
  const policy::DestinationDecision decision = policy::DecideDestination(GetSection(), facts, context);
  const std::uint64_t end = GetPreciseTimeMicros();
  if (MaySendSample(g_check_sample_sent, end))
    SendSample(0, end - start, decision.verdict, policy::kSubtypeSampleSocketCheck, domain);
  return decision;
}

// ---- What the host and the log see ----

void SocketACLModel::PrintNetACL() noexcept {
  if (!IsDebugLogEnabled()) return;
  const policy::SectionView& section = GetSection();
  for (const policy::NetRuleRecord& rule : section.NetRules()) {
    const int kind = static_cast<int>(rule.kind);
    const char* verdict = VerdictText(rule.verdict);
    const policy::NetRulePorts ports = section.PortsOf(rule);
    switch (static_cast<policy::NetRuleKind>(kind)) {
      case policy::NetRuleKind::kAddress: {
        const policy::NetRuleAddress address = section.AddressOf(rule);
        const std::size_t needed = address.family == AF_INET ? 4 : 16;
        const AddressText text = address.bytes.size() >= needed
                                     ? AddressText(address.family, address.bytes.data())
                                     : AddressText();
        const int prefix = static_cast<int>(address.prefix_length);
        for (std::uint32_t i = 0; i < ports.size(); ++i)
          VORN_LOG_I("[Net ACL] Type:%d -> %s:%s/%d [%d]", kind, verdict, text.text, prefix, ports[i]);
        if (!ports.size()) VORN_LOG_I("[Net ACL] Type:%d -> %s:%s/%d", kind, verdict, text.text, prefix);
        break;
      }
      case policy::NetRuleKind::kDomain: {
        const HeapText pattern = LogText(section.DomainOf(rule).text);
        for (std::uint32_t i = 0; i < ports.size(); ++i)
          VORN_LOG_I("[Net ACL] Type:%d -> %s:%s [%d]", kind, verdict, OrNil(pattern), ports[i]);
        if (!ports.size()) VORN_LOG_I("[Net ACL] Type:%d -> %s:%s", kind, verdict, OrNil(pattern));
        break;
      }
      case policy::NetRuleKind::kDefault:
        VORN_LOG_I("[Net ACL] Type:%d -> %s", kind, verdict);
        break;
      default:
        VORN_LOG_I("[Net ACL] Unknown Type:%d", kind);
    }
  }
}

void SocketACLModel::SendNetAudit(const NetAuditFacts& facts) noexcept {
  const std::size_t domain_units = facts.domain ? wcslen(facts.domain) : 0;
  const HeapText domain = WideToUtf8(facts.domain, static_cast<std::int32_t>(domain_units * sizeof(wchar_t)));
  const policy::NetAudit audit{.type = facts.type,
                               .error = RtlNtStatusToDosErrorNoTeb(facts.status),
                               .verdict = policy::Verdict{facts.decision.verdict},
                               .protocol = policy::Protocol{facts.protocol},
                               .destination_port = facts.destination_port,
                               .source_port = facts.source_port,
                               .destination = facts.destination,
                               .source = facts.source,
                               .domain = domain ? std::string_view(domain.get()) : std::string_view(),
                               .extended = GetSection().Has(policy::SectionOption::kDecisionInAudit),
                               .rule = facts.decision.rule,
                               .fact = facts.decision.fact};
  EncodeAndSend(audit);
  if (IsDebugLogEnabled()) {
    const HeapText name = WideToAnsi(facts.domain);
    VORN_LOG_I("Audit Type:[%d:%s], Status:%X ACL:[%d:%s] Domain:[%s] DstPath:[%s->%d] Protocol:%d",
               static_cast<int>(facts.type), policy::AuditTypeName(facts.type),
               static_cast<unsigned>(facts.status), static_cast<int>(facts.decision.verdict),
               VerdictText(facts.decision.verdict), OrNil(name),
               facts.destination ? facts.destination : "nil", facts.destination_port,
               static_cast<int>(facts.protocol));
  }
}

}  // namespace VornCore
