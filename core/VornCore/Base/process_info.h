// Facts about this process and its children. Native functions only; any thread.
#pragma once

#include <cstdint>

#include "Platform/heap.h"
#include "windows/nt.h"

namespace VornCore {

// RID of the integrity label (0x2000 medium); 0 on failure.
std::uint32_t GetIntegrityLevel() noexcept;
// 0 on failure; asked once.
std::uint32_t GetParentProcessId() noexcept;
// For example L"app.exe"; the loader's string, not a copy.
const wchar_t* GetImageBaseName() noexcept;
// NT path of the image; null on failure.
platform::HeapString GetProcessImageFileName(HANDLE process) noexcept;

}  // namespace VornCore
