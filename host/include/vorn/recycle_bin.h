// The recycle bin of the current user, as far as restoring needs it: what lies in it, and putting one file
// back.
//
// On Windows the bin is X:\$Recycle.Bin\SID of every fixed drive; where the shell keeps a trash folder with
// info files instead (below XDG_DATA_HOME), that one. Any thread; every call reads the bin anew.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace vorn::host {

struct RecycledFile {
  std::wstring original_path;       // drive-letter form
  std::wstring stored_path;         // where the data lies now
  std::wstring info_path;           // the file that remembers the origin
  std::uint64_t deleted_at_ms = 0;  // milliseconds since 1970 UTC; 0 when unknown
};

std::vector<RecycledFile> ListRecycleBin();

enum class RestoreOutcome {
  kRestored,
  kTargetExists,  // nothing was changed: a restore never replaces a file
  kGone,          // the bin no longer holds it
  kFailed,        // *error says why
};

// Moves the file back to its original path, with missing folders made again, and forgets its info file.
// error: Win32 error of a failure.
RestoreOutcome RestoreFile(const RecycledFile& file, std::uint32_t* error);

}  // namespace vorn::host
