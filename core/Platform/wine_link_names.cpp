#include "Platform/wine_link_names.h"

#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "Platform/wine_paths.h"
#include "Policy/device_path.h"
#include "Policy/text.h"
#include "Policy/wide.h"
#include "windows/unique_handle.h"

namespace VornCore::platform::wine {
namespace {

using vorn::policy::EqualsNoCase;
using vorn::policy::kDriveUnits;
using vorn::policy::U16;
using vorn::policy::W;
using vorn::windows::UniqueHandle;

constexpr std::size_t kMaxEntries = 20000;  // directory entries looked at for one file
constexpr ULONGLONG kMaxMilliseconds = 1000;
constexpr std::size_t kPageBytes = 16384;  // one directory query
constexpr std::size_t kMaxNameUnits = 32767;

constexpr auto kFileIdBothDirectoryInformation = static_cast<FILE_INFORMATION_CLASS>(37);
struct IdEntry {
  ULONG NextEntryOffset, FileIndex;
  LARGE_INTEGER CreationTime, LastAccessTime, LastWriteTime, ChangeTime, EndOfFile, AllocationSize;
  ULONG FileAttributes, FileNameLength, EaSize;
  CCHAR ShortNameLength;
  WCHAR ShortName[12];
  LARGE_INTEGER FileId;
  WCHAR FileName[1];
};
static_assert(offsetof(IdEntry, FileName) == 104);

LinkFolderSource link_folders = nullptr;

struct Identity {
  LONGLONG id;
  DWORD links;
  bool directory;
};

UniqueHandle Open(const std::u16string& path, ULONG options, ACCESS_MASK access) {
  UNICODE_STRING name = nt::CountedString(W(path.data()), path.size() * sizeof(wchar_t));
  OBJECT_ATTRIBUTES attributes = nt::NamedObject(&name);
  IO_STATUS_BLOCK io;
  UniqueHandle handle;
  ::NtCreateFile(handle.put(), access | SYNCHRONIZE, &attributes, &io, nullptr, 0, nt::kShareAll, FILE_OPEN,
                 options | FILE_SYNCHRONOUS_IO_NONALERT, nullptr, 0);
  return handle;
}

bool Identify(const std::u16string& path, Identity& identity) {
  const UniqueHandle file = Open(path, 0, FILE_READ_ATTRIBUTES);
  BY_HANDLE_FILE_INFORMATION info;
  if (!file || !::GetFileInformationByHandle(file.get(), &info)) return false;
  identity.id = static_cast<LONGLONG>(info.nFileIndexHigh) << 32 | info.nFileIndexLow;
  identity.links = info.nNumberOfLinks;
  identity.directory = (info.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY) != 0;
  return true;
}

// What a find handle points at: the names, as paths below the volume, and the position in them.
struct LinkNames {
  std::vector<std::u16string> names;
  std::size_t next = 0;
};

class Search {
 public:
  Search(LinkNames& found, const std::u16string& own, const Identity& file)
      : found_(found),
        drive_(own.substr(0, kDriveUnits)),
        file_(file),
        deadline_(GetTickCount64() + kMaxMilliseconds) {
    Add(own);
  }

  void Run(const std::u16string& own) {
    ScanFolder(own.substr(0, own.find_last_of(u'\\')), nullptr);
    for (std::uint32_t i = 0; !Done() && link_folders; ++i) {
      const std::wstring_view folder = link_folders(i);
      if (folder.empty()) break;
      ScanRuleFolder(folder);
    }
    if (found_.names.size() < file_.links) found_.names.emplace_back(U16(kUnknownLinkName));
  }

 private:
  bool Done() const {
    return found_.names.size() >= file_.links || entries_ >= kMaxEntries || GetTickCount64() > deadline_;
  }

  void Add(const std::u16string& path) {
    std::u16string name = path.substr(kDriveUnits);
    for (const std::u16string& known : found_.names)
      if (EqualsNoCase(known, name)) return;
    found_.names.push_back(std::move(name));
  }

