// Length decoder for x64 and x86 machine code. It finds where an instruction ends, which operand bytes depend
// on the instruction's own address, and how control leaves it; it does not name instructions. What it does
// not know it refuses, because a wrong length would tear the code that is moved.
//
//   prefixes | REX, VEX or EVEX | opcode | ModRM | SIB | displacement | immediate
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>

#include "detours/code/code_error.h"
#include "detours/code/result.h"

namespace detours {

enum class Mode : std::uint8_t { kX86, kX64 };

inline constexpr Mode kNativeMode = sizeof(void*) == 8 ? Mode::kX64 : Mode::kX86;
inline constexpr std::size_t kMaxInstructionLength = 15;

// How control leaves an instruction. "Relative" forms carry their distance in Instruction::distance.
enum class Flow : std::uint8_t {
  kNext,          // falls through
  kJump,          // jmp rel
  kConditional,   // jcc rel
  kCounted,       // loop, loope, loopne, jecxz, jrcxz: rel8 only
  kCall,          // call rel
  kIndirectJump,  // jmp r/m
  kIndirectCall,  // call r/m
  kReturn,        // ret, iret: control does not come back here
  kBreakpoint,    // int3
  kStop,          // ud2, hlt, far jump: control does not go on here
};

struct Instruction {
  std::uint8_t length = 0;         // bytes, 1..15
  std::uint8_t prefix_length = 0;  // legacy and REX prefixes in front of the opcode
  std::uint8_t opcode = 0;         // last opcode byte
  bool two_byte_map = false;       // opcode lies in the map behind 0F
  Flow flow = Flow::kNext;
  bool segment = false;                  // prefix fs or gs
  bool address_size = false;             // prefix 67: the other address size
  bool rip_relative = false;             // the displacement counts from the end of the instruction (x64)
  bool absolute = false;                 // the operand is a plain 32-bit address (x86: mod 00, rm 101)
  std::uint8_t displacement_offset = 0;  // of the four displacement bytes of these two
  std::int32_t displacement = 0;         // and their value
  std::int32_t distance = 0;             // relative flow: target minus end of the instruction

  [[nodiscard]] constexpr bool IsRelativeFlow() const noexcept {
    return flow == Flow::kJump || flow == Flow::kConditional || flow == Flow::kCounted || flow == Flow::kCall;
  }
  // Control never reaches the next instruction.
  [[nodiscard]] constexpr bool EndsFlow() const noexcept {
    return flow == Flow::kJump || flow == Flow::kIndirectJump || flow == Flow::kReturn || flow == Flow::kStop;
  }
};

// Decodes the instruction at the start of code. Reads no byte beyond its end or beyond the span.
[[nodiscard]] Result<Instruction, CodeError> Decode(std::span<const std::uint8_t> code, Mode mode) noexcept;

// An address behind `from` in the address space of the mode: x86 wraps at 4 GB.
[[nodiscard]] constexpr std::uint64_t Advance(std::uint64_t from, std::int64_t by, Mode mode) noexcept {
  const std::uint64_t sum = from + static_cast<std::uint64_t>(by);
  return mode == Mode::kX86 ? sum & 0xFFFFFFFFu : sum;
}

}  // namespace detours
