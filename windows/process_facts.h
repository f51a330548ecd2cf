// What the system tells about a process. Any thread. The handle needs PROCESS_QUERY_LIMITED_INFORMATION.
#pragma once

#include <cstdint>

#include "windows/nt.h"

namespace vorn::windows {

inline constexpr std::uint32_t kMachineX64 = 0x8664, kMachineX86 = 0x14C;

// kMachine…, others as reported; 0 on failure.
inline std::uint32_t MachineOf(HANDLE process) noexcept {
  USHORT own = IMAGE_FILE_MACHINE_UNKNOWN, native = IMAGE_FILE_MACHINE_UNKNOWN;
  if (!IsWow64Process2(process, &own, &native)) return 0;
  return own != IMAGE_FILE_MACHINE_UNKNOWN ? own : native;
}

// The one that belongs to the machine; null for another machine.
template <class T>
const T* ForMachine(std::uint32_t machine, const T* x64, const T* x86) noexcept {
  return machine == kMachineX64 ? x64 : machine == kMachineX86 ? x86 : nullptr;
}

// True for a 32-bit process on a 64-bit system; false on failure.
inline bool IsWow64(HANDLE process) noexcept {
  BOOL wow64 = FALSE;
  return IsWow64Process(process, &wow64) && wow64;
}

// 0 on failure.
inline std::uint32_t ParentProcessIdOf(HANDLE process) noexcept {
  PROCESS_BASIC_INFORMATION basic{};
  const NTSTATUS status =
      NtQueryInformationProcess(process, ProcessBasicInformation, &basic, sizeof basic, nullptr);
  return nt::Success(status) ? static_cast<std::uint32_t>(basic.InheritedFromUniqueProcessId) : 0;
}

}  // namespace vorn::windows
