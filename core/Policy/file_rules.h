// What the file rules say about a path.
//
// A rule covers its own path and everything below it. The most specific rule decides: the lookup tries the
// whole path, then each parent, and the first prefix that a rule names wins; among rules that name the same
// prefix, the first in the table. A path that no rule covers is read only.
//
// Paths are canonical NT device paths, compared without regard to the case of A to Z (of all letters where
// the section has kFoldAllLetters), with or without one trailing backslash. Nothing is allocated or cached:
// the section's current content decides. Any thread.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>

#include "Policy/section_view.h"

namespace vorn::policy {

// The access value of a rule and of a decision.
enum class FileACL : std::uint32_t {
  kUnknown = 0,    // unconfined: not decided, or the rule was invalid
  kDeny = 1,       // opening is refused
  kRead = 2,       // write rights are removed; also the answer when no rule matches
  kReadWrite = 3,  // deletions go to the recycle bin
};

// "D", "R", "RW", or "unknown" for any other value.
[[nodiscard]] constexpr const char* ACLName(std::uint32_t access) noexcept {
  switch (static_cast<FileACL>(access)) {
    case FileACL::kDeny:
      return "D";
    case FileACL::kRead:
      return "R";
    case FileACL::kReadWrite:
      return "RW";
    default:
      return "unknown";
  }
}
[[nodiscard]] constexpr const char* ACLName(FileACL access) noexcept {
  return ACLName(static_cast<std::uint32_t>(access));
}

struct FileRuleMatch {
  FileACL access = FileACL::kRead;
  bool found = false;
  bool invalid_access = false;   // the rule's access is 4 or more; `access` is kUnknown
  std::uint32_t rule_index = 0;  // meaningful when found
};

// The rule that decides about `path`. One pass over the path and one over the table; one more of each for
// every further PrefixHashes::kMaxPrefixes components that no rule names.
[[nodiscard]] FileRuleMatch CheckFileACL(const SectionView& section, std::u16string_view path) noexcept;

// The first rule that names exactly the first `length` units of `path`; its parents are not tried.
[[nodiscard]] FileRuleMatch CheckConfigPermission(const SectionView& section, std::u16string_view path,
                                                  std::size_t length) noexcept;

// The first rule in the table with less than `access` that names `path` or something below it. One pass over
// the table, in which most rules cost one comparison.
[[nodiscard]] FileRuleMatch FindStricterRuleWithin(const SectionView& section, std::u16string_view path,
                                                   FileACL access) noexcept;

}  // namespace vorn::policy
