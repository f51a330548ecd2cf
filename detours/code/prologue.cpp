#include "detours/code/prologue.h"

#include <algorithm>

namespace detours {
namespace {

constexpr std::uint8_t kInt3 = 0xCC;
constexpr std::uint8_t kNop = 0x90;
constexpr std::uint8_t kLongNop = 0x1F;  // behind 0F
constexpr std::uint8_t kLea = 0x8D;
constexpr std::uint64_t kFunctionAlignment = 16;

// Where a relative operand or branch points to, as an offset from the function's start. On x86 the distance
// is taken around the 4 GB wrap, so that an address below the function comes out negative.
std::int64_t OffsetOf(std::uint64_t target, std::uint64_t start, Mode mode) noexcept {
  return mode == Mode::kX86 ? static_cast<std::int32_t>(static_cast<std::uint32_t>(target - start))
                            : static_cast<std::int64_t>(target - start);
}

// The length of the padding instruction at the start of code, 0 when it is something else.
std::size_t PaddingSize(std::span<const std::uint8_t> code, Mode mode) noexcept {
  if (code[0] == kInt3) return 1;
  const auto decoded = Decode(code, mode);
  if (!decoded) return 0;
  const bool nop = decoded->two_byte_map ? decoded->opcode == kLongNop : decoded->opcode == kNop;
  // lea esi, [esi+0] in its lengths, which is how 32-bit assemblers fill
  const auto modrm = decoded->length > decoded->prefix_length + 1u ? code[decoded->prefix_length + 1u] : 0;
  const bool lea = mode == Mode::kX86 && decoded->opcode == kLea && (modrm & 0x38) == 0x30 &&
                   ((modrm & 7) == 6 || (modrm & 7) == 4);
  return nop || lea ? decoded->length : 0;
}

class Analysis {
 public:
  Analysis(std::span<const std::uint8_t> code, std::uint64_t address, Mode mode) noexcept
      : code_(code.first(std::min(code.size(), kScanSize))), address_(address), mode_(mode) {
    out_.lowest = out_.highest = address;
  }

  Result<Prologue, CodeError> Run() noexcept {
    if (!Collect() || !CheckMoved() || !CheckBranchesBack()) return error_;
    return out_;
  }

 private:
  bool Fail(CodeError error) noexcept {
    error_ = error;
    return false;
  }

  // Takes whole instructions until the jump has room.
  bool Collect() noexcept {
    while (out_.size < kJumpSize) {
      const auto decoded = Decode(code_.subspan(out_.size), mode_);
      if (!decoded) return Fail(decoded.error());
      if (decoded->flow == Flow::kBreakpoint) return Fail(CodeError::kBreakpoint);
      out_.instructions[out_.count++] = *decoded;
      out_.size = static_cast<std::uint8_t>(out_.size + decoded->length);
      if (decoded->IsRelativeFlow()) furthest_ = std::max(furthest_, BranchOffset(*decoded, out_.size));
      if (Ends(*decoded, out_.size)) {
        out_.falls_through = false;
        return out_.size >= kJumpSize || PaddingFollows();
      }
    }
    return true;
  }

  // The function ends here: no way on, and no earlier branch leads behind this place.
  [[nodiscard]] bool Ends(const Instruction& instruction, std::int64_t end) const noexcept {
    return instruction.EndsFlow() && furthest_ < end;
  }

  // Compilers fill up to the next function with int3 or nops of any length. What begins at a function's
  // alignment may be a function, whatever it looks like.
  bool PaddingFollows() noexcept {
    std::size_t at = out_.size;
    while (at < kJumpSize) {
      if (at == code_.size()) return Fail(CodeError::kTruncated);
      const std::size_t size = PaddingSize(code_.subspan(at), mode_);
      const bool aligned = (address_ + at) % kFunctionAlignment == 0;
      if (size == 0 || (aligned && code_[at] != kInt3)) return Fail(CodeError::kTooShort);
      at += size;
    }
    return true;
  }

