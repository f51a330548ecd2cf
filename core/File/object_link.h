// Symbolic-link objects of the object manager: drive letters, \??\UNC, \DosDevices, …
#pragma once

#include <optional>
#include <string_view>

#include "windows/nt.h"

namespace VornCore {

// A chain of more links than this is a loop.
inline constexpr int kMaxLinkChain = 32;

struct TranslatedPath {
  std::wstring_view path;   // terminated; scratch slot 0 of the current level
  bool translated = false;  // at least one link was resolved
};

// Replaces the longest prefix of path that is a link by its target until no prefix is one. Pipes, mailslots
// and network devices stay as they are. Nothing when a link cannot be read, the chain does not end, or memory
// is short. Uses the scratch slots 0 and 1 of the current level.
std::optional<TranslatedPath> TranslateSymlinksToTargetPath(std::wstring_view path) noexcept;

}  // namespace VornCore
