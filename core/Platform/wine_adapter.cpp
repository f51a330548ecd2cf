#include "Platform/wine_adapter.h"

#include <cstdlib>
#include <cstring>
#include <string_view>

#include "Platform/guard.h"
#include "Platform/last_error.h"
#include "Platform/wine_addr_info.h"
#include "Platform/wine_link_names.h"
#include "Platform/wine_nested_calls.h"
#include "Platform/wine_paths.h"

namespace VornCore::platform::wine {
namespace {

// ---- Entries of the native table

// Turns the name in an ObjectNameInformation answer of `bytes` room into the device path. The text follows
// the structure, as NtQueryObject puts it.
NTSTATUS RespellName(UNICODE_STRING* name, ULONG bytes, ULONG* returned) {
  if (!name->Buffer) return STATUS_SUCCESS;
  const auto room =
      bytes - static_cast<ULONG>(reinterpret_cast<char*>(name->Buffer) - reinterpret_cast<char*>(name));
  const std::size_t capacity = room / sizeof(wchar_t) - 1;
  const std::size_t units = ToDevicePath(name->Buffer, name->Length / sizeof(wchar_t), capacity);
  if (returned) *returned = static_cast<ULONG>(sizeof(*name) + (units + 1) * sizeof(wchar_t));
  if (units > capacity) return STATUS_BUFFER_OVERFLOW;
  *name = nt::CountedString(name->Buffer, units * sizeof(wchar_t));
  name->MaximumLength = static_cast<USHORT>(name->Length + sizeof(wchar_t));
  name->Buffer[units] = 0;
  return STATUS_SUCCESS;
}

// A device path is longer than Wine's spelling of it by at most this much.
constexpr ULONG kLongerByBytes = 64;

// What a query for a name answers, on Windows; needed in and out.
NTSTATUS RespellAnswer(NTSTATUS status, PVOID info, ULONG bytes, ULONG* needed) {
  if (nt::Success(status)) return RespellName(static_cast<UNICODE_STRING*>(info), bytes, needed);
  if (*needed) *needed += kLongerByBytes;
  return status;
}

NTSTATUS NTAPI QueryObject(HANDLE handle, OBJECT_INFORMATION_CLASS info_class, PVOID info, ULONG bytes,
                           PULONG returned) {
  ULONG needed = 0;
  NTSTATUS status = ::NtQueryObject(handle, info_class, info, bytes, &needed);
  if (info_class == nt::kObjectNameInformation) status = RespellAnswer(status, info, bytes, &needed);
  if (returned) *returned = needed;
  return status;
}

NTSTATUS NTAPI QueryInformationProcess(HANDLE process, PROCESSINFOCLASS info_class, PVOID info, ULONG bytes,
                                       PULONG returned) {
  ULONG needed = 0;
  NTSTATUS status = ::NtQueryInformationProcess(process, info_class, info, bytes, &needed);
  if (info_class == nt::kProcessImageFileName) {
    status = RespellAnswer(status, info, bytes, &needed);
    if (status == STATUS_BUFFER_OVERFLOW) status = STATUS_INFO_LENGTH_MISMATCH;
  }
  if (returned) *returned = needed;
  return status;
}

NTSTATUS NTAPI QueryFullAttributesFile(POBJECT_ATTRIBUTES attributes, PFILE_NETWORK_OPEN_INFORMATION info) {
  WineName name(attributes);
  return ::NtQueryFullAttributesFile(name.attributes(), info);
}

// Wine asks the server several times for a path with a volume name; the name of the object says the same.
DWORD WINAPI GetFinalPathNameByHandle(HANDLE file, LPWSTR path, DWORD units, DWORD flags) {
  if (flags != VOLUME_NAME_NT || units * sizeof(wchar_t) <= sizeof(UNICODE_STRING) + kLongerByBytes)
    return ::GetFinalPathNameByHandleW(file, path, units, flags);
  auto* name = reinterpret_cast<UNICODE_STRING*>(path);
  ULONG needed = 0;
  const NTSTATUS status = QueryObject(file, nt::kObjectNameInformation, name,
                                      static_cast<ULONG>(units * sizeof(wchar_t)), &needed);
  if (!nt::Success(status)) {
    SetLastError(RtlNtStatusToDosError(status));
    return needed ? needed / sizeof(wchar_t) : 0;
  }
  if (!name->Buffer) {
    SetLastError(ERROR_INVALID_HANDLE);
    return 0;
  }
  const DWORD length = name->Length / sizeof(wchar_t);
  memmove(path, name->Buffer, length * sizeof(wchar_t));
  path[length] = 0;
  return length;
}

// ---- Bridges around intercepted functions

decltype(&::NtCreateFile) real_NtCreateFile;
decltype(&::NtOpenFile) real_NtOpenFile;
decltype(&::NtSetInformationFile) real_NtSetInformationFile;

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

constexpr auto kInfoClass = [](ULONG number) { return static_cast<FILE_INFORMATION_CLASS>(number); };

NTSTATUS Answer(PIO_STATUS_BLOCK io, NTSTATUS status) {
  if (io) {
    io->Status = status;
    io->Information = 0;
  }
  return status;
}

// Classes 10 and 65. Wine believes the name length of the caller, and knows class 10 only.
NTSTATUS Rename(HANDLE file, PIO_STATUS_BLOCK io, const nt::RenameInformation* info, ULONG bytes,
                bool extended) {
  constexpr ULONG kHead = offsetof(nt::RenameInformation, FileName);
  ULONG name_bytes = 0;
  bool replace = false;
  HANDLE root = nullptr;
  if (bytes < sizeof(nt::RenameInformation)) return Answer(io, STATUS_INVALID_PARAMETER);
  DWORD code;
  const bool readable = Guarded(
      [&] {
        name_bytes = info->FileNameLength;
        root = info->RootDirectory;
        replace = extended ? (info->Flags & nt::kRenameReplaceIfExists) != 0 : info->ReplaceIfExists != 0;
      },
      &code);
  if (!readable) return static_cast<NTSTATUS>(code);
  if (name_bytes == 0 || name_bytes % 2 || name_bytes > bytes - kHead)
    return Answer(io, STATUS_INVALID_PARAMETER);

  const WineName target(root ? std::wstring_view()
                             : std::wstring_view(info->FileName, name_bytes / sizeof(wchar_t)));
  const std::wstring_view name =
      target.changed() ? target.text() : std::wstring_view(info->FileName, name_bytes / sizeof(wchar_t));
  if (!target.changed() && !extended)
    return real_NtSetInformationFile(file, io, const_cast<nt::RenameInformation*>(info), bytes,
                                     kInfoClass(nt::kFileRenameInformation));
  const ULONG size = static_cast<ULONG>(sizeof(nt::RenameInformation) + name.size() * sizeof(wchar_t));
  auto* copy = static_cast<nt::RenameInformation*>(calloc(1, size));
  if (!copy) return Answer(io, STATUS_NO_MEMORY);
  copy->ReplaceIfExists = replace;
  copy->RootDirectory = root;
  copy->FileNameLength = static_cast<ULONG>(name.size() * sizeof(wchar_t));
  memcpy(copy->FileName, name.data(), name.size() * sizeof(wchar_t));
  const NTSTATUS status =
      real_NtSetInformationFile(file, io, copy, size, kInfoClass(nt::kFileRenameInformation));
  free(copy);
  return status;
}

NTSTATUS NTAPI SetInformationFileBridge(HANDLE file, PIO_STATUS_BLOCK io, PVOID info, ULONG bytes,
                                        FILE_INFORMATION_CLASS info_class) {
  const ULONG number = info_class;
  if (info && (number == nt::kFileRenameInformation || number == nt::kFileRenameInformationEx)) {
    NTSTATUS status = STATUS_ACCESS_VIOLATION;
    DWORD code;
    if (!Guarded(
            [&] {
              status = Rename(file, io, static_cast<const nt::RenameInformation*>(info), bytes,
                              number == nt::kFileRenameInformationEx);
            },
            &code))
      status = static_cast<NTSTATUS>(code);
    return status;
  }
  if (info && number == nt::kFileDispositionInformationEx) {
    if (bytes < sizeof(nt::DispositionInformationEx)) return Answer(io, STATUS_INFO_LENGTH_MISMATCH);
    BOOLEAN remove = FALSE;
    DWORD code;
    if (!Guarded(
            [&] {
              remove = static_cast<nt::DispositionInformationEx*>(info)->Flags & nt::kDispositionDelete;
            },
            &code))
      return static_cast<NTSTATUS>(code);
    return real_NtSetInformationFile(file, io, &remove, sizeof remove,
                                     kInfoClass(nt::kFileDispositionInformation));
  }
  return real_NtSetInformationFile(file, io, info, bytes, info_class);
}

// Wine's KernelBase has no MoveFileWithProgressTransactedW; what it would do runs in MoveFileWithProgressW,
// which takes no transaction.
constexpr std::string_view kMoveTransacted = "MoveFileWithProgressTransactedW";
constexpr std::string_view kGetAddrInfo = "GetAddrInfoW";
using MoveTransacted = BOOL(WINAPI*)(LPCWSTR, LPCWSTR, LPPROGRESS_ROUTINE, LPVOID, DWORD, HANDLE);
using Move = BOOL(WINAPI*)(LPCWSTR, LPCWSTR, LPPROGRESS_ROUTINE, LPVOID, DWORD);
Move real_Move;
MoveTransacted move_dispatcher;

BOOL WINAPI MoveBridge(LPCWSTR from, LPCWSTR to, LPPROGRESS_ROUTINE progress, LPVOID data, DWORD flags,
                       HANDLE) {
  return real_Move(from, to, progress, data, flags);
}

BOOL WINAPI MoveDispatcher(LPCWSTR from, LPCWSTR to, LPPROGRESS_ROUTINE progress, LPVOID data, DWORD flags) {
  return move_dispatcher(from, to, progress, data, flags, nullptr);
}

bool HasTransactedMove() {
  return GetProcAddress(GetModuleHandleW(L"KernelBase.dll"), kMoveTransacted.data()) != nullptr;
}

// Some versions export functions that do nothing but say so: the answer decides, not the export.
bool CanListLinks(decltype(&::FindFirstFileNameW) find_first) {
  if (!find_first) return false;
  const LastErrorKeeper keep;
  DWORD error = NO_ERROR, units = 0, code;
  return Guarded(
             [&] {
               wchar_t name[1];
               const HANDLE find = find_first(L"", 0, &units, name);
               if (find == INVALID_HANDLE_VALUE) error = GetLastError();
             },
             &code) &&
         error != ERROR_CALL_NOT_IMPLEMENTED;
}

template <class Function>
void* Bridge(Function& real, Function bridge, void* original) {
  real = reinterpret_cast<Function>(original);
  return reinterpret_cast<void*>(bridge);
}

}  // namespace

void Adapt(NativeApi& api) noexcept {
  api.NtQueryObject = &QueryObject;
  api.NtQueryInformationProcess = &QueryInformationProcess;
  api.GetLogicalDrives = &LogicalDrives;
  api.NtQueryFullAttributesFile = &QueryFullAttributesFile;
  api.GetFinalPathNameByHandleW = &GetFinalPathNameByHandle;
  api.AliasTarget = &AliasTarget;
  if (!CanListLinks(api.FindFirstFileNameW)) {
    api.FindFirstFileNameW = &FindFirstLinkName;
    api.FindNextFileNameW = &FindNextLinkName;
    api.FindClose = &CloseLinkNames;
  }
}

void* FindSubstitute(HMODULE module, const char* name) noexcept {
  const std::string_view api(name);
  if (api == kGetAddrInfo) return AddrInfoTarget(module);
  if (api == kMoveTransacted && !HasTransactedMove())
    return reinterpret_cast<void*>(GetProcAddress(module, "MoveFileWithProgressW"));
  return nullptr;
}

void* BridgeOriginal(const char* name, void* original) noexcept {
  const std::string_view api(name);
  if (api == "NtCreateFile") return Bridge(real_NtCreateFile, &CreateFileBridge, original);
  if (api == "NtOpenFile") return Bridge(real_NtOpenFile, &OpenFileBridge, original);
  if (api == "NtSetInformationFile")
    return Bridge(real_NtSetInformationFile, &SetInformationFileBridge, original);
  if (api == kMoveTransacted && !HasTransactedMove()) {
    real_Move = reinterpret_cast<Move>(original);
    return reinterpret_cast<void*>(&MoveBridge);
  }
  if (api == kGetAddrInfo) return AddrInfoOriginal(original);
  return MarkNestedCall(name, original);
}

void* BridgeDispatcher(const char* name, void* dispatcher) noexcept {
  const std::string_view api(name);
  if (api == kGetAddrInfo) return AddrInfoDispatcher(dispatcher);
  if (api != kMoveTransacted || HasTransactedMove()) return PassNestedCall(name, dispatcher);
  move_dispatcher = reinterpret_cast<MoveTransacted>(dispatcher);
  return reinterpret_cast<void*>(&MoveDispatcher);
}

}  // namespace VornCore::platform::wine
