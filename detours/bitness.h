// Which of the two bitnesses of a 64-bit system a process has.
#pragma once

#include <windows.h>

namespace detours {

// True for a 32-bit process on a 64-bit system. The handle needs PROCESS_QUERY_LIMITED_INFORMATION; without
// it the answer is false.
inline bool IsWow64(HANDLE process) {
  BOOL wow64 = FALSE;
  return IsWow64Process(process, &wow64) && wow64;
}

inline bool HasOwnBitness(HANDLE process) { return IsWow64(process) == IsWow64(GetCurrentProcess()); }

}  // namespace detours
