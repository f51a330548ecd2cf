// The hashes of a path and of all its parents, from one pass over the path.
//
// A prefix ends before a backslash (the first unit does not count as one) or at the end of the path. Prefixes
// are ranked by length; the set keeps the kMaxPrefixes longest and says so when there are more.
#pragma once

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <span>
#include <string_view>

#ifdef __SSE4_1__
#include <smmintrin.h>
#endif

#include "Policy/path_hash.h"

namespace vorn::policy {

class PrefixHashes {
 public:
  static constexpr std::size_t kMaxPrefixes = 32;
  static constexpr std::ptrdiff_t kNone = -1;

  explicit PrefixHashes(std::u16string_view path, Letters letters = Letters::kAToZ) noexcept {
    if (path.empty()) return;
    PathHash hash;
    hash.Add(path[0], letters);
    std::size_t i = 1;
    std::size_t count = 0;  // not count_, which every vector store would make the compiler reload
#ifdef __SSE4_1__
    // The running hash stays in a vector register, in all lanes.
    __m128i running = _mm_set1_epi32(static_cast<int>(hash.Value()));
    const __m128i last_hashed = _mm_set1_epi32(LastHashed(letters));
    for (; i + 4 <= path.size(); i += 4) {
      count = MakeRoom(count);
      running = KeepFour(running, path.data() + i, last_hashed, count);
    }
    hash = PathHash(static_cast<std::uint32_t>(_mm_cvtsi128_si32(running)));
#endif
    for (; i < path.size(); ++i) {
      count = MakeRoom(count);
      // Writes always and counts at a backslash: where backslashes stand cannot be predicted.
      hashes_[count] = hash.Value();
      count += path[i] == u'\\' ? 1 : 0;
      hash.Add(path[i], letters);
    }
    hashes_[count++] = hash.Value();
    count_ = DropShortest(count);
  }

  // The set of one prefix whose hash is known.
  explicit PrefixHashes(std::uint32_t hash) noexcept : count_(1) { hashes_[0] = hash; }

  // Shortest first. A hash of 0 stands for a prefix that no rule can name.
  [[nodiscard]] std::span<const std::uint32_t> Hashes() const noexcept { return {hashes_.data(), count_}; }
  [[nodiscard]] std::ptrdiff_t LongestRank() const noexcept {
    return static_cast<std::ptrdiff_t>(count_) - 1;
  }

  // Whether the path has prefixes that are shorter than those in the set.
  [[nodiscard]] bool HasShorter() const noexcept { return dropped_; }

  // The rank of the longest prefix with this hash, or kNone.
  [[nodiscard]] std::ptrdiff_t Find(std::uint32_t hash) const noexcept {
    if (hash == 0) return kNone;
    std::ptrdiff_t rank = LongestRank();
    while (rank >= 0 && hashes_[static_cast<std::size_t>(rank)] != hash) --rank;
    return rank;
  }

 private:
#ifdef __SSE4_1__
  // Four units at once, and how many of them end a prefix is added to `count`. Lane k of `sums` becomes the
  // hash after unit k: first of the units alone, by adding to each lane 33 times its left neighbour and then
  // 33² times the lane two to the left, then with what the hash before them contributes, 33 to the power of k
  // + 1 times its value.
  __m128i KeepFour(__m128i before, const char16_t* at, __m128i last_hashed, std::size_t& count) noexcept {
    const __m128i units =
        _mm_min_epu32(_mm_cvtepu16_epi32(_mm_loadl_epi64(reinterpret_cast<const __m128i*>(at))), last_hashed);
    const __m128i upper = _mm_and_si128(_mm_cmpgt_epi32(units, _mm_set1_epi32(u'A' - 1)),
                                        _mm_cmplt_epi32(units, _mm_set1_epi32(u'Z' + 1)));
    __m128i sums = _mm_or_si128(units, _mm_and_si128(upper, _mm_set1_epi32(u'a' - u'A')));
    sums = _mm_add_epi32(sums, _mm_mullo_epi32(_mm_slli_si128(sums, 4), _mm_set1_epi32(kFactor)));
    sums = _mm_add_epi32(sums, _mm_mullo_epi32(_mm_slli_si128(sums, 8), _mm_set1_epi32(kFactor * kFactor)));
    const __m128i powers = _mm_setr_epi32(kFactor, kFactor * kFactor, kFactor * kFactor * kFactor,
                                          kFactor * kFactor * kFactor * kFactor);
    sums = _mm_add_epi32(sums, _mm_mullo_epi32(before, powers));

    // The hashes before each unit, those before a backslash moved to the front.
    const __m128i prefixes = _mm_alignr_epi8(sums, before, 12);
    const auto ends = static_cast<unsigned>(
        _mm_movemask_ps(_mm_castsi128_ps(_mm_cmpeq_epi32(units, _mm_set1_epi32(u'\\')))));
    const __m128i order = _mm_load_si128(reinterpret_cast<const __m128i*>(kToFront[ends].data()));
    _mm_storeu_si128(reinterpret_cast<__m128i*>(hashes_.data() + count), _mm_shuffle_epi8(prefixes, order));
    count += static_cast<unsigned>(__builtin_popcount(ends));
    return _mm_shuffle_epi32(sums, _MM_SHUFFLE(3, 3, 3, 3));
  }

  static constexpr int kFactor = 33;

  // For each set of lanes, the byte order that moves these lanes to the front.
  alignas(16) static constexpr auto kToFront = [] {
    std::array<std::array<std::uint8_t, 16>, 16> orders = {};
    for (unsigned lanes = 0; lanes < 16; ++lanes) {
      std::size_t to = 0;
      for (unsigned lane = 0; lane < 4; ++lane) {
        if ((lanes >> lane & 1) == 0) continue;
        for (unsigned byte = 0; byte < 4; ++byte)
          orders[lanes][to++] = static_cast<std::uint8_t>(4 * lane + byte);
      }
    }
    return orders;
  }();
#endif

  // Both take and return the number of hashes.
  std::size_t MakeRoom(std::size_t count) noexcept {
    return count < 2 * kMaxPrefixes ? count : DropShortest(count);
  }
  std::size_t DropShortest(std::size_t count) noexcept {
    if (count <= kMaxPrefixes) return count;
    std::copy_n(hashes_.begin() + static_cast<std::ptrdiff_t>(count - kMaxPrefixes), kMaxPrefixes,
                hashes_.begin());
    dropped_ = true;
    return kMaxPrefixes;
  }

  std::array<std::uint32_t, 2 * kMaxPrefixes + 4> hashes_;  // four units may be written at once
  std::size_t count_ = 0;
  bool dropped_ = false;
};

}  // namespace vorn::policy
