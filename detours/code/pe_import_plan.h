// Plans how an image comes to import further DLLs in front of its own, and how that is undone.
//
// Everything new lies in one block of memory above the image, less than 4 GB from its base:
//
//   +----------------------+  block rva
//   | BlockHeader          |  signature, and the header fields as they were before the first update
//   +----------------------+  + kTableOffset; the import directory points here
//   | one descriptor a DLL |
//   | the old descriptors  |
//   | empty descriptor     |
//   +----------------------+
//   | name table, address  |  per DLL: ordinal 1 and an end mark, twice
//   | table                |
//   +----------------------+
//   | names                |
//   +----------------------+
//
// In the image itself only HeaderFields change. A second update before the first was restored stacks its
// table in front of the first one's and carries the fields of the untouched image along: one restoration
// undoes both.
//
//   ImportPlan plan;
//   status = PlanImports(reader, image, dlls, &plan);           // reads only; says how large the block must
//   be
//   ... allocate plan.block_size bytes at block_rva ...
//   status = BuildImports(reader, image, plan, dlls, block_rva, block, &after);
//   ... write the block, then the fields "after"; plan.before undoes them ...
#pragma once

#include <span>

#include "detours/code/pe_image.h"

namespace detours::pe {

// What an update changes in the image.
struct HeaderFields {
  DataDirectory directory[kMaxDirectories];  // as many as the image has
  uint32_t clr_flags_rva;                    // 0: no CLR flags to change
  uint32_t clr_flags;
  bool operator==(const HeaderFields&) const = default;
};

struct BlockHeader {
  uint8_t signature[16];
  uint32_t block_size;  // bytes
  HeaderFields original;
};
inline constexpr uint32_t kTableOffset = sizeof(BlockHeader);
static_assert(sizeof(BlockHeader) == 156);

struct ImportPlan {
  uint32_t old_count;   // the image's own descriptors, without the empty one at the end
  uint32_t block_size;  // bytes, a multiple of 8
  bool repaired_size;   // the import directory had an address and a size of 0
  HeaderFields before;
  HeaderFields original;  // before, or what an update that was not restored yet found
};

[[nodiscard]] Status PlanImports(const ImageReader& reader, const Image& image,
                                 std::span<const char* const> dlls, ImportPlan* plan) noexcept;

// block: plan.block_size bytes, to be written at block_rva, above the image.
[[nodiscard]] Status BuildImports(const ImageReader& reader, const Image& image, const ImportPlan& plan,
                                  std::span<const char* const> dlls, uint32_t block_rva,
                                  std::span<uint8_t> block, HeaderFields* after) noexcept;

// True when the image's import directory points into a block of ours; *header is its checked header.
[[nodiscard]] bool FindBlock(const ImageReader& reader, const Image& image, BlockHeader* header) noexcept;

}  // namespace detours::pe
