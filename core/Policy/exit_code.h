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

// A function that is there and could not be intercepted: the table, the function's row in it, and the Win32
// error (0: a call of it does not arrive at the library). See HookNotProven.
inline constexpr std::uint32_t kExitHook = 0xED000000;
inline constexpr std::uint32_t kExitHookMask = 0xFF800000;
enum class HookedModule : std::uint32_t { kNtdll, kKernelBase, kWs2_32, kDnsapi };
struct HookNotProven {
  HookedModule module;
  std::uint32_t row;    // of the module's list, below 32
  std::uint32_t error;  // below 65,536
};
constexpr std::uint32_t ExitCodeOf(const HookNotProven& hook) noexcept {
  return kExitHook | static_cast<std::uint32_t>(hook.module) << 21 | (hook.row & 31) << 16 |
         (hook.error & 0xFFFF);
}
constexpr HookNotProven HookOfExitCode(std::uint32_t code) noexcept {
  return {static_cast<HookedModule>(code >> 21 & 3), code >> 16 & 31, code & 0xFFFF};
}

// Misuse of the library's scratch buffers.
inline constexpr std::uint32_t kExitBadScratch = 0xEED00A4C;        // bad slot or level
inline constexpr std::uint32_t kExitScratchTooDeep = 0xEED00A4D;    // more than 16 levels
inline constexpr std::uint32_t kExitScratchUnderflow = 0xEED00A4E;  // below level 0

}  // namespace vorn::policy
