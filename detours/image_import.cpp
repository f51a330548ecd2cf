// Injection: the import table of a suspended process gets our DLLs in front of its own.
#include <span>

#include "detours/bitness.h"
#include "detours/code/pe_import_plan.h"
#include "detours/detours.h"
#include "detours/remote_memory.h"
#include "detours/win32_error.h"

namespace detours {
namespace {

constexpr uint64_t kReach = uint64_t{1} << 32;  // of the image's 32-bit offsets

constexpr wchar_t kRepairedSize[] =
    L"[This PE file has an import table, but the import table size is marked as 0. This is an error."
    L"If it is not repaired, the launched program will not work properly, Detours has automatically repaired "
    L"its import table size for you! ! !]\r\n";

DWORD ErrorOf(pe::Status status) {
  switch (status) {
    case pe::Status::kOk:
      return NO_ERROR;
    case pe::Status::kUnreadable:
    case pe::Status::kNotAnImage:
    case pe::Status::kUnsupportedMachine:
      return ERROR_INVALID_HANDLE;
    case pe::Status::kBadHeaders:
    case pe::Status::kNoDirectorySlot:
    case pe::Status::kBadImportTable:
    case pe::Status::kBadClrHeader:
      return ERROR_BAD_EXE_FORMAT;
    case pe::Status::kBadDllName:
      return ERROR_INVALID_PARAMETER;
    case pe::Status::kOutOfReach:
      return ERROR_NOT_ENOUGH_MEMORY;
  }
  return ERROR_BAD_EXE_FORMAT;
}

void ReportRepairedSize() {
  const DWORD error = GetLastError();
  OutputDebugStringW(kRepairedSize);
  SetLastError(error);
}

// The block in the target, given back unless the update is complete.
class [[nodiscard]] RemoteBlock {
 public:
  RemoteBlock(const RemoteMemory& memory, uint64_t address) : memory_(memory), address_(address) {}
  ~RemoteBlock() {
    if (address_) memory_.Free(address_);
  }
  RemoteBlock(const RemoteBlock&) = delete;
  RemoteBlock& operator=(const RemoteBlock&) = delete;
  uint64_t address() const { return address_; }
  void Keep() { address_ = 0; }

 private:
  const RemoteMemory& memory_;
  uint64_t address_;
};

// The block as it is put together here before it is written over there.
class [[nodiscard]] LocalBlock {
 public:
  explicit LocalBlock(size_t size)
      : bytes_(static_cast<uint8_t*>(HeapAlloc(GetProcessHeap(), 0, size))), size_(size) {}
  ~LocalBlock() {
    if (bytes_) HeapFree(GetProcessHeap(), 0, bytes_);
  }
  LocalBlock(const LocalBlock&) = delete;
  LocalBlock& operator=(const LocalBlock&) = delete;
  std::span<uint8_t> span() const { return {bytes_, bytes_ ? size_ : 0}; }

 private:
  uint8_t* bytes_;
  size_t size_;
};

DWORD UpdateImports(HANDLE process, std::span<const char* const> dlls) {
  // A 32-bit caller would read a 64-bit process through addresses cut in half.
  if (!HasOwnBitness(process)) return ERROR_INVALID_HANDLE;
  const RemoteMemory memory(process);
  const uint64_t base = memory.ImageBase();
  if (!base) return Failure();
  const RemoteImage reader(memory, base);

  pe::Image image;
  if (pe::Status s = pe::ReadImage(reader, &image); s != pe::Status::kOk) return ErrorOf(s);
  // A 32-bit image in a 64-bit process: managed code for any processor, whose headers the runtime widens
  // later.
  if (image.is_64 != (sizeof(void*) == 8)) return ERROR_NOT_SUPPORTED;
  pe::ImportPlan plan;
  if (pe::Status s = pe::PlanImports(reader, image, dlls, &plan); s != pe::Status::kOk) return ErrorOf(s);

  LocalBlock local(plan.block_size);
  if (local.span().empty()) return ERROR_NOT_ENOUGH_MEMORY;
  RemoteBlock block(memory,
                    memory.AllocateBetween(base + image.size_of_image, base + kReach, plan.block_size));
  if (!block.address()) return Failure();
  const auto block_rva = static_cast<uint32_t>(block.address() - base);

  pe::HeaderFields after;
  if (pe::Status s = pe::BuildImports(reader, image, plan, dlls, block_rva, local.span(), &after);
      s != pe::Status::kOk) {
    return ErrorOf(s);
  }
  if (!memory.Write(block.address(), local.span().data(), plan.block_size)) return Failure();
  if (!reader.WriteFields(image, after)) {
    const DWORD error = Failure();
    (void)reader.WriteFields(image, plan.before);
    return error;
  }
  block.Keep();
  if (plan.repaired_size) ReportRepairedSize();
  return NO_ERROR;
}

}  // namespace
}  // namespace detours

BOOL WINAPI DetourUpdateProcessWithDll(HANDLE process, LPCSTR* dlls, DWORD count) {
  DWORD error = ERROR_INVALID_PARAMETER;
  if (dlls && count) error = detours::UpdateImports(process, {dlls, count});
  if (error) SetLastError(error);
  return error == NO_ERROR;
}
