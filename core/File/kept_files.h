// A second name for a file that is about to be deleted or replaced, by which its user gets it back.
//
//   if (const std::uint32_t kept = KeepFile(file, path))   // its index, then a hard link of it
//     … the system refuses after all …
//     TakeBackKept(path, kept);
//
// The section says where files are kept, by volume. The index is written before the link, so that what the
// place holds can always be put back. Any thread, with a thread state; calls go past the library's own
// handlers.
#pragma once

#include <cstdint>
#include <string_view>

#include "windows/nt.h"

namespace VornCore {

// Whether files of the volume of path (canonical) can be kept.
[[nodiscard]] bool CanKeep(std::wstring_view path) noexcept;

// file: any handle of the file at path. Where it cannot have a link, what it holds is copied. Returns the
// number by which it is kept; 0 when it is not: a folder, or no room, say.
[[nodiscard]] std::uint32_t KeepFile(HANDLE file, std::wstring_view path) noexcept;
// The same for an empty folder, which is made anew in the place.
[[nodiscard]] std::uint32_t KeepFolder(std::wstring_view path) noexcept;
// The file stays where it was: takes the second name away again.
void TakeBackKept(std::wstring_view path, std::uint32_t number) noexcept;

}  // namespace VornCore
