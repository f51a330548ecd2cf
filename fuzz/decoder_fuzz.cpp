// Any bytes as a function: it is read to its end and no further, and what is accepted can be moved. (The
// emulator's test runs what was moved.)
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
  // Near enough, only the operands' own reach can be missing.
  if (!moved) Require(moved.error() == CodeError::kOutOfReach);
  return 0;
}
