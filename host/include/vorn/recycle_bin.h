// The recycle bin of the current user, as far as keeping and restoring need it: where it lies, what lies in
// it, and putting one file back.
//
// On Windows the bin is X:\$Recycle.Bin\SID of every fixed drive; where the shell keeps a trash folder with
// info files instead (below XDG_DATA_HOME), that one. Any thread; every call reads the bin anew.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "Policy/section_format.h"

namespace vorn::host {

// Folders in which a run can keep deleted files: canonical NT paths, each on its volume.
struct KeepPlaces {
  struct Place {
    std::wstring volume = {};  // what the paths of its files begin with; empty: all
    std::wstring folder = {};
  };
  policy::KeepFormat format = policy::KeepFormat::kNone;
  std::vector<Place> places = {};
};

// The user's recycle bin, for every fixed drive on which a file can have several names. Folders that are
// missing are made, visible to the user alone; a drive whose bin cannot be made is left out.
KeepPlaces FindKeepPlaces();

struct RecycledFile {
  std::wstring original_path;       // drive-letter form
  std::wstring stored_path;         // where the data lies now
  std::wstring info_path;           // the file that remembers the origin
  std::uint64_t deleted_at_ms = 0;  // milliseconds since 1970 UTC; 0 when unknown
  std::string run = {};             // the run that kept it; empty: somebody else's deletion
};

// Everything in the bin, or what this run has kept in it.
std::vector<RecycledFile> ListRecycleBin(std::string_view run = {});

enum class RestoreOutcome {
  kRestored,
  kTargetExists,  // nothing was changed: a restore never replaces a file
  kElsewhere,     // nothing was changed: a link leads to another place from where the file was
  kGone,          // the bin no longer holds it
  kFailed,        // *error says why
};

// Moves the file back to its original path, with missing folders made again, and forgets its info file. The
// path is where the file really lay: a link in it was put there later, and is not followed. error: Win32 error
// of a failure.
RestoreOutcome RestoreFile(const RecycledFile& file, std::uint32_t* error);

}  // namespace vorn::host
