#include "Platform/wine_adapter.h"

#include <algorithm>
#include <cstring>
#include <string>

#include "Platform/wine_asking.h"
#include "Platform/wine_link_names.h"
#include "Platform/wine_paths.h"

namespace VornCore::platform::wine {
namespace {

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

constexpr UINT kUnixCodePage = 65010;

// The last component is converted by itself: Wine's conversion would drop a dot at its end.
std::size_t UnixPath(const wchar_t* path, char* out, std::size_t bytes) {
  using Convert = char*(CDECL*)(LPCWSTR);
  static const auto convert =
      reinterpret_cast<Convert>(GetProcAddress(GetModuleHandleW(L"kernel32.dll"), "wine_get_unix_file_name"));
  const wchar_t* name = wcsrchr(path, L'\\');
  char* folder = convert && name ? convert(std::wstring(path, name + 1).c_str()) : nullptr;
  if (!folder) return 0;
  std::size_t length = strlen(folder);
  if (length < bytes) {
    std::copy_n(folder, length, out);
    if (out[length - 1] != '/') out[length++] = '/';
    const int name_bytes = WideCharToMultiByte(kUnixCodePage, 0, name + 1, -1, out + length,
                                               static_cast<int>(bytes - length), nullptr, nullptr);
    length = name_bytes > 0 ? length + static_cast<std::size_t>(name_bytes) - 1 : 0;
  }
  HeapFree(GetProcessHeap(), 0, folder);
  return length < bytes ? length : 0;
}

// Names of the Unix side are exact; any other is compared with every name in its folder.
std::size_t ExactFolder(const wchar_t* path, wchar_t* out, std::size_t units) {
  constexpr std::wstring_view kUnixRoot = L"\\??\\unix";
  char unix_path[4096];
  const std::size_t bytes = UnixPath(path, unix_path, sizeof unix_path);
  if (!bytes || units < kUnixRoot.size()) return 0;
  std::copy_n(kUnixRoot.data(), kUnixRoot.size(), out);
  wchar_t* const rest = out + kUnixRoot.size();
  const int length = MultiByteToWideChar(kUnixCodePage, 0, unix_path, static_cast<int>(bytes), rest,
                                         static_cast<int>(units - kUnixRoot.size()));
  if (length <= 0) return 0;
  std::replace(rest, rest + length, L'/', L'\\');
  return kUnixRoot.size() + static_cast<std::size_t>(length);
}

// Whether the system lists the names of a file; asked for those of none.
bool ListsLinkNames(const NativeApi& api) {
  return api.FindFirstFileNameW && DoesItsWork([&] {
           DWORD units = 0;
           api.FindFirstFileNameW(L"", 0, &units, nullptr);
         });
}

}  // namespace

void Adapt(NativeApi& api) noexcept {
  api.NtQueryObject = &QueryObject;
  api.NtQueryInformationProcess = &QueryInformationProcess;
  api.GetLogicalDrives = &LogicalDrives;
  api.NtQueryFullAttributesFile = &QueryFullAttributesFile;
  api.GetFinalPathNameByHandleW = &GetFinalPathNameByHandle;
  api.AliasTarget = &AliasTarget;
  api.paths_can_be_wrong = true;
  api.listings_hide_links = true;
  api.UnixPath = &UnixPath;
  api.ExactFolder = &ExactFolder;
  api.starts_foreign_programs = true;
  if (!ListsLinkNames(api)) {
    api.FindFirstFileNameW = &FindFirstLinkName;
    api.FindNextFileNameW = &FindNextLinkName;
    api.FindClose = &CloseLinkNames;
  }
}

}  // namespace VornCore::platform::wine
