// What a run has deleted and how it can be put back: the files that it kept in the recycle bin itself, which
// name the run, and those that its journal knows.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "vorn/recycle_bin.h"

namespace vorn::host {

struct Deletion {
  std::wstring path;                   // drive-letter or UNC form
  std::uint64_t time_ms = 0;           // milliseconds since 1970 UTC
  std::optional<RecycledFile> stored;  // nothing: it is no longer in the bin
};

// In the order of deletion; nothing when neither bin nor journal knows the run. Any thread.
std::optional<std::vector<Deletion>> ListDeletions(const std::string& run);

// Names of the runs that have deleted anything, oldest first.
std::vector<std::string> ListDeletingRuns();

}  // namespace vorn::host
