// Which of the two bitnesses of a 64-bit system a process has.
#pragma once

#include "windows/process_facts.h"

namespace detours {

using vorn::windows::IsWow64;

inline bool HasOwnBitness(HANDLE process) { return IsWow64(process) == IsWow64(GetCurrentProcess()); }

}  // namespace detours
