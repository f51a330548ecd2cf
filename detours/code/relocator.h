// Moves a prologue to another address so that it does there what it did where it stood.
//
//   plain instruction       copied; a RIP-relative displacement is adjusted
//   jmp, jcc                widened to rel32; inside the moved code they stay inside
//   loop, jecxz             loop +2; jmp +5; jmp rel32
//   call                    x64: call rel32
//                           x86: push return address; jmp rel32, so that position-independent code, which
//                           calls to learn its own address, still sees the old one
//   end                     jmp rel32 behind the moved bytes, unless control never gets there
//
// On x86 absolute addresses stay valid and are copied.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <span>

#include "detours/code/code_error.h"
#include "detours/code/instruction.h"
#include "detours/code/prologue.h"
#include "detours/code/result.h"

namespace detours {

// The longest that moved code can get: four one-byte instructions and one of 15 bytes, or two branches of two
// bytes that grow to ten and one of 15 bytes; and the jump back.
inline constexpr std::size_t kMaxRelocatedSize = 48;

struct RelocatedCode {
  std::array<std::uint8_t, kMaxRelocatedSize> bytes{};
  std::uint8_t size = 0;
  // Where each instruction of the prologue begins in bytes.
  std::array<std::uint8_t, kMaxMovedInstructions> begins{};

  [[nodiscard]] std::span<const std::uint8_t> Bytes() const noexcept { return {bytes.data(), size}; }
};

// code: the function's bytes, at least prologue.size of them, standing at from. The result is for address to.
[[nodiscard]] Result<RelocatedCode, CodeError> Relocate(const Prologue& prologue,
                                                        std::span<const std::uint8_t> code,
                                                        std::uint64_t from, std::uint64_t to,
                                                        Mode mode) noexcept;

// The distance of a jump of rel32 form that ends at end, when it reaches.
[[nodiscard]] Result<std::int32_t, CodeError> RelativeDistance(std::uint64_t end, std::uint64_t target,
                                                               Mode mode) noexcept;

}  // namespace detours