  void ScanRuleFolder(std::wstring_view device_path) {
    const WineName spelled(device_path);
    if (!spelled.changed()) return;
    std::u16string top(U16(spelled.text()));
    if (!EqualsNoCase(std::u16string_view(top).substr(0, kDriveUnits), drive_)) return;
    Identity identity;
    if (!Identify(top, identity)) return;
    if (!identity.directory) {
      if (identity.id == file_.id) Add(top);
      return;
    }
    std::vector<std::u16string> pending{std::move(top)};
    while (!pending.empty() && !Done()) {
      std::u16string folder = std::move(pending.back());
      pending.pop_back();
      ScanFolder(std::move(folder), &pending);
    }
  }

  // Looks at the entries of one folder; its subfolders go to pending.
  void ScanFolder(std::u16string folder, std::vector<std::u16string>* pending) {
    if (folder.size() <= kDriveUnits || folder.back() != u'\\') folder += u'\\';
    const UniqueHandle directory = Open(folder, FILE_DIRECTORY_FILE, FILE_LIST_DIRECTORY);
    if (!directory) return;
    const std::unique_ptr<char[]> page(new char[kPageBytes]);
    IO_STATUS_BLOCK io;
    while (!Done() && nt::Success(::NtQueryDirectoryFile(
                          directory.get(), nullptr, nullptr, nullptr, &io, page.get(), kPageBytes,
                          kFileIdBothDirectoryInformation, FALSE, nullptr, FALSE))) {
      for (const char* at = page.get();;) {
        const auto* entry = reinterpret_cast<const IdEntry*>(at);
        VisitEntry(*entry, folder, pending);
        if (!entry->NextEntryOffset) break;
        at += entry->NextEntryOffset;
      }
    }
  }

  void VisitEntry(const IdEntry& entry, const std::u16string& folder, std::vector<std::u16string>* pending) {
    ++entries_;
    const std::u16string_view name(U16(entry.FileName), entry.FileNameLength / sizeof(wchar_t));
    if (name == u"." || name == u"..") return;
    const bool subfolder = entry.FileAttributes & FILE_ATTRIBUTE_DIRECTORY;
    if (!subfolder && entry.FileId.QuadPart == file_.id) Add(std::u16string(folder).append(name));
    if (subfolder && pending && !(entry.FileAttributes & FILE_ATTRIBUTE_REPARSE_POINT))
      pending->push_back(std::u16string(folder).append(name));
  }

  LinkNames& found_;
  const std::u16string drive_;
  const Identity file_;
  const ULONGLONG deadline_;
  std::size_t entries_ = 0;
};

// Copies the next name; units is the room of name on entry, what it takes (terminator included) on return.
BOOL CopyNextName(LinkNames& links, LPDWORD units, PWSTR name) {
  if (links.next >= links.names.size()) {
    SetLastError(ERROR_HANDLE_EOF);
    return FALSE;
  }
  const std::u16string& text = links.names[links.next];
  const DWORD room = *units;
  *units = static_cast<DWORD>(text.size() + 1);
  if (room < *units || !name) {
    SetLastError(ERROR_MORE_DATA);
    return FALSE;
  }
  memcpy(name, text.c_str(), *units * sizeof(wchar_t));
  ++links.next;
  return TRUE;
}

}  // namespace

void SetLinkFolders(LinkFolderSource source) noexcept { link_folders = source; }

HANDLE WINAPI FindFirstLinkName(LPCWSTR path, DWORD, LPDWORD units, PWSTR name) noexcept {
  const std::size_t path_units = wcslen(path);
  if (path_units < 3 || path_units > kMaxNameUnits || path[1] != L':') {
    SetLastError(ERROR_INVALID_NAME);
    return INVALID_HANDLE_VALUE;
  }
  const std::u16string own = std::u16string(u"\\??\\").append(U16(path), path_units);
  Identity file;
  if (!Identify(own, file)) {
    SetLastError(ERROR_FILE_NOT_FOUND);
    return INVALID_HANDLE_VALUE;
  }
  auto links = std::make_unique<LinkNames>();
  Search(*links, own, file).Run(own);
  if (!CopyNextName(*links, units, name)) return INVALID_HANDLE_VALUE;
  return links.release();
}

BOOL WINAPI FindNextLinkName(HANDLE find, LPDWORD units, PWSTR name) noexcept {
  return CopyNextName(*static_cast<LinkNames*>(find), units, name);
}

BOOL WINAPI CloseLinkNames(HANDLE find) noexcept {
  delete static_cast<LinkNames*>(find);
  return TRUE;
}

}  // namespace VornCore::platform::wine
