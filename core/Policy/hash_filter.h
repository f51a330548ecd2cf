// A quick first look at the rule table: which rules can name one of a few prefixes at all, judged by 16 bits
// of their hash. `Scan` visits those in table order until the visitor, given the index of a rule, returns
// false.
#pragma once

#include <algorithm>
#include <array>
#include <bit>
#include <cstddef>
#include <cstdint>
#include <span>

#ifdef __SSE4_1__
#include <smmintrin.h>
#endif

#include "Policy/section_format.h"

namespace vorn::policy {

#ifdef __SSE4_1__

// Sixteen rules at a time. Each prefix sits in one of eight buckets, one bit each. A table per nibble gives
// the buckets that hold a prefix with that nibble; a rule may match when one bucket is named for all four
// nibbles.
class HashFilter {
 public:
  explicit HashFilter(std::span<const std::uint32_t> hashes) noexcept {
    alignas(16) std::uint8_t tables[4][16] = {};
    for (std::size_t i = 0; i < hashes.size(); ++i) {
      const auto bucket = static_cast<std::uint8_t>(1u << (i % 8));
      for (std::size_t nibble = 0; nibble < 4; ++nibble) {
        tables[nibble][hashes[i] >> (8 * kHashByte + 4 * nibble) & 0xF] |= bucket;
      }
    }
    for (std::size_t nibble = 0; nibble < 4; ++nibble) {
      tables_[nibble] = _mm_load_si128(reinterpret_cast<const __m128i*>(tables[nibble]));
    }
  }

  template <typename Visit>
  void Scan(std::span<const FileRuleRecord> rules, Visit visit) const noexcept {
    std::size_t i = 0;
    for (; i + kBlock <= rules.size(); i += kBlock) {
      if (!VisitBlock(Candidates(&rules[i]), i, visit)) return;
    }
    if (i == rules.size()) return;
    std::array<FileRuleRecord, kBlock> rest = {};
    std::copy(rules.begin() + static_cast<std::ptrdiff_t>(i), rules.end(), rest.begin());
    VisitBlock(Candidates(rest.data()) & ((1u << (rules.size() - i)) - 1), i, visit);
  }

 private:
  static constexpr std::size_t kBlock = 16;
  // The filter looks at bytes 1 and 2 of the hash: its lowest bits are little more than a sum of the units.
  static constexpr std::size_t kHashByte = 1;

  template <typename Visit>
  static bool VisitBlock(unsigned candidates, std::size_t first, Visit visit) noexcept {
    for (; candidates != 0; candidates &= candidates - 1) {
      if (!visit(first + static_cast<std::size_t>(std::countr_zero(candidates)))) return false;
    }
    return true;
  }

  // The load that brings the 16 hash bits of record `Lane` into word `Lane`.
  template <std::size_t Lane>
  static __m128i Load(const FileRuleRecord* rules) noexcept {
    constexpr std::size_t kAt = Lane * sizeof(FileRuleRecord) + offsetof(FileRuleRecord, path_hash) +
                                kHashByte - Lane * sizeof(std::uint16_t);
    return _mm_loadu_si128(reinterpret_cast<const __m128i*>(reinterpret_cast<const char*>(rules) + kAt));
  }

  // The hash bits of eight records, in their order.
  static __m128i HashWords(const FileRuleRecord* rules) noexcept {
    __m128i words = Load<0>(rules);
    words = _mm_blend_epi16(words, Load<1>(rules), 1 << 1);
    words = _mm_blend_epi16(words, Load<2>(rules), 1 << 2);
    words = _mm_blend_epi16(words, Load<3>(rules), 1 << 3);
    words = _mm_blend_epi16(words, Load<4>(rules), 1 << 4);
    words = _mm_blend_epi16(words, Load<5>(rules), 1 << 5);
    words = _mm_blend_epi16(words, Load<6>(rules), 1 << 6);
    return _mm_blend_epi16(words, Load<7>(rules), 1 << 7);
  }

  // Bit i is set when rules[i] may match.
  [[nodiscard]] unsigned Candidates(const FileRuleRecord* rules) const noexcept {
    const __m128i nibble = _mm_set1_epi8(0xF);
    const __m128i low_byte = _mm_set1_epi16(0xFF);
    const __m128i a = HashWords(rules);
    const __m128i b = HashWords(rules + 8);
    const __m128i low = _mm_packus_epi16(_mm_and_si128(a, low_byte), _mm_and_si128(b, low_byte));
    const __m128i high = _mm_packus_epi16(_mm_srli_epi16(a, 8), _mm_srli_epi16(b, 8));
    __m128i buckets = _mm_shuffle_epi8(tables_[0], _mm_and_si128(low, nibble));
    buckets =
        _mm_and_si128(buckets, _mm_shuffle_epi8(tables_[1], _mm_and_si128(_mm_srli_epi16(low, 4), nibble)));
    buckets = _mm_and_si128(buckets, _mm_shuffle_epi8(tables_[2], _mm_and_si128(high, nibble)));
    buckets =
        _mm_and_si128(buckets, _mm_shuffle_epi8(tables_[3], _mm_and_si128(_mm_srli_epi16(high, 4), nibble)));
    return static_cast<unsigned>(_mm_movemask_epi8(_mm_cmpeq_epi8(buckets, _mm_setzero_si128()))) ^ 0xFFFF;
  }

  __m128i tables_[4];
};

#else

class HashFilter {
 public:
  explicit HashFilter(std::span<const std::uint32_t> hashes) noexcept {
    for (const std::uint32_t hash : hashes) seen_[Index(hash)] = true;
  }

  template <typename Visit>
  void Scan(std::span<const FileRuleRecord> rules, Visit visit) const noexcept {
    for (std::size_t i = 0; i < rules.size(); ++i) {
      if (seen_[Index(rules[i].path_hash)] && !visit(i)) return;
    }
  }

 private:
  static std::size_t Index(std::uint32_t hash) noexcept { return hash >> 8 & 0x1FF; }

  std::array<bool, 512> seen_ = {};
};

#endif

}  // namespace vorn::policy
