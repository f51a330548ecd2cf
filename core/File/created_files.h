// The files that this process has created itself: deleting them loses nothing that was there before.
//
// A file is known by its path and its id on the volume together: a path alone may name another file by now,
// and an id alone may have been given to one. The memory is bounded: what it forgets is kept when it is
// deleted. Any thread.
#pragma once

#include <array>
#include <cstdint>
#include <string_view>

#include "Platform/lock.h"
#include "windows/nt.h"

namespace VornCore {

// The id of an open file on its volume; 0 when the system does not tell.
std::uint64_t FileIdOf(HANDLE file) noexcept;

class CreatedFiles {
 public:
  // file: an open handle of the file at path, which this process has just made.
  void Remember(HANDLE file, std::wstring_view path) noexcept;
  [[nodiscard]] bool Holds(HANDLE file, std::wstring_view path) noexcept;
  // The file of this handle has got another path.
  void Rename(HANDLE file, std::wstring_view from, std::wstring_view to) noexcept;

 private:
  struct Entry {
    std::uint64_t id;  // 0: empty
    std::uint32_t path_hash;
  };
  static constexpr std::size_t kEntries = 4096;
  Entry& EntryOf(std::uint32_t path_hash) { return entries_[path_hash % kEntries]; }

  platform::CriticalSection lock_;
  std::array<Entry, kEntries> entries_ = {};
};

}  // namespace VornCore
