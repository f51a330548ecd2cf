// Environment blocks of processes to be created: looking for a variable, and adding one.
//
// A block is a run of terminated UTF-16 strings ("NAME=value") that an empty string ends; it comes with its
// size in bytes and is never read beyond it. The caller owns both blocks. Any thread.
#pragma once

#include <cstddef>
#include <span>
#include <string_view>

namespace vorn::policy {

enum class EnvironmentStatus {
  kFound,  // an entry of that name is there
  kMissing,
  kUnterminated,  // the block does not end within its size
};

struct EnvironmentScan {
  EnvironmentStatus status = EnvironmentStatus::kUnterminated;
  std::u16string_view entry = {};  // kFound: the whole entry, without its terminator
  std::size_t used_bytes = 0;      // of a terminated block, its final terminator included
};

// Walks the whole block and looks for the first entry that begins with `name` and "=", ignoring the case of A
// to Z.
[[nodiscard]] EnvironmentScan ScanEnvironment(std::span<const char16_t> block,
                                              std::u16string_view name) noexcept;

// The size in bytes, a multiple of 8, of a block with one more entry `name`=`value`.
[[nodiscard]] std::size_t ExtendedEnvironmentSize(const EnvironmentScan& scan, std::u16string_view name,
                                                  std::u16string_view value) noexcept;

// Writes the entries of `block`, then `name`=`value`, then zeros up to the extended size. `scan` is the scan
// of the same block. False, with nothing written, when the block is unterminated or `out` is too small.
[[nodiscard]] bool ExtendEnvironment(std::span<const char16_t> block, const EnvironmentScan& scan,
                                     std::u16string_view name, std::u16string_view value,
                                     std::span<char16_t> out) noexcept;

}  // namespace vorn::policy
