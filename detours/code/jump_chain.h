// Entries that only lead on: import stubs, linker thunks, hot-patched entries.
#pragma once

#include <cstdint>
#include <optional>
#include <span>

#include "detours/code/instruction.h"

namespace detours {

struct Link {
  enum class Kind : std::uint8_t {
    kDirect,  // jmp rel: address is the next entry
    kSlot,    // jmp [address]: the next entry is stored there
  };
  Kind kind;
  std::uint64_t address;
};

// The jump that an entry at address consists of, when nothing but instructions without effect stand before
// it.
[[nodiscard]] std::optional<Link> LeadingJump(std::span<const std::uint8_t> code, std::uint64_t address,
                                              Mode mode) noexcept;

}  // namespace detours
