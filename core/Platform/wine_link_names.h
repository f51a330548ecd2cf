// The hard links of a file, on an implementation that cannot list them.
//
// The names are looked for by file id: first among those that were met before, then in the file's own folder
// and in the folders that SetLinkFolders names (with what lies below them), as far as these have changed
// since, until all links are found or a bound of entries or time is reached. Every name is opened again
// before it is told. A link that stays unfound is answered as kUnknownLinkName: a name on no folder, so that
// whoever judges every name judges one that nothing allows.
#pragma once

#include "Platform/native.h"

namespace VornCore::platform::wine {

inline constexpr wchar_t kUnknownLinkName[] = L":unlisted";

void SetLinkFolders(LinkFolderSource source) noexcept;

// As FindFirstFileNameW, FindNextFileNameW and FindClose, for a path that is free of links; the handle is
// good for these two only.
HANDLE WINAPI FindFirstLinkName(LPCWSTR path, DWORD flags, LPDWORD units, PWSTR name) noexcept;
BOOL WINAPI FindNextLinkName(HANDLE find, LPDWORD units, PWSTR name) noexcept;
BOOL WINAPI CloseLinkNames(HANDLE find) noexcept;

}  // namespace VornCore::platform::wine
