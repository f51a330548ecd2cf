// Why machine code cannot be decoded, moved or patched.
#pragma once

#include <cstdint>

namespace detours {

enum class CodeError : std::uint8_t {
  kTruncated,           // the readable bytes end inside the instruction
  kUnknownInstruction,  // undefined, or not known to the decoder
  kTooLong,             // more than 15 bytes
  kBreakpoint,          // int3 where an instruction of the function was expected: its first byte is hidden
  kTooShort,            // the function ends before there is room for a jump, and no padding follows
  kBranchIntoPatch,     // the function branches into the bytes that the jump would replace
  kReadsPatch,          // the function reads the bytes that the jump would replace
  kReturnsIntoPatch,    // a call in the first bytes returns into the bytes that the jump would replace
  kReadsOwnAddress,     // call of the next instruction: the address that it takes would be the moved one
  kOutOfReach,          // a relative operand does not reach from the place the code moves to
  kNoSpace,             // the moved code does not fit the buffer
};

// One English sentence part for logs, static storage.
[[nodiscard]] const char* Text(CodeError error) noexcept;

}  // namespace detours
