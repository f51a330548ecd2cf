#include "detours/code/code_error.h"

namespace detours {

const char* Text(CodeError error) noexcept {
  switch (error) {
    case CodeError::kTruncated:
      return "the code ends inside an instruction";
    case CodeError::kUnknownInstruction:
      return "unknown instruction";
    case CodeError::kTooLong:
      return "instruction longer than 15 bytes";
    case CodeError::kBreakpoint:
      return "a breakpoint covers the code";
    case CodeError::kTooShort:
      return "the function is too short for a jump";
    case CodeError::kBranchIntoPatch:
      return "the function branches into its first bytes";
    case CodeError::kReadsPatch:
      return "the function reads its own first bytes";
    case CodeError::kReturnsIntoPatch:
      return "a call returns into the first bytes";
    case CodeError::kReadsOwnAddress:
      return "the function takes its own address";
    case CodeError::kOutOfReach:
      return "a relative operand does not reach from the trampoline";
    case CodeError::kNoSpace:
      return "the moved code does not fit the trampoline";
  }
  return "unknown reason";
}

}  // namespace detours
