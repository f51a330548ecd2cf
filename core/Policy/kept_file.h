// A deleted file that can be put back: how its second name is made up, and how its index remembers where it
// came from. Both formats are those of the system's own bins, so that people find their files there.
//
//   recycle bin   FOLDER\$R<tail>             FOLDER\$I<tail>                  the index
//   trash         FOLDER\files\<tail>         FOLDER\info\<tail>.trashinfo     the index
//
// The tail names the run: RUN_PROCESS_NUMBER.ext, numbers in hexadecimal, so that the bin itself says what a
// run has deleted. Pure; any thread.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string_view>

#include "Policy/section_view.h"

namespace vorn::policy {

struct KeptTail {
  std::u16string_view run;
  std::uint32_t pid = 0;
  std::uint32_t number = 0;
  std::u16string_view extension = {};  // with its dot, or empty
};

// What KeptTail::extension is for the file at this path: empty where there is none, or a long one.
[[nodiscard]] std::u16string_view ExtensionToKeep(std::u16string_view path) noexcept;

// Writes "FOLDER\…" for the file itself or its index, with a terminator. Returns the length without it; 0
// when it does not fit.
enum class KeptPart { kFile, kIndex };
std::size_t BuildKeptName(KeepFormat format, KeptPart part, std::u16string_view folder, const KeptTail& tail,
                          std::span<char16_t> out) noexcept;

// Takes the tail of a kept file's name (its last component, in either format) apart; nothing for the name of
// a file that no run has kept.
[[nodiscard]] std::optional<KeptTail> ParseKeptName(std::u16string_view name) noexcept;

// Whether path is a kept file, an index, or below a kept folder: of whichever run, in the place that the
// section names for its volume. Canonical path.
[[nodiscard]] bool IsKept(const SectionView& section, std::u16string_view path) noexcept;

// The bytes of an index; returns their number, 0 when they do not fit.
//   $I file: path in drive-letter form, size in bytes, time in ticks.
std::size_t BuildRecycleIndex(std::u16string_view path, std::uint64_t size, std::uint64_t deleted,
                              std::span<std::byte> out) noexcept;
//   .trashinfo file: absolute Unix path, bytes as they are; local time as YYYY-MM-DDThh:mm:ss.
std::size_t BuildTrashIndex(std::string_view path, std::string_view local_time,
                            std::span<std::byte> out) noexcept;

}  // namespace vorn::policy
