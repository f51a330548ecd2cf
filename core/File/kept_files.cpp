#include "File/kept_files.h"

#include <atomic>
#include <cstdio>

#include "File/file_helper.h"
#include "File/file_link_helper.h"
#include "File/scratch_path.h"
#include "Platform/local_time.h"
#include "Platform/native.h"
#include "Policy/kept_file.h"
#include "Policy/text.h"
#include "Policy/wide.h"
#include "VornCore/Base/log.h"
#include "VornCore/Base/shared_data.h"
#include "VornCore/Base/strings.h"
#include "VornCore/Hook/own_handle.h"
#include "windows/file_time.h"

namespace VornCore {
namespace {

using vorn::policy::KeepFormat;
using vorn::policy::KeptPart;
using vorn::policy::KeptTail;
using vorn::policy::U16;

constexpr std::size_t kMaxNameUnits = 1024;  // of a place and a name in it
constexpr int kMaxTries = 16;                // numbers that another process of the same id has used
constexpr ULONG kCopyBytes = 1u << 16;

std::atomic<std::uint32_t> last_number;

// The folder of the trash, of which there is one, in the spelling in which the system finds names there
// fastest.
std::u16string_view SpelledFolder(std::u16string_view folder) noexcept {
  static std::atomic<const wchar_t*> spelled;
  if (GetSection().FormatOfKept() != KeepFormat::kTrash) return folder;
  if (const wchar_t* known = spelled.load()) return U16(std::wstring_view(known));
  wchar_t dos_path[kMaxNameUnits], exact[kMaxNameUnits];
  if (folder.size() >= kMaxNameUnits) return folder;
  TerminatedCopy(dos_path, vorn::policy::W(folder));
  const std::size_t units =
      NtPathToDosPath(dos_path) ? platform::Native().ExactFolder(dos_path, exact, kMaxNameUnits - 1) : 0;
  if (!units) return folder;
  exact[units] = 0;
  platform::HeapString made = WideDup(exact);
  const wchar_t* none = nullptr;
  if (!made || !spelled.compare_exchange_strong(none, made.get())) return folder;
  return U16(std::wstring_view(made.release()));
}

// The file itself and its index, under one number.
struct KeptNames {
  char16_t file[kMaxNameUnits], index[kMaxNameUnits];
  std::size_t file_units = 0, index_units = 0;