  bool CheckMoved() noexcept {
    std::int64_t end = 0;
    for (const Instruction& instruction : out_.Instructions()) {
      end += instruction.length;
      if ((instruction.rip_relative || instruction.absolute) && !CheckOperand(instruction, end)) return false;
      if (instruction.IsRelativeFlow() && !CheckBranch(instruction, end)) return false;
      const bool call = instruction.flow == Flow::kCall || instruction.flow == Flow::kIndirectCall;
      if (call && IsPatched(end)) return Fail(CodeError::kReturnsIntoPatch);
    }
    return true;
  }

  bool CheckOperand(const Instruction& instruction, std::int64_t end) noexcept {
    // Takes the address and reads nothing.
    const bool lea = instruction.opcode == kLea && !instruction.two_byte_map;
    std::int64_t offset = end + instruction.displacement;
    if (instruction.absolute) {
      const auto operand = static_cast<std::uint32_t>(instruction.displacement);
      offset = OffsetOf(operand, address_, mode_);
    } else if (instruction.address_size) {
      return Fail(CodeError::kOutOfReach);  // eip-relative: wraps at 4 GB
    }
    if (IsPatched(offset) && !lea) return Fail(CodeError::kReadsPatch);
    if (instruction.rip_relative) Reaches(offset);
    return true;
  }

  bool CheckBranch(const Instruction& instruction, std::int64_t end) noexcept {
    const std::int64_t offset = BranchOffset(instruction, end);
    if (instruction.flow == Flow::kCall) {
      if (mode_ == Mode::kX64 && offset == end) return Fail(CodeError::kReadsOwnAddress);
    }
    if (IsPatched(offset) && !IsBoundary(offset)) return Fail(CodeError::kBranchIntoPatch);
    Reaches(offset);
    return true;
  }

  // The rest of the function, as far as it can be followed in one pass: a loop whose head lies in the
  // replaced bytes would run into the middle of the jump.
  bool CheckBranchesBack() noexcept {
    if (!out_.falls_through) return true;
    std::size_t at = out_.size;
    while (at < code_.size()) {
      const auto decoded = Decode(code_.subspan(at), mode_);
      if (!decoded) return true;  // data, or the end of what can be read
      at += decoded->length;
      const auto end = static_cast<std::int64_t>(at);
      if (decoded->IsRelativeFlow()) {
        const std::int64_t offset = BranchOffset(*decoded, end);
        // Calls and tail calls of itself go through the detour like any other; compilers end loops with a
        // condition.
        const bool recursion = offset == 0 && (decoded->flow == Flow::kCall || decoded->flow == Flow::kJump);
        if (IsPatched(offset) && !recursion) return Fail(CodeError::kBranchIntoPatch);
        const bool stays = decoded->flow != Flow::kCall && offset < static_cast<std::int64_t>(kScanSize);
        if (stays) furthest_ = std::max(furthest_, offset);
      }
      if (decoded->flow == Flow::kBreakpoint || Ends(*decoded, end)) return true;
    }
    return true;
  }

  [[nodiscard]] std::int64_t BranchOffset(const Instruction& instruction, std::int64_t end) const noexcept {
    return OffsetOf(Advance(address_, end + instruction.distance, mode_), address_, mode_);
  }

  [[nodiscard]] static bool IsPatched(std::int64_t offset) noexcept {
    return offset >= 0 && offset < static_cast<std::int64_t>(kJumpSize);
  }

  [[nodiscard]] bool IsBoundary(std::int64_t offset) const noexcept {
    std::int64_t at = 0;
    for (const Instruction& instruction : out_.Instructions()) {
      if (at == offset) return true;
      at += instruction.length;
    }
    return at == offset;
  }

  void Reaches(std::int64_t offset) noexcept {
    const std::uint64_t address = Advance(address_, offset, mode_);
    out_.lowest = std::min(out_.lowest, address);
    out_.highest = std::max(out_.highest, address);
  }

  std::span<const std::uint8_t> code_;
  std::uint64_t address_;
  Mode mode_;
  Prologue out_;
  std::int64_t furthest_ = 0;  // the furthest place ahead that a branch leads to
  CodeError error_ = CodeError::kTruncated;
};

}  // namespace

Result<Prologue, CodeError> AnalyzePrologue(std::span<const std::uint8_t> code, std::uint64_t address,
                                            Mode mode) noexcept {
  return Analysis(code, address, mode).Run();
}

}  // namespace detours
