// Moves files to the recycle bin, where the user can restore them.
#pragma once

#include <string_view>

#include "windows/nt.h"

namespace VornCore {

// path: canonical NT path of a file or an empty directory. Success also for a directory that holds entries:
// it stays. Any fault inside ends as its exception code. The caller has marked the thread's bOwnCall, so that
// the shell's own file calls pass.
[[nodiscard]] NTSTATUS MoveToRecycleBin(std::wstring_view path) noexcept;

// STATUS_DIRECTORY_NOT_EMPTY for a directory with entries; success for everything else, a reparse point and a
// path that cannot be read included.
[[nodiscard]] NTSTATUS CheckDirectoryEmpty(std::wstring_view path) noexcept;

// 0, a negative answer of the shell, or 0xC0070000 | Win32 error.
[[nodiscard]] NTSTATUS ShellDeleteToRecycleBin(std::wstring_view path) noexcept;

}  // namespace VornCore
