// Text comparison of the decision kernel: only the letters A to Z are folded, whatever the locale is, so that
// a rule means the same in every process.
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

[[nodiscard]] inline bool EqualsNoCase(std::u16string_view a, std::u16string_view b) noexcept {
  if (a.size() != b.size()) return false;
  for (std::size_t i = 0; i < a.size(); ++i) {
    if (FoldCase(UnitAt(a.data() + i)) != FoldCase(UnitAt(b.data() + i))) return false;
  }
  return true;
}

// True for an empty prefix.
[[nodiscard]] inline bool StartsWithNoCase(std::u16string_view text, std::u16string_view prefix) noexcept {
  return prefix.size() <= text.size() && EqualsNoCase({text.data(), prefix.size()}, prefix);
}

// True for an empty suffix.
[[nodiscard]] inline bool EndsWithNoCase(std::u16string_view text, std::u16string_view suffix) noexcept {
  return suffix.size() <= text.size() &&
         EqualsNoCase({text.data() + (text.size() - suffix.size()), suffix.size()}, suffix);
}

}  // namespace vorn::policy
