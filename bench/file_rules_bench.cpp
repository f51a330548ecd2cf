// File rule lookup, side by side with the scan that tries prefix by prefix, and with one sequential read of
// the rule table.
#include <cstdint>
#include <cstdio>
#include <random>
#include <string>
#include <string_view>
#include <vector>

#ifdef __SSE2__
#include <emmintrin.h>
#endif

#include "Policy/file_rules.h"
#include "bench/bench_clock.h"
#include "tests/unit/reference_rules.h"
#include "tests/unit/section_builder.h"

namespace {

using namespace vorn::policy;

std::u16string Component(std::mt19937& random) {
  std::u16string text(6 + random() % 8, u'a');
  for (char16_t& unit : text) unit = static_cast<char16_t>(u'a' + random() % 26);
  return text;
}

// Rules below folders that the looked-up path does not lie in: the whole table has to be looked at.
std::vector<std::byte> Section(std::size_t rules, std::mt19937& random) {
  test::SectionBuilder builder;
  for (std::size_t i = 0; i < rules; ++i) {
    std::u16string path = u"\\device\\harddiskvolume3";
    for (std::size_t depth = 2 + random() % 6; depth > 0; --depth) path += u'\\' + Component(random);
    builder.FileRule(1 + random() % 3, path);
  }
  return builder.Build();
}

std::u16string Path(std::size_t depth, std::mt19937& random) {
  std::u16string path = u"\\Device\\HarddiskVolume3";
  for (std::size_t i = 2; i < depth; ++i) path += u'\\' + Component(random);
  return path;
}

std::uint64_t ReadTable(const SectionView& section) {
  const auto rules = section.FileRules();
#ifdef __SSE2__
  // Four independent accumulators: bound by the loads alone.
  __m128i a{}, b{}, c{}, d{};
  const auto* at = reinterpret_cast<const __m128i*>(rules.data());
  std::size_t i = 0;
  for (; i + 4 <= rules.size(); i += 4) {
    a = _mm_xor_si128(a, _mm_loadu_si128(at + i));
    b = _mm_xor_si128(b, _mm_loadu_si128(at + i + 1));
    c = _mm_xor_si128(c, _mm_loadu_si128(at + i + 2));
    d = _mm_xor_si128(d, _mm_loadu_si128(at + i + 3));
  }
  for (; i < rules.size(); ++i) a = _mm_xor_si128(a, _mm_loadu_si128(at + i));
  a = _mm_xor_si128(_mm_xor_si128(a, b), _mm_xor_si128(c, d));
  std::uint64_t words[2];
  _mm_storeu_si128(reinterpret_cast<__m128i*>(words), a);
  return words[0] ^ words[1];
#else
  std::uint32_t sum = 0;
  for (const FileRuleRecord& rule : rules)
    sum ^= rule.access ^ rule.path_hash ^ rule.path.length ^ rule.path.offset;
  return sum;
#endif
}

}  // namespace

int main() {
  std::mt19937 random(20260117);
  std::printf("%8s %6s %12s %12s %12s %14s %14s\n", "rules", "depth", "lookup ns", "literal ns", "read ns",
              "literal/lookup", "lookup/read");
  for (const std::size_t rules : {10u, 100u, 1000u, 10000u}) {
    const auto memory = Section(rules, random);
    const SectionView section{memory};
    for (const std::size_t depth : {4u, 8u, 16u, 40u}) {
      const std::u16string path = Path(depth, random);
      const int calls = static_cast<int>(200000 / (rules + 500));
      const auto nanos = vorn::bench::SideBySide(
          60, calls, [&] { vorn::bench::Keep(CheckFileACL(section, path)); },
          [&] { vorn::bench::Keep(test::ReferenceCheckFileACL(section, path)); },
          [&] { vorn::bench::Keep(ReadTable(section)); });
      std::printf("%8zu %6zu %12.0f %12.0f %12.0f %14.1f %14.2f\n", rules, depth, nanos[0], nanos[1],
                  nanos[2], nanos[1] / nanos[0], nanos[0] / nanos[2]);
    }
  }
}
