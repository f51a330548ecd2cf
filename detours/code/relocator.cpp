#include "detours/code/relocator.h"

#include <algorithm>
#include <limits>

namespace detours {
namespace {

using Byte = std::uint8_t;

constexpr Byte kJumpRel32 = 0xE9;
constexpr Byte kJumpRel8 = 0xEB;
constexpr Byte kCallRel32 = 0xE8;
constexpr Byte kPushImm32 = 0x68;
constexpr Byte kAddressSize = 0x67;
constexpr Byte kTwoByteEscape = 0x0F;
constexpr Byte kJccRel32 = 0x80;  // behind 0F, plus the condition

class Relocation {
 public:
  Relocation(const Prologue& prologue, std::span<const Byte> code, std::uint64_t from, std::uint64_t to,
             Mode mode) noexcept
      : prologue_(prologue), code_(code), from_(from), to_(to), mode_(mode) {}

  Result<RelocatedCode, CodeError> Run() noexcept {
    Lay();
    std::size_t source = 0;
    for (const Instruction& instruction : prologue_.Instructions()) {
      if (!Move(instruction, source)) return error_;
      source += instruction.length;
    }
    if (prologue_.falls_through && !JumpTo(Advance(from_, prologue_.size, mode_))) return error_;
    return out_;
  }

 private:
  bool Fail(CodeError error) noexcept {
    error_ = error;
    return false;
  }

  // Every form has a fixed size, so the places are known before the branches between them are written.
  void Lay() noexcept {
    std::size_t at = 0;
    for (std::size_t i = 0; i < prologue_.count; ++i) {
      out_.begins[i] = static_cast<Byte>(at);
      at += MovedSize(prologue_.instructions[i]);
    }
  }

  [[nodiscard]] std::size_t MovedSize(const Instruction& instruction) const noexcept {
    switch (instruction.flow) {
      case Flow::kJump:
        return 5;
      case Flow::kConditional:
        return 6;
      case Flow::kCounted:
        return instruction.address_size ? 10 : 9;
      case Flow::kCall:
        return mode_ == Mode::kX86 ? 10 : 5;
      default:
        return instruction.length;
    }
  }

  bool Move(const Instruction& instruction, std::size_t source) noexcept {
    const std::uint64_t end = Advance(from_, static_cast<std::int64_t>(source) + instruction.length, mode_);
    const std::uint64_t target = Advance(end, instruction.distance, mode_);
    const Byte condition = instruction.opcode & 0x0F;
    switch (instruction.flow) {
      case Flow::kJump:
        return JumpTo(Inside(target));
      case Flow::kConditional:
        return Put(kTwoByteEscape) && Put(static_cast<Byte>(kJccRel32 | condition)) &&
               PutDistance(Inside(target));
      case Flow::kCounted:
        if (instruction.address_size && !Put(kAddressSize)) return false;
        return Put(instruction.opcode) && Put(2) && Put(kJumpRel8) && Put(5) && JumpTo(Inside(target));
      case Flow::kCall:
        if (mode_ == Mode::kX86)
          return Put(kPushImm32) && Put32(static_cast<std::uint32_t>(end)) && JumpTo(target);
        return Put(kCallRel32) && PutDistance(target);
      default:
        return Copy(instruction, source);
    }
  }

  bool Copy(const Instruction& instruction, std::size_t source) noexcept {
    if (kMaxRelocatedSize - out_.size < instruction.length) return Fail(CodeError::kNoSpace);
    const auto bytes = code_.subspan(source, instruction.length);
    const std::size_t at = out_.size;
    std::copy(bytes.begin(), bytes.end(), out_.bytes.begin() + static_cast<std::ptrdiff_t>(at));
    out_.size = static_cast<Byte>(at + instruction.length);
    if (!instruction.rip_relative) return true;

    const std::uint64_t old_end = from_ + source + instruction.length;
    const auto displacement =
        RelativeDistance(to_ + out_.size, Advance(old_end, instruction.displacement, mode_), mode_);
    if (!displacement) return Fail(displacement.error());
    Store32(at + instruction.displacement_offset, static_cast<std::uint32_t>(*displacement));
    return true;
  }

  // Where a branch leads now: a place that was moved along, or the old one.
  [[nodiscard]] std::uint64_t Inside(std::uint64_t target) const noexcept {
    std::uint64_t at = from_;
    for (std::size_t i = 0; i < prologue_.count; ++i) {
      if (at == target) return Advance(to_, out_.begins[i], mode_);
      at = Advance(at, prologue_.instructions[i].length, mode_);
    }
    return target;
  }

  bool JumpTo(std::uint64_t target) noexcept { return Put(kJumpRel32) && PutDistance(target); }

  bool PutDistance(std::uint64_t target) noexcept {
    const auto distance = RelativeDistance(Advance(to_, out_.size + 4, mode_), target, mode_);
    if (!distance) return Fail(distance.error());
    return Put32(static_cast<std::uint32_t>(*distance));
  }

  bool Put(Byte byte) noexcept {
    if (out_.size == kMaxRelocatedSize) return Fail(CodeError::kNoSpace);
    out_.bytes[out_.size++] = byte;
    return true;
  }

  bool Put32(std::uint32_t value) noexcept {
    if (kMaxRelocatedSize - out_.size < 4) return Fail(CodeError::kNoSpace);
    Store32(out_.size, value);
    out_.size = static_cast<Byte>(out_.size + 4);
    return true;
  }

  void Store32(std::size_t at, std::uint32_t value) noexcept {
    for (std::size_t i = 0; i < 4; ++i) out_.bytes[at + i] = static_cast<Byte>(value >> (8 * i));
  }

  const Prologue& prologue_;
  std::span<const Byte> code_;
  std::uint64_t from_;
  std::uint64_t to_;
  Mode mode_;
  RelocatedCode out_;
  CodeError error_ = CodeError::kNoSpace;
};

}  // namespace

Result<RelocatedCode, CodeError> Relocate(const Prologue& prologue, std::span<const std::uint8_t> code,
                                          std::uint64_t from, std::uint64_t to, Mode mode) noexcept {
  return Relocation(prologue, code, from, to, mode).Run();
}

Result<std::int32_t, CodeError> RelativeDistance(std::uint64_t end, std::uint64_t target,
                                                 Mode mode) noexcept {
  const auto low = static_cast<std::int32_t>(static_cast<std::uint32_t>(target - end));
  if (mode == Mode::kX64 && static_cast<std::int64_t>(target - end) != low) return CodeError::kOutOfReach;
  return low;
}

}  // namespace detours
