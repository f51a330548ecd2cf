// Text comparison of the decision kernel, whatever the locale is, so that a rule means the same in every
// process. The case of the letters A to Z is ignored; that of the others too where a caller asks for it.
//
// Texts are counted UTF-16 (views need no terminator). The functions accept texts at odd addresses, because a
// shared section may place its strings anywhere.
#pragma once

#include <cstddef>
#include <cstring>
#include <string_view>

namespace vorn::policy {

// The unit at `at`, at any alignment.
inline char16_t UnitAt(const char16_t* at) noexcept {
  char16_t unit;
  std::memcpy(&unit, static_cast<const void*>(at), sizeof unit);
  return unit;
}

// A to Z become a to z; every other unit stays.
constexpr char16_t FoldCase(char16_t c) noexcept {
  return c >= u'A' && c <= u'Z' ? static_cast<char16_t>(c | (u'a' - u'A')) : c;
}

enum class Letters { kAToZ, kAll };

// The capital of a unit, as the system has it when it compares names of files; the unit where it has none.
[[nodiscard]] char16_t CapitalOf(char16_t unit) noexcept;

// Behind ASCII, whose units are never the same as others.
inline constexpr char16_t kFirstOtherUnit = 0x80;

[[nodiscard]] inline bool SameUnit(char16_t a, char16_t b, Letters letters) noexcept {
  if (FoldCase(a) == FoldCase(b)) return true;
  return letters == Letters::kAll && a >= kFirstOtherUnit && b >= kFirstOtherUnit &&
         CapitalOf(a) == CapitalOf(b);
}

[[nodiscard]] inline bool EqualsNoCase(std::u16string_view a, std::u16string_view b,
                                       Letters letters = Letters::kAToZ) noexcept {
  if (a.size() != b.size()) return false;
  for (std::size_t i = 0; i < a.size(); ++i) {
    if (!SameUnit(UnitAt(a.data() + i), UnitAt(b.data() + i), letters)) return false;
  }
  return true;
}

// True for an empty prefix.
[[nodiscard]] inline bool StartsWithNoCase(std::u16string_view text, std::u16string_view prefix,
                                           Letters letters = Letters::kAToZ) noexcept {
  return prefix.size() <= text.size() && EqualsNoCase({text.data(), prefix.size()}, prefix, letters);
}

// True for an empty suffix.
[[nodiscard]] inline bool EndsWithNoCase(std::u16string_view text, std::u16string_view suffix) noexcept {
  return suffix.size() <= text.size() &&
         EqualsNoCase({text.data() + (text.size() - suffix.size()), suffix.size()}, suffix);
}

}  // namespace vorn::policy