  KeptNames(std::wstring_view path, std::uint32_t number) noexcept {
    const auto& section = GetSection();
    const std::u16string_view place = section.KeepFolderOf(U16(path)).text;
    if (place.empty()) return;
    const std::u16string_view folder = SpelledFolder(place);
    const KeptTail tail{section.RunName().text, GetCurrentProcessId(), number,
                        vorn::policy::ExtensionToKeep(U16(path))};
    file_units = BuildKeptName(section.FormatOfKept(), KeptPart::kFile, folder, tail, file);
    index_units = BuildKeptName(section.FormatOfKept(), KeptPart::kIndex, folder, tail, index);
  }
  explicit operator bool() const noexcept { return file_units && index_units; }
  std::wstring_view File() const noexcept { return vorn::policy::W({file, file_units}); }
  std::wstring_view Index() const noexcept { return vorn::policy::W({index, index_units}); }
};

NTSTATUS Open(std::wstring_view path, ACCESS_MASK access, ULONG disposition, ULONG options, OwnHandle& handle,
              HANDLE root = nullptr) noexcept {
  UNICODE_STRING name = nt::CountedString(path.data(), path.size() * sizeof(wchar_t));
  OBJECT_ATTRIBUTES attributes = nt::NamedObject(&name);
  attributes.RootDirectory = root;
  IO_STATUS_BLOCK io;
  return Ntdll::CallOriginalNtCreateFile(handle.put(), access | SYNCHRONIZE, &attributes, &io, nullptr,
                                         FILE_ATTRIBUTE_NORMAL, nt::kShareAll, disposition,
                                         options | FILE_SYNCHRONOUS_IO_NONALERT, nullptr, 0);
}

NTSTATUS Write(HANDLE file, const void* data, ULONG bytes) noexcept {
  IO_STATUS_BLOCK io;
  return Ntdll::CallOriginalNtWriteFile(file, nullptr, nullptr, nullptr, &io, const_cast<void*>(data), bytes,
                                        nullptr, nullptr);
}

template <class Information>
NTSTATUS Set(HANDLE file, const Information& information, ULONG bytes, ULONG info_class) noexcept {
  IO_STATUS_BLOCK io;
  return Ntdll::CallOriginalNtSetInformationFile(file, &io, const_cast<Information*>(&information), bytes,
                                                 static_cast<FILE_INFORMATION_CLASS>(info_class));
}

std::size_t TrashIndex(wchar_t* dos_path, std::span<std::byte> out) noexcept {
  char unix_path[4096];
  const std::size_t bytes = platform::Native().UnixPath(dos_path, unix_path, sizeof unix_path);
  if (!bytes) return 0;
  const SYSTEMTIME now = platform::LocalTime();
  char time[32];
  const int units = _snprintf(time, sizeof time, "%04u-%02u-%02uT%02u:%02u:%02u", now.wYear, now.wMonth,
                              now.wDay, now.wHour, now.wMinute, now.wSecond);
  return units > 0
             ? vorn::policy::BuildTrashIndex({unix_path, bytes}, {time, static_cast<std::size_t>(units)}, out)
             : 0;
}

// Where the file at path came from, in out: the length, 0 when it cannot be told.
std::size_t BuildIndex(std::wstring_view path, std::uint64_t size, std::span<std::byte> out) noexcept {
  wchar_t* dos_path = ScratchPath(0, path.size());
  if (!dos_path) return 0;
  TerminatedCopy(dos_path, path);
  if (!NtPathToDosPath(dos_path)) return 0;
  if (GetSection().FormatOfKept() == KeepFormat::kTrash) return TrashIndex(dos_path, out);
  FILETIME now;
  GetSystemTimeAsFileTime(&now);
  return vorn::policy::BuildRecycleIndex(U16(std::wstring_view(dos_path)), size, vorn::windows::TicksOf(now),
                                         out);
}

NTSTATUS WriteIndex(std::wstring_view name, std::span<const std::byte> index) noexcept {
  OwnHandle file;
  const NTSTATUS status = Open(name, FILE_WRITE_DATA | DELETE, FILE_CREATE, FILE_NON_DIRECTORY_FILE, file);
  return nt::Success(status) ? Write(file.get(), index.data(), static_cast<ULONG>(index.size())) : status;
}

NTSTATUS Link(HANDLE file, std::wstring_view name) noexcept {
  struct {
    nt::RenameInformation head;
    wchar_t room[kMaxNameUnits];
  } link = {};
  link.head.FileNameLength = static_cast<ULONG>(name.size() * sizeof(wchar_t));
  memcpy(link.head.FileName, name.data(), link.head.FileNameLength);
  return Set(file, link,
             offsetof(nt::RenameInformation, FileName) + link.head.FileNameLength + sizeof(wchar_t),
             nt::kFileLinkInformation);
}

NTSTATUS Copy(HANDLE file, std::wstring_view name) noexcept {
  OwnHandle source, copy;
  NTSTATUS status = Open({}, FILE_READ_DATA, FILE_OPEN, 0, source, file);
  if (nt::Success(status))
    status = Open(name, FILE_WRITE_DATA | DELETE, FILE_CREATE, FILE_NON_DIRECTORY_FILE, copy);
  void* page = nt::Success(status) ? ScratchPath(1, kCopyBytes / sizeof(wchar_t) - 1) : nullptr;
  if (!page) return nt::Success(status) ? STATUS_NO_MEMORY : status;
  for (;;) {
    IO_STATUS_BLOCK io;
    status = platform::Native().NtReadFile(source.get(), nullptr, nullptr, nullptr, &io, page, kCopyBytes,
                                           nullptr, nullptr);
    if (status == STATUS_END_OF_FILE) return STATUS_SUCCESS;
    if (nt::Success(status)) status = Write(copy.get(), page, static_cast<ULONG>(io.Information));
    if (!nt::Success(status)) return status;
  }
}

NTSTATUS MakeFolder(std::wstring_view name) noexcept {
  OwnHandle folder;
  return Open(name, FILE_LIST_DIRECTORY, FILE_CREATE, FILE_DIRECTORY_FILE, folder);
}

// Where the file really lies, whichever links led to it: who puts it back follows none. In scratch slot 1.
std::wstring_view FinalPath(HANDLE file, std::wstring_view path) noexcept {
  wchar_t* buffer = file ? ScratchPath(1, kMaxPathUnits) : nullptr;
  const DWORD units =
      buffer ? platform::Native().GetFinalPathNameByHandleW(file, buffer, kMaxPathUnits, VOLUME_NAME_NT) : 0;
  if (!units || units >= kMaxPathUnits) return path;
  const std::wstring_view final(buffer, units);
  const bool told = vorn::policy::EqualsNoCase(U16(final), U16(path)) || IsPathOf(file, final);
  return told ? final : path;
}

// Index, then what store makes under the kept name. file: null for a folder.
template <class Store>
std::uint32_t Keep(HANDLE file, std::wstring_view path, std::uint64_t size, Store&& store) noexcept {
  ThreadState* state = GetThreadState();
  if (!state) return 0;
  const ScratchLevel level(state);
  auto* buffer = static_cast<std::byte*>(static_cast<void*>(ScratchPath(2, kMaxPathUnits)));
  const std::size_t bytes =
      buffer ? BuildIndex(FinalPath(file, path), size, {buffer, kMaxPathUnits * sizeof(wchar_t)}) : 0;
  NTSTATUS status = STATUS_NO_MEMORY;
  for (int tries = 0; bytes && tries < kMaxTries; ++tries) {
    const std::uint32_t number = ++last_number;
    const KeptNames names(path, number);
    if (!names) break;
    status = WriteIndex(names.Index(), {buffer, bytes});
    if (status == STATUS_OBJECT_NAME_COLLISION) continue;
    if (nt::Success(status)) status = store(names.File());
    if (nt::Success(status)) return number;
    RemoveFile(names.File());
    RemoveFile(names.Index());
    break;
  }
  VORN_LOG_W("KeepFile status:%X, path:%s", static_cast<unsigned>(status), OrNil(WideToAnsi(path.data())));
  return 0;
}

}  // namespace

bool CanKeep(std::wstring_view path) noexcept {
  const auto& section = GetSection();
  return section.Has(vorn::policy::SectionOption::kKeepByLink) &&
         section.FormatOfKept() != KeepFormat::kNone && section.KeepFolderOf(U16(path)).Present();
}

std::uint32_t KeepFile(HANDLE file, std::wstring_view path) noexcept {
  FILE_STANDARD_INFO info;
  if (!platform::Native().GetFileInformationByHandleEx(file, FileStandardInfo, &info, sizeof info) ||
      info.Directory)
    return 0;
  return Keep(file, path, static_cast<std::uint64_t>(info.EndOfFile.QuadPart), [&](std::wstring_view name) {
    const NTSTATUS status = Link(file, name);
    return nt::Success(status) ? status : Copy(file, name);
  });
}

std::uint32_t KeepFolder(std::wstring_view path) noexcept {
  return Keep(nullptr, path, 0, [](std::wstring_view name) { return MakeFolder(name); });
}

void TakeBackKept(std::wstring_view path, std::uint32_t number) noexcept {
  if (!number) return;
  const KeptNames names(path, number);
  if (!names) return;
  RemoveFile(names.File());
  RemoveFile(names.Index());
}

}  // namespace VornCore
