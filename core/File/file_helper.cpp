#include "File/file_helper.h"

#include <algorithm>
#include <cstring>
#include <span>

#include "File/drive_table.h"
#include "File/object_link.h"
#include "File/scratch_path.h"
#include "Platform/native.h"
#include "Policy/device_path.h"
#include "Policy/text.h"
#include "Policy/wide.h"
#include "VornCore/Base/log.h"
#include "VornCore/Base/shared_data.h"
#include "VornCore/Base/strings.h"
#include "VornCore/Hook/own_handle.h"

namespace VornCore {
namespace {

using vorn::policy::ClassifyDevicePath;
using vorn::policy::DeviceKind;
using vorn::policy::kDevicePrefix;
using vorn::policy::kDriveUnits;
using vorn::policy::kMupPrefix;
using vorn::policy::StartsWithNoCase;
using vorn::policy::U16;

const wchar_t* temp_nt_path;       // with a trailing backslash; never freed
std::wstring_view temp_directory;  // the same, counted

// format takes the path as its only argument.
void LogPath(const char* format, std::wstring_view path) {
  if (!IsDebugLogEnabled()) return;
  LogPrint(__FILE__, kLogInfo, __LINE__, "I", format, OrNull(CountedToAnsi(path)));
}

// The object name of root in slot 0, with room for extra more units. The text begins at *text.
NTSTATUS RootPath(HANDLE root, std::size_t extra, wchar_t** text, std::size_t* units) {
  ThreadState* state = GetThreadState();
  if (!state) return STATUS_NO_MEMORY;
  ULONG bytes = 4096;
  NTSTATUS status;
  for (int attempt = 0;; ++attempt) {
    auto* buffer = static_cast<wchar_t*>(
        GetScratchBuffer(state, 0, static_cast<std::uint32_t>(bytes + (extra + 1) * sizeof(wchar_t))));
    if (!buffer) return STATUS_NO_MEMORY;
    status = GetObjectName(root, buffer, &bytes);
    if (nt::Success(status)) {
      const auto* info = reinterpret_cast<const nt::ObjectNameInformation*>(buffer);
      const bool named = info->Name.Buffer != nullptr;
      *units = named ? info->Name.Length / sizeof(wchar_t) : 0;
      *text = named ? info->Name.Buffer : buffer;
      return status;
    }
    const bool too_small = status == STATUS_BUFFER_OVERFLOW || status == STATUS_BUFFER_TOO_SMALL ||
                           status == STATUS_INFO_LENGTH_MISMATCH;
    if (!too_small || attempt > 0) break;
  }
  VORN_LOG_I("GetObjectName:%X ", static_cast<unsigned>(status));
  return status;
}

// root's name, a backslash unless name names a stream of it, and name. Not yet collapsed. What is named below
// a directory of the object manager, such as that of the drive letters, leads on by links.
NTSTATUS JoinRoot(HANDLE root, std::wstring_view name, wchar_t** text, std::size_t* units) {
  const NTSTATUS status = RootPath(root, name.size() + 1, text, units);
  if (!nt::Success(status)) return status;
  if (!name.empty()) {
    if (name[0] != L':') (*text)[(*units)++] = L'\\';
    memcpy(*text + *units, name.data(), name.size() * sizeof(wchar_t));
    *units += name.size();
  }
  const std::wstring_view joined(*text, *units);
  if (StartsWithNoCase(U16(joined), kDevicePrefix)) return status;
  const auto target = TranslateSymlinksToTargetPath(joined);
  if (!target) {
    LogPath("TranslateSymlinksToTargetPath Error:%s ", name);
    return STATUS_OBJECT_PATH_SYNTAX_BAD;
  }
  *text = const_cast<wchar_t*>(target->path.data());
  *units = target->path.size();
  return status;
}

bool IsDriveLetterForm(std::wstring_view name) {
  return name.size() >= kDriveUnits && name[0] == L'\\' && name[1] == L'?' && name[2] == L'?' &&
         name[3] == L'\\' && name[5] == L':';
}

NTSTATUS FromDriveLetter(std::wstring_view name, wchar_t** text, std::size_t* units) {
  const DriveRecord* drive = GetDriveForLetter(name[4]);
  if (!drive) {
    VORN_LOG_I("GetDriveForLetter Error:%c ", static_cast<char>(name[4]));
    return STATUS_OBJECT_PATH_NOT_FOUND;
  }
  const std::wstring_view rest = name.substr(kDriveUnits);
  *text = ScratchPath(0, drive->device_path.size() + rest.size());
  if (!*text) return STATUS_NO_MEMORY;
  *units = TerminatedCopy(*text, drive->device_path, rest).size();
  return STATUS_SUCCESS;
}

NTSTATUS FromLinks(std::wstring_view name, wchar_t** text, std::size_t* units) {
  const auto target = TranslateSymlinksToTargetPath(name);
  if (!target) {
    LogPath("TranslateSymlinksToTargetPath Error:%s ", name);
    return STATUS_OBJECT_PATH_SYNTAX_BAD;
  }
  if (!target->translated && !StartsWithNoCase(U16(target->path), kMupPrefix)) {
    LogPath("TranslateSymlinksToTargetPath Test Error:%s ", target->path);
    return STATUS_OBJECT_PATH_SYNTAX_BAD;
  }
  *text = const_cast<wchar_t*>(target->path.data());
  *units = target->path.size();
  return STATUS_SUCCESS;
}

// A name without root directory. *on_drive: it lies on a drive of the table.
NTSTATUS FromAbsoluteName(std::wstring_view name, wchar_t** text, std::size_t* units, bool* on_drive) {
  if (IsDriveLetterForm(name)) {
    *on_drive = true;
    return FromDriveLetter(name, text, units);
  }
  wchar_t* copy = ScratchPath(0, name.size());
  if (!copy) return STATUS_NO_MEMORY;
  const std::wstring_view path = TerminatedCopy(copy, name);
  *on_drive = FindDriveByDevicePrefix(path) != nullptr;
  if (!*on_drive) return FromLinks(name, text, units);
  *text = copy;
  *units = path.size();
  return STATUS_SUCCESS;
}

// The long name of component (8.3) in parent, which ends with a backslash. Empty on failure.
std::wstring_view QueryLongName(std::wstring_view parent, std::wstring_view component,
                                std::span<std::byte> answer) {
  UNICODE_STRING name = nt::CountedString(parent.data(), parent.size() * sizeof(wchar_t));
  OBJECT_ATTRIBUTES attributes = nt::NamedObject(&name);
  IO_STATUS_BLOCK io;
  OwnHandle directory;
  NTSTATUS status = Ntdll::CallOriginalNtCreateFile(
      directory.put(), GENERIC_READ | SYNCHRONIZE, &attributes, &io, nullptr, 0, nt::kShareAll, FILE_OPEN,
      FILE_DIRECTORY_FILE | FILE_SYNCHRONOUS_IO_NONALERT, nullptr, 0);
  if (!nt::Success(status)) return {};
  UNICODE_STRING mask = nt::CountedString(component.data(), component.size() * sizeof(wchar_t));
  status = platform::Native().NtQueryDirectoryFile(
      directory.get(), nullptr, nullptr, nullptr, &io, answer.data(), static_cast<ULONG>(answer.size()),
      static_cast<FILE_INFORMATION_CLASS>(nt::kFileBothDirectoryInformation), TRUE, &mask, FALSE);
  const auto* entry = reinterpret_cast<const nt::BothDirectoryEntry*>(answer.data());
  constexpr std::size_t kHead = offsetof(nt::BothDirectoryEntry, FileName);
  if (!nt::Success(status) || entry->FileNameLength > answer.size() - kHead) return {};
  return {entry->FileName, entry->FileNameLength / sizeof(wchar_t)};
}

bool QueryAttributes(std::wstring_view path) {
  UNICODE_STRING name = nt::CountedString(path.data(), path.size() * sizeof(wchar_t));
  OBJECT_ATTRIBUTES attributes = nt::NamedObject(&name);
  FILE_NETWORK_OPEN_INFORMATION info;
  return nt::Success(platform::Native().NtQueryFullAttributesFile(&attributes, &info));
}

void InitTempPath() {
  wchar_t temp[260 + 1];
  const DWORD units = GetTempPathW(260, temp);
  if (units == 0 || units > 259) {
    VORN_LOG_W("InitTempPath GetTempPath :%d len:%d", static_cast<int>(GetLastError()),
               static_cast<int>(units));
    return;
  }
  if (temp[units - 1] != L'\\') {
    temp[units] = L'\\';
    temp[units + 1] = 0;
  }
  VORN_LOG_N("InitTempPath 1 %s", OrNull(WideToAnsi(temp)));
  const platform::HeapString path = DosPathToNtPath(temp);
  ThreadState* state = GetThreadState();
  if (!path || !state) return;
  // TEMP is often given by short names, files are decided by their long ones.
  ScratchLevel level(state);
  temp_nt_path = WideDup(ExpandShortNames(path.get()).data()).release();
  if (!temp_nt_path) return;
  temp_directory = temp_nt_path;
  VORN_LOG_N("InitTempPath 2 %s", OrNull(WideToAnsi(temp_nt_path)));
}

}  // namespace

bool InitFileHelper() noexcept {
  BuildDriveTable();
  InitTempPath();
  return true;
}

NTSTATUS GetObjectName(HANDLE handle, void* buffer, ULONG* bytes) noexcept {
  const ULONG room = *bytes;
  return platform::Native().NtQueryObject(handle, nt::kObjectNameInformation, buffer, room, bytes);
}

NTSTATUS GetPath(HANDLE root, const UNICODE_STRING* name, std::wstring_view* path) noexcept {
  *path = {};
  std::wstring_view given;
  if (name) given = {name->Buffer, name->Length / sizeof(wchar_t)};
  wchar_t* text = nullptr;
  std::size_t units = 0;
  bool on_drive = false;
  NTSTATUS status;
  if (root) {
    status = JoinRoot(root, given, &text, &units);
  } else if (given.empty()) {
    VORN_LOG_E("GetPath Parameter Error");
    return STATUS_INVALID_PARAMETER;
  } else {
    status = FromAbsoluteName(given, &text, &units, &on_drive);
  }
  if (!nt::Success(status)) return status;

  if (units > kMaxPathUnits) return STATUS_NAME_TOO_LONG;
  units = vorn::policy::CollapseBackslashes({vorn::policy::U16(text), units});
  text[units] = 0;
  const std::wstring_view result(text, units);
  if (!StartsWithNoCase(U16(result), kDevicePrefix)) {
    LogPath("Path Begins \\drive\\ First Check Error:%s", result);
    return STATUS_OBJECT_PATH_SYNTAX_BAD;
  }
  if (!on_drive && ClassifyDevicePath(U16(result)) != DeviceKind::kNone) {
    LogPath("Path Pipe Mail or NetDevice:%s ", result);
    return nt::kStatusNotConfined;
  }
  *path = result.find(L'~') == result.npos ? result : ExpandShortNames(result);
  return STATUS_SUCCESS;
}

NTSTATUS ResolveFileIdPath(const OBJECT_ATTRIBUTES* attributes, std::wstring_view* path) noexcept {
  *path = {};
  const UNICODE_STRING* name = attributes->ObjectName;
  std::uint32_t id[2] = {};
  if (!name || !name->Buffer || name->Length > sizeof id || name->Length % 2)
    return STATUS_OBJECT_NAME_INVALID;
  if (!attributes->RootDirectory) return STATUS_OBJECT_PATH_SYNTAX_BAD;

  const auto open = [](OBJECT_ATTRIBUTES* by_id, OwnHandle& file) {
    IO_STATUS_BLOCK io;
    return Ntdll::CallOriginalNtCreateFile(file.put(), SYNCHRONIZE | FILE_READ_ATTRIBUTES, by_id, &io,
                                           nullptr, 0, nt::kShareAll, FILE_OPEN,
                                           FILE_OPEN_BY_FILE_ID | FILE_SYNCHRONOUS_IO_NONALERT, nullptr, 0);
  };
  OwnHandle file;
  OBJECT_ATTRIBUTES by_id = *attributes;
  UNICODE_STRING id_name = *name;
  by_id.ObjectName = &id_name;
  if (!nt::Success(open(&by_id, file))) {
    memcpy(id, name->Buffer, name->Length);
    id[0] = ~id[0];
    id[1] = ~id[1];
    id_name = nt::CountedString(reinterpret_cast<wchar_t*>(id), sizeof id);
    InitializeObjectAttributes(&by_id, &id_name, OBJ_CASE_INSENSITIVE, attributes->RootDirectory, nullptr);
    if (!nt::Success(open(&by_id, file))) return STATUS_INVALID_PARAMETER;
  }
  return GetPath(file.get(), nullptr, path);
}

std::wstring_view ExpandShortNames(std::wstring_view path) noexcept {
  auto next = vorn::policy::FindShortName(U16(path), 0);
  if (!next.Found()) return path;
  // Slot 1 holds the path while it grows; a long path simply stops growing.
  wchar_t* text = ScratchPath(1, kMaxPathUnits);
  if (!text) return path;
  std::wstring_view current = TerminatedCopy(text, path);
  while (next.Found()) {
    alignas(8) std::byte answer[1024];
    const std::wstring_view component = current.substr(next.begin, next.end - next.begin);
    const std::wstring_view name = QueryLongName(current.substr(0, next.begin), component, answer);
    const std::size_t units = current.size() - component.size() + name.size();
    if (!name.empty() && units <= kMaxPathUnits) {
      memmove(text + next.begin + name.size(), text + next.end,
              (current.size() - next.end + 1) * sizeof(wchar_t));
      memcpy(text + next.begin, name.data(), name.size() * sizeof(wchar_t));
      current = {text, units};
      next.end = next.begin + name.size();
    }
    next = vorn::policy::FindShortName(U16(current), next.end);
  }
  wchar_t* result = ScratchPath(0, current.size());
  return result ? TerminatedCopy(result, current) : path;
}

bool NtPathToDosPath(wchar_t* path) noexcept {
  const std::wstring_view text(path);
  if (StartsWithNoCase(U16(text), kMupPrefix)) {
    const std::size_t server = kMupPrefix.size() - 1;  // the backslash in front of it
    memmove(path + 1, path + server, (text.size() - server + 1) * sizeof(wchar_t));
    return true;
  }
  std::size_t end = 0;
  const DriveRecord* drive = FindDriveByDevicePrefix(text);
  if (drive) {
    end = drive->device_path.size();
  } else {
    drive = FindNetworkDriveByPath(text, &end);
    if (!drive) return false;
  }
  memmove(path + 2, path + end, (text.size() - end + 1) * sizeof(wchar_t));
  path[0] = drive->letter;
  path[1] = L':';
  return true;
}

platform::HeapString DosPathToNtPath(const wchar_t* path) noexcept {
  const std::wstring_view text = path ? path : L"";
  if (text.size() < 3) return nullptr;
  std::wstring_view head;
  if (text[0] == L'\\' && text[1] == L'\\') {
    head = L"\\device\\mup\\";
  } else if (text[1] == L':' && text[2] == L'\\') {
    if (const DriveRecord* drive = GetDriveForLetter(text[0])) head = drive->device_path;
  }
  if (head.empty()) return nullptr;
  const std::wstring_view rest = text.substr(2);
  auto* block = static_cast<wchar_t*>(malloc((head.size() + rest.size() + 1) * sizeof(wchar_t)));
  if (block) TerminatedCopy(block, head, rest);
  return platform::HeapString(block);
}

std::wstring_view TempDirectory() noexcept { return temp_directory; }

bool IsTempPath(std::wstring_view path) noexcept {
  return vorn::policy::IsUnder(U16(path), U16(temp_directory));
}

bool FileExists(std::wstring_view path) noexcept { return QueryAttributes(path); }

void RemoveFile(std::wstring_view path) noexcept {
  UNICODE_STRING name = nt::CountedString(path.data(), path.size() * sizeof(wchar_t));
  OBJECT_ATTRIBUTES attributes = nt::NamedObject(&name);
  IO_STATUS_BLOCK io;
  OwnHandle file;
  if (!nt::Success(Ntdll::CallOriginalNtCreateFile(
          file.put(), DELETE | SYNCHRONIZE, &attributes, &io, nullptr, 0, nt::kShareAll, FILE_OPEN,
          FILE_OPEN_REPARSE_POINT | FILE_SYNCHRONOUS_IO_NONALERT, nullptr, 0)))
    return;
  const auto set = [&](auto information, ULONG info_class) {
    return nt::Success(Ntdll::CallOriginalNtSetInformationFile(
        file.get(), &io, &information, sizeof information, static_cast<FILE_INFORMATION_CLASS>(info_class)));
  };
  const nt::DispositionInformationEx whatever{nt::kDispositionDelete | nt::kDispositionPosix |
                                              nt::kDispositionIgnoreReadonly};
  if (!set(whatever, nt::kFileDispositionInformationEx))
    (void)set(BOOLEAN{TRUE}, nt::kFileDispositionInformation);
}

bool IsFileSystemPath(std::wstring_view path) noexcept {
  if (QueryAttributes(path)) return true;
  const std::size_t last = vorn::policy::FindLastComponent(U16(path));
  constexpr std::size_t kMinParentUnits = 9;  // longer than \Device\ alone.
  return last != vorn::policy::kNotFound && last >= kMinParentUnits && QueryAttributes(path.substr(0, last));
}

}  // namespace VornCore
