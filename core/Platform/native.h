// The seam: system functions that the library calls, does not intercept, and on whose answers decisions
// depend.
//
// They are reached through one table of function pointers, filled from the real imports when the library
// attaches. On another implementation of the Windows interface the entries that it answers differently are
// replaced by adapters (wine_adapter.cpp); tests replace single entries to inject failures. The table is
// written at attach and by tests only, and read from any thread without a lock.
#pragma once

#include "Platform/nt.h"

namespace VornCore::platform {

struct NativeApi {
  // Object names and links.
  decltype(&::NtQueryObject) NtQueryObject;
  decltype(&::NtOpenSymbolicLinkObject) NtOpenSymbolicLinkObject;
  decltype(&::NtQuerySymbolicLinkObject) NtQuerySymbolicLinkObject;
  decltype(&::NtQueryInformationProcess) NtQueryInformationProcess;
  // Files.
  decltype(&::NtQueryFullAttributesFile) NtQueryFullAttributesFile;
  decltype(&::NtQueryDirectoryFile) NtQueryDirectoryFile;
  decltype(&::GetFinalPathNameByHandleW) GetFinalPathNameByHandleW;
  decltype(&::GetFileInformationByHandle) GetFileInformationByHandle;
  decltype(&::GetFileInformationByHandleEx) GetFileInformationByHandleEx;
  decltype(&::FindFirstFileNameW) FindFirstFileNameW;
  decltype(&::FindNextFileNameW) FindNextFileNameW;
};

// The table in force. Filled on first use.
NativeApi& Native() noexcept;

// True on an implementation of the Windows interface that is not Windows (ntdll exports wine_get_version).
bool IsWine() noexcept;

}  // namespace VornCore::platform
