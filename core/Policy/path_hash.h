// The hash of file-rule paths. Host and library must agree on it bit by bit: it is stored in every rule.
#pragma once

#include <algorithm>
#include <cstdint>
#include <string_view>

#include "Policy/text.h"

namespace vorn::policy {

// The greatest unit that the hash tells from others: where the case of all letters is ignored, those beyond
// ASCII count as one, so that hashing needs no table of letters.
constexpr char16_t LastHashed(Letters letters) noexcept {
  return letters == Letters::kAll ? kFirstOtherUnit : char16_t{0xFFFF};
}

// The hash of a path that grows unit by unit: after each Add, Value() is the hash of all units so far, so one
// pass over a path yields the hashes of all its parents.
class PathHash {
 public:
  constexpr PathHash() noexcept = default;
  // Goes on from the hash of what was added so far.
  explicit constexpr PathHash(std::uint32_t value) noexcept : value_(value) {}

  constexpr void Add(char16_t unit, Letters letters = Letters::kAToZ) noexcept {
    value_ = value_ * 33 + FoldCase(std::min(unit, LastHashed(letters)));
  }
  // Meaningful once a unit was added.
  [[nodiscard]] constexpr std::uint32_t Value() const noexcept { return value_; }

 private:
  std::uint32_t value_ = 5381;
};

// h = 5381, then h * 33 + lower(unit) for each unit, modulo 2^32; only A to Z are folded. 0 for an empty
// path.
[[nodiscard]] constexpr std::uint32_t HashPathNoCase(std::u16string_view path,
                                                     Letters letters = Letters::kAToZ) noexcept {
  if (path.empty()) return 0;
  PathHash hash;
  for (char16_t unit : path) hash.Add(unit, letters);
  return hash.Value();
}

}  // namespace vorn::policy
