// Trampolines: the moved first instructions of patched functions, in regions within reach of the functions.
//
//   region, 64 KB    [ code page 0 | … | code page 13 | slots of 8 bytes ]
//   trampoline       [ moved instructions, jmp back | jmp [slot] ]           64 bytes; the second part on x64
//   only records          in memory of their own, never executable
//
// A code page is writable while the transaction that fills it is open, then executable, and never both: a
// page with a live trampoline is not written again. A detached trampoline stays where it is, because a thread
// may be inside; it is used again when the same function with the same bytes is attached again.
//
// Only the thread that holds the transaction calls in here.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <span>

#include "detours/code/prologue.h"
#include "detours/code/relocator.h"

namespace detours {

using JumpBytes = std::array<std::uint8_t, kJumpSize>;
inline constexpr std::size_t kRelaySize = 6;  // jmp [rip+slot]
inline constexpr std::size_t kMaxPrologueSize = kJumpSize - 1 + kMaxInstructionLength;

enum class TrampolineState : std::uint8_t { kFree, kPending, kAttached, kRetired };

struct Trampoline {
  std::uint8_t* code;    // the moved instructions
  std::uint8_t* target;  // the function that was or will be patched
  void* given;           // the address that the caller named; a stub in front of target perhaps
  void* detour;
  void** slot;     // what the jump behind the moved instructions goes through
  JumpBytes jump;  // what is written over the function
  std::array<std::uint8_t, kMaxPrologueSize> original;
  std::uint8_t original_size;
  std::uint8_t relay;  // where the jump through the slot begins in code
  TrampolineState state;
  // Instruction starts in the function and in code.
  std::uint8_t instructions;
  std::array<std::uint8_t, kMaxMovedInstructions> from;
  std::array<std::uint8_t, kMaxMovedInstructions> to;

  [[nodiscard]] std::span<const std::uint8_t> Original() const noexcept {
    return {original.data(), original_size};
  }
};

class TrampolineRegion;

class TrampolinePool {
 public:
  // A new trampoline whose code can be written until the transaction ends. It lies within reach of every
  // address from lowest to highest. Null when there is no room.
  [[nodiscard]] Trampoline* Allocate(std::uint64_t lowest, std::uint64_t highest) noexcept;

  // Writes the slot of a new or retired trampoline. False when the slot cannot be made writable.
  [[nodiscard]] bool SetSlot(Trampoline& trampoline, void* destination) noexcept;

  [[nodiscard]] Trampoline* FindByCode(const void* code) noexcept;
  [[nodiscard]] Trampoline* FindRetired(const std::uint8_t* target,
                                        std::span<const std::uint8_t> original) noexcept;
  [[nodiscard]] Trampoline* FindAttached(const std::uint8_t* target) noexcept;

  // Makes the trampolines of the transaction executable and read-only. False: the pool is as before.
  [[nodiscard]] bool Seal() noexcept;
  // Drops the trampolines of the transaction, sealed or not, unless keep: then they stay, retired.
  void Drop(bool keep) noexcept;
  // The transaction is over: what was allocated stays.
  void Keep() noexcept;

 private:
  template <class Match>
  Trampoline* Find(Match match) noexcept;
  [[nodiscard]] TrampolineRegion* NewRegion(std::uint64_t lowest, std::uint64_t highest) noexcept;

  TrampolineRegion* regions_ = nullptr;
};

}  // namespace detours
