#include <gtest/gtest.h>

#include "Policy/destination_decision.h"
#include "section_builder.h"

namespace vorn::policy {
namespace {

using test::NetRuleFields;
using test::SectionBuilder;

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

TEST(NetRules, AddressThenDomainThenDefaultDecides) {
  SectionBuilder builder;
  EXPECT_EQ(Decide(builder, u"x", nullptr).fact, DecidingFact::kNoNetRules);
  builder.NetRule({.verdict = kVerdictAllow})
      .NetRule(DomainRule(kVerdictDeny, u"bad.example"))
      .NetRule(AddressRule(kVerdictDeny, V4(10, 0, 0, 0, 0), 8));
  const IpAddress inside = V4(10, 1, 2, 3, 443);
  const IpAddress outside = V4(11, 0, 0, 1, 443);
  const IpAddress unknown_family{.family = 1};

  DestinationDecision decision = Decide(builder, u"good.example", &inside);
  EXPECT_EQ(decision.verdict, kVerdictDeny);
  EXPECT_EQ(decision.fact, DecidingFact::kAddressRule);
  EXPECT_EQ(decision.rule, 2u);
  decision = Decide(builder, u"bad.example", &outside);
  EXPECT_EQ(decision.verdict, kVerdictDeny);
  EXPECT_EQ(decision.fact, DecidingFact::kDomainRule);
  EXPECT_EQ(Decide(builder, u"bad.example", &unknown_family).fact, DecidingFact::kDomainRule);
  decision = Decide(builder, u"", &outside);
  EXPECT_EQ(decision.verdict, kVerdictAllow);
  EXPECT_EQ(decision.fact, DecidingFact::kDefaultRule);

  builder.header().flags = kFlagNetCheckOff;
  EXPECT_EQ(Decide(builder, u"bad.example", &inside).fact, DecidingFact::kNetCheckOff);

  SectionBuilder no_default;
  no_default.NetRule(DomainRule(kVerdictAllow, u"x"));
  decision = Decide(no_default, u"y", &inside);
  EXPECT_EQ(decision.verdict, kVerdictDeny);
  EXPECT_EQ(decision.fact, DecidingFact::kNoMatch);
}

TEST(NetRules, ARuleWhosePortsDoNotMatchIsPassedOver) {
  SectionBuilder builder;
  builder.NetRule(AddressRule(kVerdictDeny, V4(192, 0, 2, 0, 0), 24, {80, 443}))
      .NetRule(AddressRule(kVerdictAllow, V4(192, 0, 2, 7, 0), 32))
      .NetRule(DomainRule(kVerdictDeny, u"a.example", {443}))
      .NetRule(DomainRule(kVerdictAllow, u"a.example"));
  const IpAddress https = V4(192, 0, 2, 7, 443);
  const IpAddress ssh = V4(192, 0, 2, 7, 22);
  const IpAddress elsewhere = V4(198, 51, 100, 1, 443);
  EXPECT_EQ(Decide(builder, u"", &https).rule, 0u);
  EXPECT_EQ(Decide(builder, u"", &ssh).rule, 1u);
  EXPECT_EQ(Decide(builder, u"a.example", &elsewhere).rule, 2u);
  EXPECT_EQ(Decide(builder, u"a.example", nullptr).rule, 3u) << "without an address the port is 0";

  const auto memory = builder.Build();
  const DomainRuleMatch none = MatchDomainRules(SectionView{memory}, u"b.example", 443);
  EXPECT_FALSE(none.decided);
  EXPECT_EQ(none.pattern.data(), nullptr);
}

TEST(NetRules, DomainPatterns) {
  using namespace std::string_view_literals;
  const struct {
    std::u16string_view pattern, domain;
    bool matches;
  } cases[] = {
      {u"example.com\0"sv, u"Example.COM", true},
      {u"example.com\0"sv, u"example.com.evil", false},
      {u"example.com\0"sv, u"example.co", false},
      {u"example.com"sv, u"example.com.evil", true},  // its terminator is not counted: a prefix
      {u"example.com"sv, u"example.co", false},
      {u"*.example.com\0"sv, u"example.com", true},
      {u"*.example.com\0"sv, u"a.b.Example.com", true},
      {u"*.example.com"sv, u"A.Example.COM", true},
      {u"*.example.com\0"sv, u"badexample.com", false},
      {u"*example.com\0"sv, u"badexample.com", true},
      {u"*example.com\0"sv, u"xample.com", false},
      {u"www.*.com\0"sv, u"anything.com", true},  // only what follows the star counts
      {u"*\0"sv, u"example.com", false},
      {u"*"sv, u"example.com", false},
      {u"*.\0"sv, u"example.com", false},
      {u"**.com\0"sv, u"example.com", false},
      {u"\0example.com"sv, u"example.com", false},
      {u""sv, u"example.com", false},
      {u"*.example.com\0"sv, u"", false},
      {u"*.\0"sv, u"", true},
      {u"b\u00DCcher.example\0"sv, u"b\u00FCcher.example", false},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(DomainMatches(c.pattern, c.domain), c.matches) << "case " << &c - cases;
  }
}

}  // namespace
}  // namespace vorn::policy
