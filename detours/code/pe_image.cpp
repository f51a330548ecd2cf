#include "detours/code/pe_image.h"

#include <algorithm>

namespace detours::pe {

Status ReadImage(const ImageReader& reader, Image* image) noexcept {
  *image = {};
  uint16_t magic;
  uint32_t nt;
  if (!reader.Read(0, &magic) || !reader.Read(kNtOffsetField, &nt)) return Status::kUnreadable;
  if (magic != kDosMagic) return Status::kNotAnImage;
  // The system refuses images whose headers start beyond 256 MB; below it no sum of header sizes overflows.
  if (nt >= 0x1000'0000) return Status::kBadHeaders;

  uint32_t signature;
  FileHeader file;
  if (!reader.Read(nt, &signature)) return Status::kUnreadable;
  if (signature != kNtSignature) return Status::kNotAnImage;
  if (!reader.Read(nt + sizeof(signature), &file)) return Status::kUnreadable;

  const uint32_t optional = nt + sizeof(signature) + sizeof(file);
  if (!reader.Read(optional, &magic)) return Status::kUnreadable;
  image->machine = file.machine;
  if (file.machine == kMachineX64 && magic == kOptionalMagic64) {
    image->is_64 = true;
  } else if (file.machine != kMachineX86 || magic != kOptionalMagic32) {
    return Status::kUnsupportedMachine;
  }
  const uint32_t count_field = image->is_64 ? kDirectoryCountField64 : kDirectoryCountField32;
  const uint32_t directories = count_field + sizeof(uint32_t);
  uint32_t count;
  if (!reader.Read(optional + kSizeOfImageField, &image->size_of_image) ||
      !reader.Read(optional + count_field, &count)) {
    return Status::kUnreadable;
  }
  image->directories = optional + directories;
  image->directory_count = std::min<uint32_t>(count, kMaxDirectories);
  image->sections = optional + file.optional_header_size;
  image->section_count = file.section_count;
  const uint32_t directory_bytes = image->directory_count * sizeof(DataDirectory);
  if (file.optional_header_size < directories || !image->Contains(image->directories, directory_bytes)) {
    return Status::kBadHeaders;
  }
  return reader.Read(image->directories, image->directory, directory_bytes) ? Status::kOk
                                                                            : Status::kUnreadable;
}

bool FindSection(const ImageReader& reader, const Image& image, uint32_t rva, DataDirectory* range) noexcept {
  for (uint32_t i = 0; i < image.section_count; ++i) {
    SectionHeader section;
    if (!reader.Read(image.sections + i * sizeof(section), &section)) return false;
    const uint32_t size = section.virtual_size ? section.virtual_size : section.raw_size;
    if (rva >= section.rva && rva - section.rva < size && image.Contains(section.rva, size)) {
      *range = {section.rva, size};
      return true;
    }
  }
  return false;
}

}  // namespace detours::pe
