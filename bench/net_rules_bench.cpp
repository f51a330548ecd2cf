// Address rule matching, side by side with a plain scan that reads record by record and compares byte by
// byte.
#include <cstdint>
#include <cstdio>
#include <random>
#include <vector>

#include "Policy/net_rules.h"
#include "bench/bench_clock.h"
#include "tests/unit/reference_rules.h"
#include "tests/unit/section_builder.h"

namespace {

using namespace vorn::policy;

// Rules of both families that the looked-up addresses do not match: the whole table has to be looked at.
std::vector<std::byte> Section(std::size_t rules, std::mt19937& random) {
  test::SectionBuilder builder;
  for (std::size_t i = 0; i < rules; ++i) {
    const bool v4 = random() % 2 == 0;
    std::vector<std::uint8_t> address(v4 ? 4 : 16);
    for (std::uint8_t& byte : address) byte = static_cast<std::uint8_t>(random());
    address[0] = static_cast<std::uint8_t>(address[0] | 0x80);
    builder.NetRule({.verdict = kVerdictAllow,
                     .kind = NetRuleKind::kAddress,
                     .family = v4 ? kFamilyIPv4 : kFamilyIPv6,
                     .prefix = static_cast<std::uint32_t>(8 + random() % (v4 ? 25 : 121)),
                     .address = address,
                     .ports = {80, 443}});
  }
  return builder.Build();
}

}  // namespace

int main() {
  std::mt19937 random(20260117);
  std::printf("%8s %6s %12s %12s %14s\n", "rules", "family", "match ns", "literal ns", "literal/match");
  for (const std::size_t rules : {10u, 100u, 1000u, 10000u}) {
    const auto memory = Section(rules, random);
    const SectionView section{memory};
    for (const std::uint32_t family : {kFamilyIPv4, kFamilyIPv6}) {
      IpAddress address{.family = family, .bytes = {}, .port = 443};
      for (std::uint8_t& byte : address.bytes) byte = static_cast<std::uint8_t>(random());
      address.bytes[0] &= 0x7F;
      const int calls = static_cast<int>(200000 / (rules + 500));
      const auto nanos = vorn::bench::SideBySide(
          60, calls, [&] { vorn::bench::Keep(MatchAddressRules(section, address)); },
          [&] { vorn::bench::Keep(test::ReferenceMatchAddressRules(section, address)); });
      std::printf("%8zu %6s %12.0f %12.0f %14.2f\n", rules, family == kFamilyIPv4 ? "v4" : "v6", nanos[0],
                  nanos[1], nanos[1] / nanos[0]);
    }
  }
}
