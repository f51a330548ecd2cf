// What a recycle bin remembers about a file: the two formats that a run's deletions end in. Pure; any thread.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>

namespace vorn::host {

// A $I file of $Recycle.Bin, little-endian:
//   0  u64 version (1 or 2)   8  u64 size in bytes   16  u64 deletion time (100 ns since 1601 UTC)
//   version 1: 24  520 bytes of path, NUL-padded     version 2: 24  u32 units with NUL, 28  the path
struct RecycleInfo {
  std::u16string path;              // original path, drive-letter form
  std::uint64_t size = 0;           // bytes
  std::uint64_t deleted_at_ms = 0;  // milliseconds since 1970 UTC
};
// Nothing when the bytes are not such a file.
std::optional<RecycleInfo> ParseRecycleInfo(std::span<const std::byte> bytes);

// A .trashinfo file of a trash folder: [Trash Info], Path= (percent-encoded), DeletionDate= (local time).
struct TrashInfo {
  std::string path;           // original path, absolute, Unix form, bytes as they are
  std::string deletion_date;  // "YYYY-MM-DDThh:mm:ss", local time; may be empty
};
std::optional<TrashInfo> ParseTrashInfo(std::string_view text);

}  // namespace vorn::host
