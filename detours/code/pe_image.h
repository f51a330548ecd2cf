// Reads the headers of a mapped image through somebody else's memory. Nothing here trusts what it reads:
// every offset is checked, and memory that cannot be read ends the reading with a status.
//
//   pe::Image image;
//   if (pe::Status status = pe::ReadImage(reader, &image); status != pe::Status::kOk) return status;
#pragma once

#include <cstddef>
#include <cstdint>

#include "detours/code/pe_format.h"

namespace detours::pe {

enum class Status : uint8_t {
  kOk,
  kUnreadable,          // memory that the headers name cannot be read
  kNotAnImage,          // no MZ or PE signature
  kUnsupportedMachine,  // neither x86 nor x64, or the optional header is of the other width
  kBadHeaders,          // sizes in the headers contradict each other
  kNoDirectorySlot,     // the header has no entry for the directories that must change
  kBadImportTable,      // the import table leaves the image or has no end
  kBadClrHeader,        // the CLR header leaves the image or lies in its headers
  kBadDllName,          // a DLL name is missing, empty or too long
  kOutOfReach,          // the new table would lie 4 GB or more above the image's base
};

// Memory of an image, by offset from its base.
class ImageReader {
 public:
  // Copies size bytes; false when any of them cannot be read.
  [[nodiscard]] virtual bool Read(uint32_t rva, void* out, size_t size) const noexcept = 0;

  template <class T>
  [[nodiscard]] bool Read(uint32_t rva, T* out) const noexcept {
    return Read(rva, out, sizeof(T));
  }

 protected:
  ~ImageReader() = default;
};

struct Image {
  uint16_t machine;
  bool is_64;
  uint32_t size_of_image;  // bytes
  uint32_t sections;       // rva of the section table
  uint16_t section_count;
  uint32_t directories;  // rva of the data directories
  uint32_t directory_count;
  DataDirectory directory[kMaxDirectories];  // zero from directory_count on

  // True when [rva, rva + size) lies in the image.
  bool Contains(uint64_t rva, uint64_t size) const noexcept {
    return rva <= size_of_image && size <= size_of_image - rva;
  }
};

[[nodiscard]] Status ReadImage(const ImageReader& reader, Image* image) noexcept;

// The range of the section that holds rva; false when none does or the section table cannot be read.
[[nodiscard]] bool FindSection(const ImageReader& reader, const Image& image, uint32_t rva,
                               DataDirectory* range) noexcept;

}  // namespace detours::pe
