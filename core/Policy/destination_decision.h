// The whole question about a destination: whether a process may reach it, and why.
//
// Address rules come first (before them, a server of the process itself is allowed), then the rules for the
// name that the program resolved, then the default rule. Rules without any match deny.
//
// Pure: no system calls, no allocation, no state. Any thread.
#pragma once

#include <cstdint>
#include <string_view>

#include "Policy/deciding_fact.h"
#include "Policy/net_rules.h"

namespace vorn::policy {

// What the kernel asks of its caller while it decides, and what it tells it, step by step.
class DestinationContext {
 public:
  // Whether a socket of the process itself is bound to exactly the address that is decided about.
  virtual bool IsOwnServer() noexcept { return false; }
  virtual void OnAddress(const AddressRuleMatch&) noexcept {}
  virtual void OnName(const DomainRuleMatch&) noexcept {}
  virtual void OnDefault(const NetRuleMatch&) noexcept {}
};

struct DestinationFacts {
  // Of another family than IPv4 and IPv6, its port alone counts; null: port 0.
  const IpAddress* address = nullptr;
  std::u16string_view name = {};  // that the program resolved to the address; empty: none
};

struct DestinationDecision {
  std::uint32_t verdict = kVerdictDeny;  // or what the deciding rule says
  DecidingFact fact = DecidingFact::kNoMatch;
  std::uint32_t rule = kNoRule;  // index in the section's table
};

[[nodiscard]] DestinationDecision DecideDestination(const SectionView& section, const DestinationFacts& facts,
                                                    DestinationContext& context) noexcept;

}  // namespace vorn::policy
