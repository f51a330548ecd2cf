// The parts of the PE format that the injection reads and writes, as they lie in a mapped image.
// All offsets named rva count from the image's base.
#pragma once

#include <cstdint>

namespace detours::pe {

inline constexpr uint16_t kDosMagic = 0x5A4D;     // "MZ"
inline constexpr uint32_t kNtSignature = 0x4550;  // "PE\0\0"
inline constexpr uint32_t kNtOffsetField = 0x3C;  // where the DOS header holds the NT headers' offset
inline constexpr uint16_t kMachineX86 = 0x14C;    // with optional header magic 0x10B
inline constexpr uint16_t kMachineX64 = 0x8664;   // with optional header magic 0x20B
inline constexpr uint16_t kOptionalMagic32 = 0x10B;
inline constexpr uint16_t kOptionalMagic64 = 0x20B;
inline constexpr uint32_t kOrdinalFlag32 = 0x8000'0000u;
inline constexpr uint64_t kOrdinalFlag64 = 0x8000'0000'0000'0000u;
inline constexpr uint32_t kClrIlOnly = 0x1;  // ClrHeader::flags: the loader skips the image's imports

enum DirectoryIndex : uint32_t {
  kImportDirectory = 1,
  kBoundImportDirectory = 11,
  kIatDirectory = 12,
  kClrDirectory = 14,
  kMaxDirectories = 16,
};

struct FileHeader {
  uint16_t machine;
  uint16_t section_count;
  uint32_t time_date_stamp;
  uint32_t symbol_table;
  uint32_t symbol_count;
  uint16_t optional_header_size;
  uint16_t characteristics;
};
static_assert(sizeof(FileHeader) == 20);

struct DataDirectory {
  uint32_t rva;
  uint32_t size;  // bytes
  bool operator==(const DataDirectory&) const = default;
};

// Offsets inside the optional header; those of SizeOfImage are the same for both widths.
inline constexpr uint32_t kSizeOfImageField = 56;
inline constexpr uint32_t kDirectoryCountField32 = 92;
inline constexpr uint32_t kDirectoryCountField64 = 108;

struct SectionHeader {
  char name[8];
  uint32_t virtual_size;
  uint32_t rva;
  uint32_t raw_size;
  uint32_t raw_offset;
  uint32_t relocations;
  uint32_t line_numbers;
  uint16_t relocation_count;
  uint16_t line_number_count;
  uint32_t characteristics;
};
static_assert(sizeof(SectionHeader) == 40);

struct ImportDescriptor {
  uint32_t original_first_thunk;  // rva of the import name table, 0 when there is none
  uint32_t time_date_stamp;       // not 0: addresses were bound when the file was made
  uint32_t forwarder_chain;
  uint32_t name;         // rva of the DLL's name
  uint32_t first_thunk;  // rva of the import address table
};
static_assert(sizeof(ImportDescriptor) == 20);

struct ClrHeader {
  uint32_t size;
  uint16_t runtime_major, runtime_minor;
  DataDirectory metadata;
  uint32_t flags;
};
static_assert(sizeof(ClrHeader) == 20);

}  // namespace detours::pe
