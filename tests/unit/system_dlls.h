// The code of the DLLs that the distribution brings, as material for the decoder: read at run time from the
// files of the Wine and mingw-w64 packages.
#pragma once

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <span>
#include <string>
#include <vector>

#include "detours/code/instruction.h"

namespace system_dlls {

struct Export {
  std::uint64_t address;
  std::span<const std::uint8_t> code;  // to the end of the section
};

class Dll {
 public:
  explicit Dll(const std::filesystem::path& path) {
    std::ifstream file(path, std::ios::binary);
    // Debug sections stand last and are large: the mapped sections' bytes are within the first megabytes.
    bytes_.resize(std::min<std::uintmax_t>(std::filesystem::file_size(path), kMaxSize));
    file.read(reinterpret_cast<char*>(bytes_.data()), static_cast<std::streamsize>(bytes_.size()));
    Parse();
  }

  [[nodiscard]] detours::Mode mode() const { return mode_; }
  [[nodiscard]] const std::vector<Export>& exports() const { return exports_; }

 private:
  static constexpr std::uintmax_t kMaxSize = 32u << 20;
  struct Section {
    std::uint32_t rva, offset, size;
    bool code;
  };

  template <class T>
  [[nodiscard]] T At(std::size_t offset) const {
    T value{};
    if (offset + sizeof(T) <= bytes_.size()) memcpy(&value, bytes_.data() + offset, sizeof(T));
    return value;
  }

  [[nodiscard]] const Section* Find(std::uint32_t rva) const {
    const auto found =
        std::ranges::find_if(sections_, [&](const Section& s) { return rva - s.rva < s.size; });
    return found == sections_.end() ? nullptr : &*found;
  }

  void Parse() {
    const std::size_t nt = At<std::uint32_t>(0x3C);
    const std::size_t optional = nt + 24;
    const bool plus = At<std::uint16_t>(optional) == 0x20B;
    mode_ = plus ? detours::Mode::kX64 : detours::Mode::kX86;
    const std::uint64_t base = plus ? At<std::uint64_t>(optional + 24) : At<std::uint32_t>(optional + 28);
    const std::size_t table = optional + At<std::uint16_t>(nt + 20);
    for (std::size_t i = 0; i < At<std::uint16_t>(nt + 6); ++i) {
      const std::size_t at = table + i * 40;
      Section section{At<std::uint32_t>(at + 12), At<std::uint32_t>(at + 20), At<std::uint32_t>(at + 16),
                      (At<std::uint32_t>(at + 36) & 0x2000'0000) != 0};
      if (std::uint64_t{section.offset} + section.size <= bytes_.size()) sections_.push_back(section);
    }
    const auto directory = At<std::uint32_t>(optional + (plus ? 112 : 96));
    const Section* holder = Find(directory);
    if (!holder) return;
    const std::size_t exports = holder->offset + (directory - holder->rva);
    const auto count = At<std::uint32_t>(exports + 20);
    const auto functions = At<std::uint32_t>(exports + 28);
    for (std::uint32_t i = 0; i < count && Find(functions); ++i) {
      const auto rva = At<std::uint32_t>(holder->offset + (functions - holder->rva) + i * 4);
      const Section* section = Find(rva);
      if (!section || !section->code) continue;
      const std::span<const std::uint8_t> code(bytes_.data() + section->offset, section->size);
      exports_.push_back({base + rva, code.subspan(rva - section->rva)});
    }
  }

  std::vector<std::uint8_t> bytes_;
  std::vector<Section> sections_;
  std::vector<Export> exports_;
  detours::Mode mode_ = detours::Mode::kX64;
};

// The first bytes of a function, for messages.
inline std::string Hex(std::span<const std::uint8_t> code) {
  std::string text;
  for (const std::uint8_t byte : code.first(std::min<std::size_t>(code.size(), 24))) {
    char digits[4];
    snprintf(digits, sizeof(digits), "%02X ", byte);
    text += digits;
  }
  return text;
}

// Folders of DLLs on this machine; empty when the packages are not installed.
inline std::vector<std::filesystem::path> Files(detours::Mode mode) {
  const std::vector<const char*> folders =
      mode == detours::Mode::kX64
          ? std::vector{"/usr/lib/x86_64-linux-gnu/wine/x86_64-windows"}
          : std::vector{"/usr/lib/i386-linux-gnu/wine/i386-windows",
                        "/usr/lib/x86_64-linux-gnu/wine/i386-windows",
                        "/usr/lib/gcc/i686-w64-mingw32/12-posix", "/usr/i686-w64-mingw32/lib"};
  std::vector<std::filesystem::path> files;
  for (const char* folder : folders) {
    std::error_code missing;
    for (const auto& entry : std::filesystem::directory_iterator(folder, missing)) {
      if (entry.path().extension() == ".dll") files.push_back(entry.path());
    }
  }
  std::ranges::sort(files);
  return files;
}

}  // namespace system_dlls
