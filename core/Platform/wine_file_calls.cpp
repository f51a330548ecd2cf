#include "Platform/wine_file_calls.h"

#include <cstdlib>
#include <cstring>
#include <string_view>

#include "Platform/wine_asking.h"
#include "Platform/wine_paths.h"

namespace VornCore::platform::wine {
namespace {

decltype(&::NtCreateFile) real_NtCreateFile;
decltype(&::NtOpenFile) real_NtOpenFile;
decltype(&::NtSetInformationFile) real_NtSetInformationFile;

template <class Function>
void* Bridge(Function& real, Function bridge, void* original) {
  real = reinterpret_cast<Function>(original);
  return reinterpret_cast<void*>(bridge);
}

NTSTATUS NTAPI CreateFileBridge(PHANDLE file, ACCESS_MASK access, POBJECT_ATTRIBUTES attributes,
                                PIO_STATUS_BLOCK io, PLARGE_INTEGER allocation, ULONG file_attributes,
                                ULONG share, ULONG disposition, ULONG options, PVOID ea, ULONG ea_length) {
  WineName name(attributes);
  return real_NtCreateFile(file, access, name.attributes(), io, allocation, file_attributes, share,
                           disposition, options, ea, ea_length);
}

NTSTATUS NTAPI OpenFileBridge(PHANDLE file, ACCESS_MASK access, POBJECT_ATTRIBUTES attributes,
                              PIO_STATUS_BLOCK io, ULONG share, ULONG options) {
  WineName name(attributes);
  return real_NtOpenFile(file, access, name.attributes(), io, share, options);
}

// ---- NtSetInformationFile

// Which of the newer classes the system knows; asked for no file.
bool knows_extended_rename, knows_extended_disposition;

NTSTATUS SetInformation(HANDLE file, PIO_STATUS_BLOCK io, const void* info, ULONG bytes, ULONG info_class) {
  return real_NtSetInformationFile(file, io, const_cast<void*>(info), bytes,
                                   static_cast<FILE_INFORMATION_CLASS>(info_class));
}

template <class Information>
bool Knows(ULONG info_class) {
  IO_STATUS_BLOCK io = {};
  const Information nothing = {};
  const NTSTATUS status = SetInformation(nullptr, &io, &nothing, sizeof nothing, info_class);
  return status != STATUS_NOT_IMPLEMENTED && status != STATUS_INVALID_INFO_CLASS;
}

NTSTATUS SetIoStatus(PIO_STATUS_BLOCK io, NTSTATUS status) {
  if (io) {
    io->Status = status;
    io->Information = 0;
  }
  return status;
}

// Wine believes the name length of the caller.
NTSTATUS Rename(HANDLE file, PIO_STATUS_BLOCK io, const nt::RenameInformation* info, ULONG bytes,
                ULONG info_class) {
  constexpr ULONG kHead = offsetof(nt::RenameInformation, FileName);
  if (bytes < sizeof(nt::RenameInformation)) return SetIoStatus(io, STATUS_INVALID_PARAMETER);
  const ULONG name_bytes = info->FileNameLength;
  if (name_bytes == 0 || name_bytes % 2 || name_bytes > bytes - kHead)
    return SetIoStatus(io, STATUS_INVALID_PARAMETER);
  const bool lower = info_class == nt::kFileRenameInformationEx && !knows_extended_rename;

  std::wstring_view name(info->FileName, name_bytes / sizeof(wchar_t));
  const WineName target(info->RootDirectory ? std::wstring_view() : name);
  if (!target.changed() && !lower) return SetInformation(file, io, info, bytes, info_class);
  if (target.changed()) name = target.text();
  const ULONG size = static_cast<ULONG>(sizeof(nt::RenameInformation) + name.size() * sizeof(wchar_t));
  auto* copy = static_cast<nt::RenameInformation*>(calloc(1, size));
  if (!copy) return SetIoStatus(io, STATUS_NO_MEMORY);
  if (lower)
    copy->ReplaceIfExists = (info->Flags & nt::kRenameReplaceIfExists) != 0;
  else
    copy->Flags = info->Flags;
  copy->RootDirectory = info->RootDirectory;
  copy->FileNameLength = static_cast<ULONG>(name.size() * sizeof(wchar_t));
  memcpy(copy->FileName, name.data(), name.size() * sizeof(wchar_t));
  const NTSTATUS status =
      SetInformation(file, io, copy, size, lower ? nt::kFileRenameInformation : info_class);
  free(copy);
  return status;
}

NTSTATUS LowerDisposition(HANDLE file, PIO_STATUS_BLOCK io, const nt::DispositionInformationEx* info,
                          ULONG bytes) {
  if (bytes < sizeof *info) return SetIoStatus(io, STATUS_INFO_LENGTH_MISMATCH);
  const BOOLEAN remove = info->Flags & nt::kDispositionDelete;
  return SetInformation(file, io, &remove, sizeof remove, nt::kFileDispositionInformation);
}

NTSTATUS NTAPI SetInformationFileBridge(HANDLE file, PIO_STATUS_BLOCK io, PVOID info, ULONG bytes,
                                        FILE_INFORMATION_CLASS info_class) {
  const ULONG number = info_class;
  const bool rename = number == nt::kFileRenameInformation || number == nt::kFileRenameInformationEx;
  const bool lower = number == nt::kFileDispositionInformationEx && !knows_extended_disposition;
  if (!info || !(rename || lower)) return SetInformation(file, io, info, bytes, number);
  NTSTATUS status = STATUS_ACCESS_VIOLATION;
  DWORD code;
  const bool readable = Guarded(
      [&] {
        status = rename ? Rename(file, io, static_cast<const nt::RenameInformation*>(info), bytes, number)
                        : LowerDisposition(file, io, static_cast<nt::DispositionInformationEx*>(info), bytes);
      },
      &code);
  return readable ? status : static_cast<NTSTATUS>(code);
}

// ---- MoveFileWithProgressTransactedW: what it would do runs in MoveFileWithProgressW, without a
// transaction.

using MoveTransacted = BOOL(WINAPI*)(LPCWSTR, LPCWSTR, LPPROGRESS_ROUTINE, LPVOID, DWORD, HANDLE);
using Move = BOOL(WINAPI*)(LPCWSTR, LPCWSTR, LPPROGRESS_ROUTINE, LPVOID, DWORD);
Move real_Move;
MoveTransacted move_dispatcher;

BOOL WINAPI MoveBridge(LPCWSTR from, LPCWSTR to, LPPROGRESS_ROUTINE progress, LPVOID data, DWORD flags,
                       HANDLE) {
  return real_Move(from, to, progress, data, flags);
}

BOOL WINAPI MoveDispatch(LPCWSTR from, LPCWSTR to, LPPROGRESS_ROUTINE progress, LPVOID data, DWORD flags) {
  return move_dispatcher(from, to, progress, data, flags, nullptr);
}

}  // namespace

void* CreateFileOriginal(void* original) { return Bridge(real_NtCreateFile, &CreateFileBridge, original); }

void* OpenFileOriginal(void* original) { return Bridge(real_NtOpenFile, &OpenFileBridge, original); }

void* SetInformationFileOriginal(void* original) {
  void* const bridge = Bridge(real_NtSetInformationFile, &SetInformationFileBridge, original);
  knows_extended_rename = Knows<nt::RenameInformation>(nt::kFileRenameInformationEx);
  knows_extended_disposition = Knows<nt::DispositionInformationEx>(nt::kFileDispositionInformationEx);
  return bridge;
}

void* MoveOriginal(void* original) {
  real_Move = reinterpret_cast<Move>(original);
  return reinterpret_cast<void*>(&MoveBridge);
}

void* MoveDispatcher(void* dispatcher) {
  move_dispatcher = reinterpret_cast<MoveTransacted>(dispatcher);
  return reinterpret_cast<void*>(&MoveDispatch);
}

bool LacksTransactedMove() {
  static const bool lacks = [] {
    const auto move = reinterpret_cast<MoveTransacted>(
        GetProcAddress(GetModuleHandleW(L"KernelBase.dll"), "MoveFileWithProgressTransactedW"));
    return !move || !DoesItsWork([&] { move(nullptr, nullptr, nullptr, nullptr, 0, nullptr); });
  }();
  return lacks;
}

}  // namespace VornCore::platform::wine
