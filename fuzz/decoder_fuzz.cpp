// Any bytes as a function: it is read to its end and no further, and what is accepted can be moved, decodes
// again where it went, and branches to where it branched.
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

void CheckMoved(const Prologue& prologue, const RelocatedCode& moved, Mode mode) {
  std::int64_t source = 0;
  for (std::size_t i = 0; i < prologue.count; ++i) {
    const Instruction& instruction = prologue.instructions[i];
    source += instruction.length;
    const std::size_t at = moved.begins[i];
    const auto again = Decode(moved.Bytes().subspan(at), mode);
    Require(again.has_value());
    const std::uint64_t old_end = Advance(kFrom, source, mode);
    const std::uint64_t new_end = Advance(kTo, static_cast<std::int64_t>(at + again->length), mode);
    if (instruction.rip_relative) {
      Require(Advance(old_end, instruction.displacement, mode) ==
              Advance(new_end, again->displacement, mode));
    }
    const bool branch = instruction.flow == Flow::kJump || instruction.flow == Flow::kConditional;
    if (!branch) continue;
    Require(again->flow == instruction.flow);
    const std::uint64_t target = Advance(new_end, again->distance, mode);
    const bool stays = target - kTo < moved.size;
    Require(stays || target == Advance(old_end, instruction.distance, mode));
  }
}

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
  if (moved) CheckMoved(*prologue, *moved, mode);
  // Near enough, only the operands' own reach can be missing.
  if (!moved) Require(moved.error() == CodeError::kOutOfReach);
  return 0;
}
