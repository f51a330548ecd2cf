// Exit codes by which a process tells its host why the library ended it.
#pragma once

#include <cstdint>

namespace vorn::policy {

// Start-up: one bit names the step, the other bits are its Win32 error.
inline constexpr std::uint32_t kExitSectionName = 0x10000000;
inline constexpr std::uint32_t kExitSection = 0x20000000;
inline constexpr std::uint32_t kExitThreadState = 0x40000000;
inline constexpr std::uint32_t kExitLog = 0x80000000;
inline constexpr std::uint32_t kExitStepMask = 0xF0000000;

// Misuse of the library's scratch buffers.
inline constexpr std::uint32_t kExitBadScratch = 0xEED00A4C;        // bad slot or level
inline constexpr std::uint32_t kExitScratchTooDeep = 0xEED00A4D;    // more than 16 levels
inline constexpr std::uint32_t kExitScratchUnderflow = 0xEED00A4E;  // below level 0

}  // namespace vorn::policy
