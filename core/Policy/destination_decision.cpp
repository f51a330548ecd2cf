#include "Policy/destination_decision.h"

namespace vorn::policy {
namespace {

DestinationDecision By(const NetRuleMatch& match, DecidingFact fact) noexcept {
  return {match.verdict, fact, match.rule_index};
}

bool IsInternet(const IpAddress& address) noexcept {
  return address.family == kFamilyIPv4 || address.family == kFamilyIPv6;
}

}  // namespace

DestinationDecision DecideDestination(const SectionView& section, const DestinationFacts& facts,
                                      DestinationContext& context) noexcept {
  if (!section.HasNetRules()) return {kVerdictAllow, DecidingFact::kNoNetRules};
  if (section.IsNetCheckOff()) return {kVerdictAllow, DecidingFact::kNetCheckOff};
  const std::uint16_t port = facts.address ? facts.address->port : 0;
  if (facts.address && IsInternet(*facts.address)) {
    const bool own_server = context.IsOwnServer();
    AddressRuleMatch match;
    if (own_server) {
      match.decided = true;
      match.verdict = kVerdictAllow;
    } else {
      match = MatchAddressRules(section, *facts.address);
    }
    context.OnAddress(match);
    if (own_server) return {kVerdictAllow, DecidingFact::kOwnServer};
    if (match.decided) return By(match, DecidingFact::kAddressRule);
  }
  if (!facts.name.empty()) {
    const DomainRuleMatch match = MatchDomainRules(section, facts.name, port);
    context.OnName(match);
    if (match.decided) return By(match, DecidingFact::kDomainRule);
  }
  const NetRuleMatch match = MatchDefaultRule(section);
  context.OnDefault(match);
  return match.decided ? By(match, DecidingFact::kDefaultRule) : DestinationDecision{};
}

}  // namespace vorn::policy
