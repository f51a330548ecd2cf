// Memory of another process (or of the caller's own), read and written without faults.
//
// The process handle stays the caller's. It needs PROCESS_QUERY_INFORMATION, PROCESS_VM_OPERATION,
// PROCESS_VM_READ and PROCESS_VM_WRITE. Addresses are 64 bits wide so that sums of them do not wrap.
#pragma once

#include <windows.h>

#include <cstdint>

#include "detours/code/pe_import_plan.h"

namespace detours {

class RemoteMemory {
 public:
  explicit RemoteMemory(HANDLE process) : process_(process) {}

  // All of size, or false with GetLastError().
  [[nodiscard]] bool Read(uint64_t address, void* out, size_t size) const noexcept;
  [[nodiscard]] bool Write(uint64_t address, const void* data, size_t size) const noexcept;

  // Writes into pages that are not writable; their protection is afterwards what it was.
  [[nodiscard]] bool WriteProtected(uint64_t address, const void* data, size_t size) const noexcept;

  // Commits size readable and writable bytes wholly within [low, high), as low as there is room; 0 with
  // GetLastError() when there is none. Free releases them.
  [[nodiscard]] uint64_t AllocateBetween(uint64_t low, uint64_t high, size_t size) const noexcept;
  void Free(uint64_t address) const noexcept;

  // Base of the program's image, from the process environment block; 0 with GetLastError().
  [[nodiscard]] uint64_t ImageBase() const noexcept;

 private:
  HANDLE process_;
};

// An image in that memory. Keeps the page that was read last, since headers are read in small pieces.
class RemoteImage final : public pe::ImageReader {
 public:
  RemoteImage(const RemoteMemory& memory, uint64_t base) : memory_(memory), base_(base) {}

  using ImageReader::Read;
  [[nodiscard]] bool Read(uint32_t rva, void* out, size_t size) const noexcept override;

  // The directories come last: as long as they stand, the block that says what to restore can be found.
  [[nodiscard]] bool WriteFields(const pe::Image& image, const pe::HeaderFields& fields) const noexcept;

 private:
  static constexpr uint32_t kPage = 4096;

  const RemoteMemory& memory_;
  uint64_t base_;
  mutable bool filled_ = false;
  mutable uint32_t page_rva_ = 0;
  mutable uint8_t page_[kPage];
};

}  // namespace detours
