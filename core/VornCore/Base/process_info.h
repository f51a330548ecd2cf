// Facts about this process and its children. Native functions only; any thread.
#pragma once

#include <cstdint>

#include "Platform/heap.h"
#include "Platform/nt.h"

namespace VornCore {

inline constexpr std::uint32_t kMachineX64 = 0x8664, kMachineX86 = 0x14C;

std::uint32_t GetIntegrityLevel() noexcept;   // RID of the integrity label (0x2000 medium); 0 on failure
std::uint32_t GetParentProcessId() noexcept;  // 0 on failure; asked once
const wchar_t* GetImageBaseName() noexcept;   // for example L"app.exe"; the loader's string, not a copy
platform::HeapString GetProcessImageFileName(
    HANDLE process) noexcept;                              // NT path of the image; null on failure
std::uint32_t GetProcessMachine(HANDLE process) noexcept;  // kMachine…, others as reported; 0 on failure
bool IsWow64Self() noexcept;

}  // namespace VornCore
