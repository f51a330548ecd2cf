// The seam: system functions that the library calls, does not intercept, and on whose answers decisions
// depend.
//
// They are reached through one table of function pointers, filled from the real imports when the library
// attaches. On another implementation of the Windows interface the entries that it answers differently are
// replaced by adapters (wine_adapter.cpp); tests replace single entries to inject failures. The table is
// written at attach and by tests only, and read from any thread without a lock.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>

#include "Platform/debug_help.h"
#include "windows/nt.h"

namespace VornCore::platform {

inline constexpr std::wstring_view kOtherVolume = L"\\??";

struct NativeApi {
  // Object names and links.
  decltype(&::NtQueryObject) NtQueryObject;
  decltype(&::NtOpenSymbolicLinkObject) NtOpenSymbolicLinkObject;
  decltype(&::NtQuerySymbolicLinkObject) NtQuerySymbolicLinkObject;
  decltype(&::NtQueryInformationProcess) NtQueryInformationProcess;
  decltype(&::GetLogicalDrives) GetLogicalDrives;
  // Files.
  decltype(&::NtQueryFullAttributesFile) NtQueryFullAttributesFile;
  decltype(&::NtQueryDirectoryFile) NtQueryDirectoryFile;
  decltype(&::NtQueryInformationFile) NtQueryInformationFile;
  decltype(&::NtReadFile) NtReadFile;
  decltype(&::GetFinalPathNameByHandleW) GetFinalPathNameByHandleW;
  // Whether the path told of an open file may be another's: that of what the opened name leads to by now, or,
  // for a name that ends with a dot or blank, that of the name without it.
  bool paths_can_be_wrong;
  // Whether the listing of a folder shows a link to a file as a file.
  bool listings_hide_links;
  decltype(&::GetFileInformationByHandle) GetFileInformationByHandle;
  decltype(&::GetFileInformationByHandleEx) GetFileInformationByHandleEx;
  // Names are told without the volume; one on another volume than the file's, where a system has such, as
  // kOtherVolume and a device path.
  decltype(&::FindFirstFileNameW) FindFirstFileNameW;
  decltype(&::FindNextFileNameW) FindNextFileNameW;
  decltype(&::FindClose) FindClose;  // of a FindFirstFileNameW handle
  // The path that a name means which the system accepts although no symbolic-link object stands for it:
  // writes it (at most units UTF-16 units, not terminated) and returns its length, 0 when there is none.
  std::size_t (*AliasTarget)(std::wstring_view name, wchar_t* target, std::size_t units);
  // The Unix path of a drive-letter path, not terminated, on an implementation that has one: its length, else
  // 0.
  std::size_t (*UnixPath)(const wchar_t* path, char* out, std::size_t bytes);
  // An NT name (at most units UTF-16 units, not terminated) for a folder given by its drive-letter path,
  // below which a name means one spelling only, where looking for others takes time: its length, else 0.
  std::size_t (*ExactFolder)(const wchar_t* path, wchar_t* out, std::size_t units);
  // Whether programs that are no Windows images are started, too, as processes that no library can enter.
  bool starts_foreign_programs;
  // Crashes.
  decltype(&platform::LoadMiniDumpWriteDump) LoadMiniDumpWriteDump;
};

// The table in force. Filled on first use.
NativeApi& Native() noexcept;

// True on an implementation of the Windows interface that is not Windows (ntdll exports wine_get_version).
bool IsWine() noexcept;

// Names the folders (NT device paths) in which other names of a file matter, by index; an empty answer ends
// them. An implementation that cannot list the hard links of a file looks for them there; Windows never asks.
// Set once, before files are intercepted.
using LinkFolderSource = std::wstring_view (*)(std::uint32_t index);
void SetLinkFolderSource(LinkFolderSource source) noexcept;

}  // namespace VornCore::platform
