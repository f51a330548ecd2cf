#include "File/recycle_bin.h"

#include <shellapi.h>

#include "File/file_helper.h"
#include "File/scratch_path.h"
#include "Platform/native.h"
#include "VornCore/Base/hook_depth_guard.h"
#include "VornCore/Hook/own_handle.h"

namespace VornCore {
namespace {

using SHFileOperation = int(WINAPI*)(LPSHFILEOPSTRUCTW);

constexpr FILEOP_FLAGS kShellFlags =
    FOF_SILENT | FOF_NOCONFIRMATION | FOF_ALLOWUNDO | FOF_NOCONFIRMMKDIR | FOF_NOERRORUI;
static_assert(kShellFlags == 0x0654);
constexpr int kErrorInvalidFunction = 632;  // what a missing shell is answered with
constexpr NTSTATUS kPathNotConvertible = static_cast<NTSTATUS>(0xC00000EF);

SHFileOperation GetSHFileOperation() {
  static const auto function =
      reinterpret_cast<SHFileOperation>(GetProcAddress(LoadLibraryW(L"Shell32.dll"), "SHFileOperationW"));
  return function;
}

NTSTATUS ReadEntries(HANDLE directory) {
  alignas(8) std::byte page[1024];
  for (BOOLEAN restart = TRUE;; restart = FALSE) {
    IO_STATUS_BLOCK io;
    const NTSTATUS status = platform::Native().NtQueryDirectoryFile(
        directory, nullptr, nullptr, nullptr, &io, page, sizeof page,
        static_cast<FILE_INFORMATION_CLASS>(nt::kFileBothDirectoryInformation), TRUE, nullptr, restart);
    if (!nt::Success(status)) return status == STATUS_DIRECTORY_NOT_EMPTY ? status : STATUS_SUCCESS;
    const auto* entry = reinterpret_cast<const nt::BothDirectoryEntry*>(page);
    const std::wstring_view name(entry->FileName, entry->FileNameLength / sizeof(wchar_t));
    if (name != L"." && name != L"..") return STATUS_DIRECTORY_NOT_EMPTY;
  }
}

}  // namespace

NTSTATUS MoveToRecycleBin(std::wstring_view path) noexcept {
  NTSTATUS status = STATUS_SUCCESS;
  (void)GuardedHandler(GetThreadState(), &status, [&] {
    // A directory with entries stays, and counts as deleted.
    if (nt::Success(CheckDirectoryEmpty(path))) status = ShellDeleteToRecycleBin(path);
  });
  return status;
}

NTSTATUS CheckDirectoryEmpty(std::wstring_view path) noexcept {
  if (path.empty()) return STATUS_SUCCESS;
  UNICODE_STRING name = nt::CountedString(path.data(), path.size() * sizeof(wchar_t));
  OBJECT_ATTRIBUTES attributes = nt::NamedObject(&name);
  FILE_NETWORK_OPEN_INFORMATION info;
  if (!nt::Success(platform::Native().NtQueryFullAttributesFile(&attributes, &info)) ||
      !(info.FileAttributes & FILE_ATTRIBUTE_DIRECTORY) ||
      (info.FileAttributes & FILE_ATTRIBUTE_REPARSE_POINT))
    return STATUS_SUCCESS;
  IO_STATUS_BLOCK io;
  OwnHandle directory;
  if (!nt::Success(Ntdll::CallOriginalNtCreateFile(
          directory.put(), GENERIC_READ | SYNCHRONIZE, &attributes, &io, nullptr, 0, nt::kShareAll, FILE_OPEN,
          FILE_DIRECTORY_FILE | FILE_SYNCHRONOUS_IO_NONALERT, nullptr, 0)))
    return STATUS_SUCCESS;
  return ReadEntries(directory.get());
}

NTSTATUS ShellDeleteToRecycleBin(std::wstring_view path) noexcept {
  if (path.empty()) return STATUS_INVALID_PARAMETER;
  ThreadState* state = GetThreadState();
  if (!state) return STATUS_NO_MEMORY;
  ScratchLevel level(state);
  wchar_t* from = ScratchPath(0, path.size() + 1);
  if (!from) return STATUS_NO_MEMORY;
  TerminatedCopy(from, path);
  if (!NtPathToDosPath(from)) return kPathNotConvertible;
  from[wcslen(from) + 1] = 0;  // the shell takes a list of paths
  SHFILEOPSTRUCTW operation = {};
  operation.wFunc = FO_DELETE;
  operation.pFrom = from;
  operation.fFlags = kShellFlags;
  const SHFileOperation function = GetSHFileOperation();
  const int result = function ? function(&operation) : kErrorInvalidFunction;
  return result <= 0 ? result : static_cast<NTSTATUS>(0xC0070000 | (result & 0xFFFF));
}

}  // namespace VornCore
