#include "detours/remote_memory.h"

#include <winternl.h>

#include <cstring>

namespace detours {
namespace {

constexpr uint64_t kGranularity = 0x10000;  // of reservations

void* At(uint64_t address) { return reinterpret_cast<void*>(static_cast<uintptr_t>(address)); }

bool Fits(uint64_t address, size_t size) {
  if (address <= UINTPTR_MAX && size <= UINTPTR_MAX - address) return true;
  SetLastError(ERROR_INVALID_ADDRESS);
  return false;
}

}  // namespace

bool RemoteMemory::Read(uint64_t address, void* out, size_t size) const noexcept {
  SIZE_T done = 0;
  if (!Fits(address, size)) return false;
  if (!ReadProcessMemory(process_, At(address), out, size, &done)) return false;
  if (done != size) SetLastError(ERROR_PARTIAL_COPY);
  return done == size;
}

bool RemoteMemory::Write(uint64_t address, const void* data, size_t size) const noexcept {
  SIZE_T done = 0;
  if (!Fits(address, size)) return false;
  if (!WriteProcessMemory(process_, At(address), data, size, &done)) return false;
  if (done != size) SetLastError(ERROR_PARTIAL_COPY);
  return done == size;
}

bool RemoteMemory::WriteProtected(uint64_t address, const void* data, size_t size) const noexcept {
  DWORD protection;
  if (!Fits(address, size)) return false;
  if (!VirtualProtectEx(process_, At(address), size, PAGE_READWRITE, &protection)) return false;
  const bool written = Write(address, data, size);
  const DWORD error = GetLastError();
  DWORD ignored;
  const bool restored = VirtualProtectEx(process_, At(address), size, protection, &ignored);
  if (!written) SetLastError(error);
  return written && restored;
}

uint64_t RemoteMemory::AllocateBetween(uint64_t low, uint64_t high, size_t size) const noexcept {
  MEMORY_BASIC_INFORMATION region;
  DWORD error = ERROR_NOT_ENOUGH_MEMORY;
  for (uint64_t at = low; at < high && high - at >= size && at <= UINTPTR_MAX;) {
    if (!VirtualQueryEx(process_, At(at), &region, sizeof(region))) {
      if (GetLastError() == ERROR_ACCESS_DENIED) error = ERROR_ACCESS_DENIED;
      break;  // otherwise the address space ends here
    }
    const uint64_t end = reinterpret_cast<uintptr_t>(region.BaseAddress) + uint64_t{region.RegionSize};
    const uint64_t start = (at + kGranularity - 1) & ~(kGranularity - 1);
    const uint64_t room = end < high ? end : high;
    if (region.State == MEM_FREE && start < room && room - start >= size) {
      if (VirtualAllocEx(process_, At(start), size, MEM_RESERVE | MEM_COMMIT, PAGE_READWRITE)) return start;
      if (GetLastError() == ERROR_ACCESS_DENIED) {
        error = ERROR_ACCESS_DENIED;
        break;
      }
    }
    at = end;
  }
  SetLastError(error);
  return 0;
}

void RemoteMemory::Free(uint64_t address) const noexcept {
  VirtualFreeEx(process_, At(address), 0, MEM_RELEASE);
}

uint64_t RemoteMemory::ImageBase() const noexcept {
  constexpr uint32_t kImageBaseInPeb = 2 * sizeof(void*);
  PROCESS_BASIC_INFORMATION basic = {};
  const NTSTATUS status =
      NtQueryInformationProcess(process_, ProcessBasicInformation, &basic, sizeof(basic), nullptr);
  uintptr_t base = 0;
  if (status < 0 || !basic.PebBaseAddress) {
    SetLastError(ERROR_INVALID_HANDLE);
    return 0;
  }
  if (!Read(reinterpret_cast<uintptr_t>(basic.PebBaseAddress) + kImageBaseInPeb, &base, sizeof(base)))
    return 0;
  if (!base) SetLastError(ERROR_INVALID_HANDLE);
  return base;
}

bool RemoteImage::Read(uint32_t rva, void* out, size_t size) const noexcept {
  const uint32_t page_rva = rva & ~(kPage - 1);
  const uint32_t offset = rva - page_rva;
  if (size > kPage - offset) return memory_.Read(base_ + rva, out, size);
  if (!filled_ || page_rva != page_rva_) {
    filled_ = memory_.Read(base_ + page_rva, page_, kPage);
    page_rva_ = page_rva;
    if (!filled_) return false;
  }
  memcpy(out, page_ + offset, size);
  return true;
}

bool RemoteImage::WriteFields(const pe::Image& image, const pe::HeaderFields& fields) const noexcept {
  if (fields.clr_flags_rva &&
      !memory_.WriteProtected(base_ + fields.clr_flags_rva, &fields.clr_flags, sizeof(fields.clr_flags))) {
    return false;
  }
  return memory_.WriteProtected(base_ + image.directories, fields.directory,
                                image.directory_count * sizeof(pe::DataDirectory));
}

}  // namespace detours
