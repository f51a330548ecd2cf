#include "detours/code/pe_import_plan.h"

#include <cstddef>
#include <cstring>

namespace detours::pe {
namespace {

constexpr uint8_t kSignature[16] = {0x1d, 0x8f, 0x52, 0xe6, 0xb3, 0x07, 0x4c, 0x9a,
                                    0x9e, 0x71, 0x35, 0xc8, 0x60, 0xfb, 0xa4, 0x2d};
constexpr uint32_t kMaxNameBytes = 32767;  // the longest path of the system, without its terminator
constexpr uint32_t kMaxDescriptors = 1u << 16;

// Where the parts of the block lie that follow the descriptors.
struct Layout {
  uint32_t thunk_size, thunks, names;

  Layout(bool is_64, uint32_t dll_count, uint32_t old_count) : thunk_size(is_64 ? 8 : 4) {
    const uint32_t descriptors = (dll_count + old_count + 1) * sizeof(ImportDescriptor);
    thunks = (kTableOffset + descriptors + 7) & ~7u;
    names = thunks + dll_count * 4 * thunk_size;
  }
};

// Ends where the loader ends: at a descriptor without name or without address table.
bool IsLast(const ImportDescriptor& d) { return d.name == 0 || d.first_thunk == 0; }

// Reads the table that starts at rva in runs of descriptors; visit(index, descriptor) is called for each one
// before the last.
template <class Visit>
Status WalkDescriptors(const ImageReader& reader, uint32_t rva, uint32_t limit, Visit&& visit) noexcept {
  constexpr uint32_t kRun = 16;
  ImportDescriptor run[kRun];
  for (uint32_t i = 0; i < limit;) {
    const uint64_t at = uint64_t{rva} + uint64_t{i} * sizeof(ImportDescriptor);
    uint32_t n = limit - i < kRun ? limit - i : kRun;
    if (at + n * sizeof(ImportDescriptor) > UINT32_MAX) return Status::kBadImportTable;
    // A run may reach past the table into memory that is not there.
    if (!reader.Read(static_cast<uint32_t>(at), run, n * sizeof(ImportDescriptor))) {
      n = 1;
      if (!reader.Read(static_cast<uint32_t>(at), run, sizeof(ImportDescriptor))) return Status::kUnreadable;
    }
    for (uint32_t k = 0; k < n; ++k, ++i) {
      if (IsLast(run[k])) return Status::kOk;
      visit(i, run[k]);
    }
  }
  return Status::kBadImportTable;
}

// How many descriptors fit from the start of the import table to the end of what holds it.
uint32_t DescriptorLimit(uint32_t bytes) {
  const auto fit = static_cast<uint32_t>(bytes / sizeof(ImportDescriptor));
  return fit < kMaxDescriptors ? fit : kMaxDescriptors;
}

// The address table directory. Where an image has none, the loader makes the section of the first
// descriptor's table writable; with our descriptor in front it would look for that section in vain, so the
// image gets a directory that says the same.
DataDirectory AddressTables(const ImageReader& reader, const Image& image, uint32_t old_count,
                            uint32_t old_first_thunk, DataDirectory own) {
  const DataDirectory& present = image.directory[kIatDirectory];
  if (present.rva) return present;
  DataDirectory section;
  if (old_count && FindSection(reader, image, old_first_thunk, &section)) return section;
  return own;
}

// The flag that makes the loader skip the imports of an image of managed code only.
Status PlanClrFlags(const ImageReader& reader, const Image& image, HeaderFields* fields) noexcept {
  const DataDirectory& clr = image.directory[kClrDirectory];
  if (!clr.rva) return Status::kOk;
  ClrHeader header;
  const bool in_headers = clr.rva < image.sections + image.section_count * sizeof(SectionHeader);
  if (in_headers || !image.Contains(clr.rva, sizeof(header))) return Status::kBadClrHeader;
  if (!reader.Read(clr.rva, &header)) return Status::kUnreadable;
  if (header.flags & kClrIlOnly) {
    fields->clr_flags_rva = clr.rva + static_cast<uint32_t>(offsetof(ClrHeader, flags));
    fields->clr_flags = header.flags;
  }
  return Status::kOk;
}

}  // namespace

Status PlanImports(const ImageReader& reader, const Image& image, std::span<const char* const> dlls,
                   ImportPlan* plan) noexcept {
  *plan = {};
  if (dlls.empty() || dlls.size() > kMaxDescriptors) return Status::kBadDllName;
  uint64_t name_bytes = 0;
  for (const char* dll : dlls) {
    const size_t length = dll ? strnlen(dll, kMaxNameBytes + 1) : 0;
    if (length == 0 || length > kMaxNameBytes) return Status::kBadDllName;
    name_bytes += length + 1;
  }
  if (image.directory_count <= kIatDirectory) return Status::kNoDirectorySlot;

  memcpy(plan->before.directory, image.directory, sizeof(image.directory));
  if (Status status = PlanClrFlags(reader, image, &plan->before); status != Status::kOk) return status;
  plan->original = plan->before;

  const DataDirectory& import = image.directory[kImportDirectory];
  if (import.rva) {
    uint32_t bytes = image.Contains(import.rva, 0) ? image.size_of_image - import.rva : 0;
    if (BlockHeader earlier; FindBlock(reader, image, &earlier)) {
      plan->original = earlier.original;
      bytes = earlier.block_size - kTableOffset;
    }
    const Status status = WalkDescriptors(reader, import.rva, DescriptorLimit(bytes),
                                          [&](uint32_t, const ImportDescriptor&) { ++plan->old_count; });
    if (status != Status::kOk) return status;
    plan->repaired_size = import.size == 0;
  }

  const Layout layout(image.is_64, static_cast<uint32_t>(dlls.size()), plan->old_count);
  const uint64_t size = (layout.names + name_bytes + 7) & ~uint64_t{7};
  if (size > INT32_MAX) return Status::kOutOfReach;
  plan->block_size = static_cast<uint32_t>(size);
  return Status::kOk;
}

Status BuildImports(const ImageReader& reader, const Image& image, const ImportPlan& plan,
                    std::span<const char* const> dlls, uint32_t block_rva, std::span<uint8_t> block,
                    HeaderFields* after) noexcept {
  if (block_rva < image.size_of_image || block_rva > UINT32_MAX - plan.block_size) return Status::kOutOfReach;
  if (block.size() < plan.block_size) return Status::kOutOfReach;
  memset(block.data(), 0, plan.block_size);
  const auto dll_count = static_cast<uint32_t>(dlls.size());
  const Layout layout(image.is_64, dll_count, plan.old_count);

  uint8_t* const table = block.data() + kTableOffset;
  const auto put = [&](uint32_t index, const ImportDescriptor& d) {
    memcpy(table + index * sizeof(d), &d, sizeof(d));
  };
  uint32_t name = layout.names;
  for (uint32_t i = 0; i < dll_count; ++i) {
    const uint32_t name_table = layout.thunks + i * 4 * layout.thunk_size;
    const uint32_t address_table = name_table + 2 * layout.thunk_size;
    const uint64_t ordinal = (image.is_64 ? kOrdinalFlag64 : kOrdinalFlag32) | 1;
    memcpy(block.data() + name_table, &ordinal, layout.thunk_size);
    memcpy(block.data() + address_table, &ordinal, layout.thunk_size);
    put(i, {block_rva + name_table, 0, 0, block_rva + name, block_rva + address_table});

    const size_t bytes = strlen(dlls[i]) + 1;
    if (bytes > plan.block_size - name) return Status::kBadDllName;
    memcpy(block.data() + name, dlls[i], bytes);
    name += static_cast<uint32_t>(bytes);
  }

  uint32_t first_thunk = 0;
  if (plan.old_count) {
    uint32_t copied = 0;
    const Status status = WalkDescriptors(reader, image.directory[kImportDirectory].rva, plan.old_count + 1,
                                          [&](uint32_t index, ImportDescriptor d) {
                                            if (index == 0) first_thunk = d.first_thunk;
                                            // The bound addresses of the file are given up: the name table
                                            // says what to look up.
                                            if (d.original_first_thunk)
                                              d.time_date_stamp = d.forwarder_chain = 0;
                                            put(dll_count + index, d);
                                            ++copied;
                                          });
    if (status != Status::kOk || copied != plan.old_count) return Status::kBadImportTable;
  }

  const uint32_t descriptors = dll_count + plan.old_count + 1;
  *after = plan.before;
  after->directory[kImportDirectory] = {block_rva + kTableOffset,
                                        descriptors * static_cast<uint32_t>(sizeof(ImportDescriptor))};
  after->directory[kBoundImportDirectory] = {};
  after->directory[kIatDirectory] = AddressTables(reader, image, plan.old_count, first_thunk,
                                                  {block_rva + layout.thunks, layout.names - layout.thunks});
  after->clr_flags &= ~kClrIlOnly;

  BlockHeader header = {};
  memcpy(header.signature, kSignature, sizeof(kSignature));
  header.block_size = plan.block_size;
  header.original = plan.original;
  memcpy(block.data(), &header, sizeof(header));
  return Status::kOk;
}

bool FindBlock(const ImageReader& reader, const Image& image, BlockHeader* header) noexcept {
  const uint32_t table = image.directory[kImportDirectory].rva;
  // Only what lies above the image is ours; a file could carry the same bytes.
  if (table < kTableOffset || table - kTableOffset < image.size_of_image) return false;
  if (!reader.Read(table - kTableOffset, header)) return false;
  if (memcmp(header->signature, kSignature, sizeof(kSignature)) != 0) return false;
  const uint32_t flags_rva = header->original.clr_flags_rva;
  return header->block_size >= kTableOffset && header->block_size <= UINT32_MAX - (table - kTableOffset) &&
         (!flags_rva || image.Contains(flags_rva, sizeof(uint32_t)));
}

}  // namespace detours::pe
