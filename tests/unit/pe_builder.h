// Small images for the tests of the PE code, laid out as the loader maps them, and what an injection does to
// them.
#pragma once

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include "detours/code/pe_import_plan.h"

namespace detours::pe_test {

struct BuildOptions {
  bool is_64 = true;
  std::vector<std::string> dlls = {"KERNEL32.dll", "msvcrt.dll"};  // empty: no import table
  bool import_size_is_zero = false;
  bool bound = false;  // a bound import directory and bound stamps in the descriptors
  bool with_iat_directory = true;
  uint32_t clr_flags = 0;  // not 0: the image has a CLR header
};

// One section, ".idata", from kSection on; the headers before it.
inline constexpr uint32_t kNt = 0x80, kSection = 0x1000, kImageSize = 0x3000;
inline constexpr uint32_t kBoundTable = 0x300, kClr = 0x2000, kIat = 0x1800;

class Builder {
 public:
  explicit Builder(const BuildOptions& o) : bytes_(kImageSize), o_(o) {
    const uint32_t optional = kNt + 24;
    const uint32_t count_field =
        optional + (o.is_64 ? pe::kDirectoryCountField64 : pe::kDirectoryCountField32);
    directories_ = count_field + 4;
    const uint32_t sections = directories_ + pe::kMaxDirectories * 8;
    Put(0, pe::kDosMagic);
    Put(pe::kNtOffsetField, kNt);
    Put(kNt, pe::kNtSignature);
    pe::FileHeader file = {};
    file.machine = o.is_64 ? pe::kMachineX64 : pe::kMachineX86;
    file.section_count = 1;
    file.optional_header_size = static_cast<uint16_t>(sections - optional);
    Put(kNt + 4, file);
    Put(optional, o.is_64 ? pe::kOptionalMagic64 : pe::kOptionalMagic32);
    Put(optional + pe::kSizeOfImageField, kImageSize);
    Put(count_field, uint32_t{pe::kMaxDirectories});
    pe::SectionHeader section = {};
    memcpy(section.name, ".idata", 6);
    section.virtual_size = kImageSize - kSection;
    section.rva = kSection;
    Put(sections, section);
    if (!o.dlls.empty()) Imports();
    if (o.bound) Put(Directory(pe::kBoundImportDirectory), pe::DataDirectory{kBoundTable, 16});
    if (o.clr_flags) {
      Put(Directory(pe::kClrDirectory), pe::DataDirectory{kClr, 72});
      Put(kClr, pe::ClrHeader{72, 2, 5, {}, o.clr_flags});
    }
  }

  uint32_t Directory(uint32_t index) const { return directories_ + index * 8; }
  std::vector<uint8_t> Take() { return std::move(bytes_); }

 private:
  template <class T>
  void Put(uint32_t rva, const T& value) {
    memcpy(bytes_.data() + rva, &value, sizeof(value));
  }

  // Descriptors at kSection; per DLL one function by ordinal 7, its tables at kIat and behind, names at the
  // end.
  void Imports() {
    const uint32_t width = o_.is_64 ? 8 : 4;
    const uint64_t ordinal = (o_.is_64 ? pe::kOrdinalFlag64 : pe::kOrdinalFlag32) | 7;
    uint32_t descriptor = kSection, iat = kIat, name = 0x2800;
    const auto tables = static_cast<uint32_t>(o_.dlls.size()) * 2 * width;
    for (const std::string& dll : o_.dlls) {
      const uint32_t stamp = o_.bound ? ~0u : 0;
      Put(descriptor, pe::ImportDescriptor{iat + tables, stamp, stamp, name, iat});
      memcpy(bytes_.data() + iat, &ordinal, width);
      memcpy(bytes_.data() + iat + tables, &ordinal, width);
      memcpy(bytes_.data() + name, dll.c_str(), dll.size() + 1);
      descriptor += sizeof(pe::ImportDescriptor);
      iat += 2 * width;
      name += 32;
    }
    descriptor += sizeof(pe::ImportDescriptor);
    Put(Directory(pe::kImportDirectory),
        pe::DataDirectory{kSection, o_.import_size_is_zero ? 0 : descriptor - kSection});
    if (o_.with_iat_directory) Put(Directory(pe::kIatDirectory), pe::DataDirectory{kIat, tables});
  }

  std::vector<uint8_t> bytes_;
  BuildOptions o_;
  uint32_t directories_;
};

inline std::vector<uint8_t> BuildImage(const BuildOptions& options = {}) { return Builder(options).Take(); }

// Memory from an image's base on: some pieces, and nothing between them.
class Memory final : public pe::ImageReader {
 public:
  explicit Memory(std::vector<uint8_t> image) { pieces_[0] = std::move(image); }

  using ImageReader::Read;
  [[nodiscard]] bool Read(uint32_t rva, void* out, size_t size) const noexcept override {
    const uint8_t* from = Find(rva, size);
    if (from && size) memcpy(out, from, size);
    return from;
  }
  [[nodiscard]] bool Write(uint32_t rva, const void* data, size_t size) {
    auto* to = const_cast<uint8_t*>(Find(rva, size));
    if (to) memcpy(to, data, size);
    return to;
  }
  [[nodiscard]] bool Write(const pe::Image& image, const pe::HeaderFields& fields) {
    if (fields.clr_flags_rva && !Write(fields.clr_flags_rva, &fields.clr_flags, 4)) return false;
    return Write(image.directories, fields.directory, image.directory_count * sizeof(pe::DataDirectory));
  }
  void Add(uint32_t rva, std::vector<uint8_t> piece) { pieces_[rva] = std::move(piece); }
  const std::vector<uint8_t>& image() const { return pieces_.at(0); }

 private:
  const uint8_t* Find(uint32_t rva, size_t size) const {
    auto it = pieces_.upper_bound(rva);
    if (it == pieces_.begin()) return nullptr;
    --it;
    const size_t offset = rva - it->first;
    if (offset > it->second.size() || size > it->second.size() - offset) return nullptr;
    return it->second.data() + offset;
  }

  std::map<uint32_t, std::vector<uint8_t>> pieces_;
};

inline constexpr uint32_t kBlock = 0x10000;
using Dlls = std::vector<const char*>;

// What an injection does, in memory: plan, build, write the block and the header fields.
inline pe::Status Inject(Memory& memory, const Dlls& dlls, uint32_t block_rva = kBlock,
                         pe::ImportPlan* out = nullptr) {
  pe::Image image;
  pe::ImportPlan plan;
  pe::HeaderFields after;
  if (pe::Status s = pe::ReadImage(memory, &image); s != pe::Status::kOk) return s;
  if (pe::Status s = pe::PlanImports(memory, image, dlls, &plan); s != pe::Status::kOk) return s;
  std::vector<uint8_t> block(plan.block_size);
  block_rva = std::max(block_rva, image.size_of_image);
  pe::Status s = pe::BuildImports(memory, image, plan, dlls, block_rva, block, &after);
  if (s != pe::Status::kOk) return s;
  memory.Add(block_rva, std::move(block));
  if (out) *out = plan;
  return memory.Write(image, after) ? s : pe::Status::kUnreadable;
}

inline bool Restore(Memory& memory) {
  pe::Image image;
  pe::BlockHeader block;
  if (pe::ReadImage(memory, &image) != pe::Status::kOk || !pe::FindBlock(memory, image, &block)) return false;
  return memory.Write(image, block.original);
}

}  // namespace detours::pe_test
