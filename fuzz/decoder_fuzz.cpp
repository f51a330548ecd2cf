// Any bytes as a function: it is read to its end and no further, and what is accepted can be moved and still
// does what it did.
#include <array>
#include <cstddef>
#include <cstdint>
#include <span>

#include "detours/code/jump_chain.h"
#include "detours/code/prologue.h"
#include "detours/code/relocator.h"
#include "fuzz/require.h"

using namespace detours;

namespace {

constexpr std::uint64_t kFrom = 0x6000'0000;
constexpr std::uint64_t kTo = 0x5F00'0000;

// Moved code must do what it did: each instruction is found again where the relocation says, byte for byte or
// as the form that reaches further, and every way out of it leads to the old place or to what was moved
// along.
class MovedCode {
 public:
  MovedCode(const Prologue& prologue, const RelocatedCode& moved, std::span<const std::uint8_t> code,
            Mode mode)
      : prologue_(prologue), moved_(moved), code_(code), mode_(mode) {}

  void Check() {
    std::size_t source = 0;
    for (std::size_t i = 0; i < prologue_.count; ++i) {
      Require(moved_.begins[i] == at_);
      const Instruction& instruction = prologue_.instructions[i];
      CheckInstruction(instruction, code_.subspan(source, instruction.length), source + instruction.length);
      source += instruction.length;
    }
    if (prologue_.falls_through) RequireBranch(Flow::kJump, kFrom + prologue_.size);
    Require(at_ == moved_.size);
  }

 private:
  void CheckInstruction(const Instruction& old, std::span<const std::uint8_t> bytes, std::size_t source_end) {
    const std::uint64_t end = Advance(kFrom, static_cast<std::int64_t>(source_end), mode_);
    const std::uint64_t target = Advance(end, old.distance, mode_);
    if (old.flow == Flow::kJump || old.flow == Flow::kConditional) {
      const Instruction now = RequireBranch(old.flow, Moved(target));
      Require(old.flow == Flow::kJump || (now.opcode & 15) == (old.opcode & 15));
    } else if (old.flow == Flow::kCounted) {
      const Instruction now = Next();
      Require(now.flow == old.flow && now.opcode == old.opcode && now.address_size == old.address_size);
      const std::size_t taken = at_ + static_cast<std::size_t>(now.distance);
      const Instruction over = Next();
      Require(over.flow == Flow::kJump && at_ == taken);
      RequireBranch(Flow::kJump, Moved(target));
      Require(taken + static_cast<std::size_t>(over.distance) == at_);
    } else if (old.flow == Flow::kCall && mode_ == Mode::kX64) {
      RequireBranch(Flow::kCall, target);
    } else if (old.flow == Flow::kCall) {
      const std::size_t push = at_;
      Require(Next().opcode == 0x68);
      for (std::size_t i = 0; i < 4; ++i)
        Require(moved_.bytes[push + 1 + i] == static_cast<std::uint8_t>(end >> 8 * i));
      RequireBranch(Flow::kJump, target);
    } else {
      const std::size_t begin = at_;
      const Instruction now = Next();
      Require(now.length == old.length && now.rip_relative == old.rip_relative);
      for (std::size_t i = 0; i < old.length; ++i)
        Require(moved_.bytes[begin + i] == bytes[i] || (old.rip_relative && i - old.displacement_offset < 4));
      Require(!old.rip_relative || End(now.displacement) == Advance(end, old.displacement, mode_));
    }
  }

  Instruction Next() {
    const auto next = Decode(moved_.Bytes().subspan(at_), mode_);
    Require(next.has_value());
    at_ += next->length;
    return *next;
  }
  std::uint64_t End(std::int64_t distance) const { return Advance(kTo + at_, distance, mode_); }
  Instruction RequireBranch(Flow flow, std::uint64_t target) {
    const Instruction next = Next();
    Require(next.flow == flow && End(next.distance) == target);
    return next;
  }
  // Where a place of the old code is now.
  std::uint64_t Moved(std::uint64_t target) const {
    std::uint64_t begin = kFrom;
    for (std::size_t i = 0; i < prologue_.count; begin += prologue_.instructions[i++].length)
      if (begin == target) return kTo + moved_.begins[i];
    return target;
  }

  const Prologue& prologue_;
  const RelocatedCode& moved_;
  std::span<const std::uint8_t> code_;
  Mode mode_;
  std::size_t at_ = 0;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size == 0) return 0;
  const Mode mode = data[0] & 1 ? Mode::kX64 : Mode::kX86;
  const std::span<const std::uint8_t> code(data + 1, size - 1);

  const auto instruction = Decode(code, mode);
  if (instruction)
    Require(instruction->length <= code.size() && instruction->length <= kMaxInstructionLength);
  (void)LeadingJump(code, kFrom, mode);

  const auto prologue = AnalyzePrologue(code, kFrom, mode);
  if (!prologue) return 0;
  Require(prologue->size >= kJumpSize || !prologue->falls_through);
  const auto moved = Relocate(*prologue, code, kFrom, kTo, mode);
  if (moved) MovedCode(*prologue, *moved, code, mode).Check();
  // Near enough, only the operands' own reach can be missing.
  if (!moved) Require(moved.error() == CodeError::kOutOfReach);
  return 0;
}
