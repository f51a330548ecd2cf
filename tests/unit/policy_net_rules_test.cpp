#include <gtest/gtest.h>

#include "Policy/destination_decision.h"
#include "section_builder.h"

namespace vorn::policy {
namespace {

using test::NetRuleFields;
using test::SectionBuilder;

std::string Narrow(std::u16string_view text) { return {text.begin(), text.end()}; }

IpAddress V4(std::uint8_t a, std::uint8_t b, std::uint8_t c, std::uint8_t d, std::uint16_t port) {
  return {.family = kFamilyIPv4, .bytes = {a, b, c, d}, .port = port};
}

NetRuleFields AddressRule(std::uint32_t verdict, const IpAddress& address, std::uint32_t prefix,
                          std::vector<std::uint16_t> ports = {}) {
  return {.verdict = verdict,
          .kind = NetRuleKind::kAddress,
          .family = address.family,
          .prefix = prefix,
          .address = {address.bytes.begin(), address.bytes.begin() + 4},
          .ports = std::move(ports)};
}

NetRuleFields DomainRule(std::uint32_t verdict, std::u16string domain,
                         std::vector<std::uint16_t> ports = {}) {
  return {.verdict = verdict,
          .kind = NetRuleKind::kDomain,
          .ports = std::move(ports),
          .domain = std::move(domain)};
}

DestinationDecision Decide(const SectionBuilder& builder, std::u16string_view domain,
                           const IpAddress* address) {
  const auto memory = builder.Build();
  DestinationContext context;
  return DecideDestination(SectionView{memory}, {.address = address, .name = domain}, context);
}

TEST(NetRules, AddressThenDomainThenDefaultDecidesAndRulesOfOtherPortsArePassedOver) {
  const std::vector<NetRuleFields> rules = {
      {.verdict = kVerdictAllow},
      DomainRule(kVerdictDeny, u"bad.example"),
      AddressRule(kVerdictDeny, V4(10, 0, 0, 0, 0), 8),
      AddressRule(kVerdictDeny, V4(192, 0, 2, 0, 0), 24, {80, 443}),
      AddressRule(kVerdictAllow, V4(192, 0, 2, 7, 0), 32),
      DomainRule(kVerdictDeny, u"a.example", {443}),
      DomainRule(kVerdictAllow, u"a.example"),
  };
  SectionBuilder builder, no_default;
  EXPECT_EQ(Decide(builder, u"x", nullptr).fact, DecidingFact::kNoNetRules);
  for (const NetRuleFields& rule : rules) builder.NetRule(rule);
  const struct {
    std::u16string_view domain;
    IpAddress address;
    DecidingFact fact;
    std::uint32_t rule;
  } cases[] = {
      {u"good.example", V4(10, 1, 2, 3, 443), DecidingFact::kAddressRule, 2},
      {u"bad.example", V4(11, 0, 0, 1, 443), DecidingFact::kDomainRule, 1},
      {u"bad.example", {.family = 1}, DecidingFact::kDomainRule, 1},
      {u"", V4(11, 0, 0, 1, 443), DecidingFact::kDefaultRule, 0},
      {u"", V4(192, 0, 2, 7, 443), DecidingFact::kAddressRule, 3},
      {u"", V4(192, 0, 2, 7, 22), DecidingFact::kAddressRule, 4},
      {u"a.example", V4(198, 51, 100, 1, 443), DecidingFact::kDomainRule, 5},
  };
  for (const auto& c : cases) {
    const DestinationDecision decision = Decide(builder, c.domain, &c.address);
    EXPECT_EQ(decision.fact, c.fact) << &c - cases;
    EXPECT_EQ(decision.rule, c.rule) << &c - cases;
    EXPECT_EQ(decision.verdict, rules[c.rule].verdict) << &c - cases;
  }
  EXPECT_EQ(Decide(builder, u"a.example", nullptr).rule, 6u) << "without an address the port is 0";
  builder.header().flags = kFlagNetCheckOff;
  EXPECT_EQ(Decide(builder, u"bad.example", &cases[0].address).fact, DecidingFact::kNetCheckOff);

  no_default.NetRule(DomainRule(kVerdictAllow, u"x"));
  EXPECT_EQ(Decide(no_default, u"y", &cases[0].address).fact, DecidingFact::kNoMatch);
  EXPECT_EQ(Decide(no_default, u"y", &cases[0].address).verdict, kVerdictDeny);
}

TEST(NetRules, DomainPatterns) {
  using namespace std::string_view_literals;
  using Pairs = std::vector<std::pair<std::u16string_view, std::u16string_view>>;
  const Pairs matching = {
      {u"example.com\0"sv, u"Example.COM"},
      {u"example.com"sv, u"example.com.evil"},  // its terminator is not counted: a prefix
      {u"*.example.com\0"sv, u"example.com"},
      {u"*.example.com\0"sv, u"a.b.Example.com"},
      {u"*.example.com"sv, u"A.Example.COM"},
      {u"*example.com\0"sv, u"badexample.com"},
      {u"www.*.com\0"sv, u"anything.com"},  // only what follows the star counts
      {u"*.\0"sv, u""},
  };
  const Pairs others = {
      {u"example.com\0"sv, u"example.com.evil"},
      {u"example.com\0"sv, u"example.co"},
      {u"example.com"sv, u"example.co"},
      {u"*.example.com\0"sv, u"badexample.com"},
      {u"*example.com\0"sv, u"xample.com"},
      {u"*\0"sv, u"example.com"},
      {u"*"sv, u"example.com"},
      {u"*.\0"sv, u"example.com"},
      {u"**.com\0"sv, u"example.com"},
      {u"\0example.com"sv, u"example.com"},
      {u""sv, u"example.com"},
      {u"*.example.com\0"sv, u""},
      {u"b\u00DCcher.example\0"sv, u"b\u00FCcher.example"},
  };
  for (const auto& [pattern, domain] : matching)
    EXPECT_TRUE(DomainMatches(pattern, domain)) << Narrow(pattern);
  for (const auto& [pattern, domain] : others)
    EXPECT_FALSE(DomainMatches(pattern, domain)) << Narrow(pattern);
}

}  // namespace
}  // namespace vorn::policy
