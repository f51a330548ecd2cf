// What must move away when a jump is written over the start of a function.
//
//   target  [ insn | insn | insn ] rest …        moved: whole instructions that cover the jump (patch) bytes
//           [ jmp rel32 ]..                      the bytes between patch and moved stay as they are
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <span>

#include "detours/code/code_error.h"
#include "detours/code/instruction.h"
#include "detours/code/result.h"

namespace detours {

inline constexpr std::size_t kJumpSize = 5;  // jmp rel32
inline constexpr std::size_t kMaxMovedInstructions = kJumpSize;
inline constexpr std::size_t kScanSize = 256;  // how far a function is searched for branches back

struct Prologue {
  std::array<Instruction, kMaxMovedInstructions> instructions;
  std::uint8_t count = 0;     // of instructions
  std::uint8_t size = 0;      // bytes of these instructions; less than kJumpSize when padding fills the rest
  bool falls_through = true;  // control goes on behind the last one
  // The addresses that the moved code refers to relatively, the function's own included.
  std::uint64_t lowest = 0;
  std::uint64_t highest = 0;

  [[nodiscard]] std::span<const Instruction> Instructions() const noexcept {
    return {instructions.data(), count};
  }
};

// Looks at a function at address whose readable bytes are code; more of them than kScanSize are not needed.
[[nodiscard]] Result<Prologue, CodeError> AnalyzePrologue(std::span<const std::uint8_t> code,
                                                          std::uint64_t address, Mode mode) noexcept;

}  // namespace detours
