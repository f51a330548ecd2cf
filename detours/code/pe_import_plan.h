// Plans how an image comes to import further DLLs in front of its own, and how that is undone.
//
// Everything new lies in one block of memory above the image, less than 4 GB from its base:
//
//   +----------------------+  block rva
//   | BlockHeader          |  signature, and the image's bytes as they were before the first update
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
// In the image itself a few header fields change; each change is a Patch. A second update before the first
// was restored stacks its table in front of the first one's, and carries the bytes of the untouched image
// along: one restoration undoes both.
//
//   ImportPlan plan;
//   status = PlanImports(reader, image, dlls, &plan);           // reads only; says how large the block must
//   be
//   ... allocate plan.block_size bytes at block_rva ...
//   status = BuildImports(reader, image, plan, dlls, block_rva, block, &patches);
//   ... write the block, then apply the patches ...
#pragma once

#include <span>

#include "detours/code/pe_image.h"

namespace detours::pe {

// Bytes of the image that an update changes.
struct Patch {
  uint32_t rva;
  uint32_t size;  // 1 to 8
  uint8_t before[8];
  uint8_t after[8];
};

struct PatchList {
  static constexpr uint32_t kCapacity = 4;  // import, bound import and IAT directories, CLR flags
  Patch patch[kCapacity];
  uint32_t count;
};

struct SavedBytes {
  uint32_t rva;
  uint32_t size;  // 1 to 8
  uint8_t bytes[8];
};

struct BlockHeader {
  uint8_t signature[16];
  uint32_t block_size;   // bytes
  uint32_t saved_count;  // 1 to PatchList::kCapacity
  SavedBytes saved[PatchList::kCapacity];
};
inline constexpr uint32_t kTableOffset = sizeof(BlockHeader);
static_assert(sizeof(BlockHeader) == 88);

struct ImportPlan {
  uint32_t old_count;      // the image's own descriptors, without the empty one at the end
  uint32_t block_size;     // bytes, a multiple of 8
  bool repaired_size;      // the import directory had an address and a size of 0
  uint32_t clr_flags_rva;  // 0: nothing to change there
  uint32_t clr_flags;
  BlockHeader earlier;  // of an update that was not restored yet; saved_count 0: none
};

[[nodiscard]] Status PlanImports(const ImageReader& reader, const Image& image,
                                 std::span<const char* const> dlls, ImportPlan* plan) noexcept;

// block: plan.block_size bytes, to be written at block_rva.
[[nodiscard]] Status BuildImports(const ImageReader& reader, const Image& image, const ImportPlan& plan,
                                  std::span<const char* const> dlls, uint32_t block_rva,
                                  std::span<uint8_t> block, PatchList* patches) noexcept;

// True when the image's import directory points into a block of ours; *header is its checked header.
[[nodiscard]] bool FindBlock(const ImageReader& reader, const Image& image, BlockHeader* header) noexcept;

}  // namespace detours::pe
