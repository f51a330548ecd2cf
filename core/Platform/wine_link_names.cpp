#include "Platform/wine_link_names.h"

#include <algorithm>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "Platform/wine_link_index.h"
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

constexpr std::size_t kMaxEntries = 100000;   // directory entries looked at for one file
constexpr ULONGLONG kMaxMilliseconds = 5000;  // so that a busy machine refuses nothing
constexpr std::size_t kPageBytes = 16384;     // one directory query
constexpr std::size_t kMaxNameUnits = 32767;
constexpr std::size_t kLongerByUnits = 32;  // a device path is longer than its drive-letter form by at most
// A folder that was read this shortly after its last change may have changed again without showing it.
constexpr LONGLONG kUnsettledTicks = 500'000;

constexpr auto kFileAllInformation = static_cast<FILE_INFORMATION_CLASS>(18);
struct AllInformation {
  FILE_BASIC_INFO basic;
  FILE_STANDARD_INFO standard;
  LARGE_INTEGER id;
  ULONG ea_size, access;
  LARGE_INTEGER position;
  ULONG mode, alignment, name_bytes;
  WCHAR name[kMaxNameUnits];  // without the drive
};
static_assert(offsetof(AllInformation, name) == 100);

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

LinkIndex& Index() {
  static LinkIndex& index = *new LinkIndex;
  return index;
}

// A path in the form of an object name, for one system call.
class PathName {
 public:
  explicit PathName(const std::u16string& path)
      : name_(nt::CountedString(W(path.data()), path.size() * sizeof(wchar_t))),
        attributes_(nt::NamedObject(&name_)) {}
  OBJECT_ATTRIBUTES* attributes() { return &attributes_; }

 private:
  UNICODE_STRING name_;
  OBJECT_ATTRIBUTES attributes_;
};

UniqueHandle Open(const std::u16string& path, ULONG options, ACCESS_MASK access) {
  PathName name(path);
  IO_STATUS_BLOCK io;
  UniqueHandle handle;
  ::NtCreateFile(handle.put(), access | SYNCHRONIZE, name.attributes(), &io, nullptr, 0, nt::kShareAll,
                 FILE_OPEN, options | FILE_SYNCHRONOUS_IO_NONALERT, nullptr, 0);
  return handle;
}

// A file as the system sees it now. Two that are alike are the same file, also where two drives stand for
// different file systems, which number their files alike.
struct Identity {
  LONGLONG id, changed, size;
  ULONG links;
  bool operator==(const Identity&) const = default;
};

LONGLONG Now() {
  FILETIME now;
  GetSystemTimeAsFileTime(&now);
  return static_cast<LONGLONG>(now.dwHighDateTime) << 32 | now.dwLowDateTime;
}

// What a find handle points at: the names, and the position in them.
struct LinkNames {
  std::vector<std::u16string> names;
  std::size_t next = 0;
};

class Search {
 public:
  // own: the file's path, free of links; file: open on it.
  Search(std::vector<std::u16string>& found, const std::u16string& own, HANDLE file)
      : found_(found),
        drive_(own.substr(0, kDriveUnits)),
        own_(own),
        file_(file),
        deadline_(GetTickCount64() + kMaxMilliseconds),
        info_(new AllInformation) {}

  void Run() {
    Add(own_);
    if (Identify(file_, identity_)) {
      for (const LinkIndex::Known& known : Index().NamesOf(identity_.id)) {
        if (Done() || EqualsNoCase(known.path, own_)) continue;
        if (IsUnchanged(known))
          Add(known.path);
        else if (Try(known.path))
          Index().Believe(known.number, identity_.id);
      }
      if (!Done()) ReadFolders();
    }
    // The order must not tell what was known before.
    std::sort(found_.begin() + 1, found_.end());
    if (found_.size() < identity_.links) found_.emplace_back(U16(kUnknownLinkName));
  }

 private:
  bool Done() const {
    return found_.size() >= identity_.links || entries_ >= kMaxEntries || GetTickCount64() > deadline_;
  }

  // As the system sees the file now. One question, because each costs a request to the server.
  bool Identify(HANDLE file, Identity& identity) {
    IO_STATUS_BLOCK io;
    if (!nt::Success(::NtQueryInformationFile(file, &io, info_.get(), sizeof *info_, kFileAllInformation)))
      return false;
    identity = {info_->id.QuadPart, info_->basic.ChangeTime.QuadPart, info_->standard.EndOfFile.QuadPart,
                info_->standard.NumberOfLinks};
    return true;
  }

  void Add(std::u16string_view path) {
    std::u16string name;
    if (EqualsNoCase(path.substr(0, kDriveUnits), drive_)) {
      name = path.substr(kDriveUnits);
    } else {
      std::vector<wchar_t> device(path.size() + kLongerByUnits);
      std::copy(path.begin(), path.end(), device.begin());
      const std::size_t units = ToDevicePath(device.data(), path.size(), device.size());
      name.append(U16(kOtherVolume)).append(U16(device.data()), units);
    }
    for (const std::u16string& known : found_)
      if (EqualsNoCase(known, name)) return;
    found_.push_back(std::move(name));
  }

  static bool Ask(const std::u16string& path, FILE_NETWORK_OPEN_INFORMATION& info) {
    PathName name(path);
    return nt::Success(::NtQueryFullAttributesFile(name.attributes(), &info));
  }

  // Whether a name that was believed still is one: asked by path, which costs no request to the server. The
  // times of the file are compared, because files of another file system may have the same ids.
  bool IsUnchanged(const LinkIndex::Known& known) const {
    FILE_NETWORK_OPEN_INFORMATION folder, file;
    return known.believed_while && Ask(known.path.substr(0, known.path.rfind(u'\\')), folder) &&
           folder.ChangeTime.QuadPart == known.believed_while && Ask(known.path, file) &&
           file.ChangeTime.QuadPart == identity_.changed && file.EndOfFile.QuadPart == identity_.size;
  }

  // Adds path when it is a name of the file, and no link to one of its names. Both are looked at once more
  // where one of them may have been written to in between.
  bool Try(const std::u16string& path) {
    const UniqueHandle other = Open(path, 0, FILE_READ_ATTRIBUTES);
    for (int i = 0; other && i < 4; ++i) {
      Identity identity;
      if (!Identify(other.get(), identity) || identity.id != identity_.id) return false;
      const std::u16string_view name(U16(info_->name), info_->name_bytes / sizeof(wchar_t));
      if (!EqualsNoCase(std::u16string_view(path).substr(kDriveUnits), name)) return false;
      if (identity == identity_) {
        Add(path);
        return true;
      }
      if (!Identify(file_, identity_)) return false;
    }
    return false;
  }

  void ReadFolders() {
    LinkIndex& index = Index();
    Refresh(index.Number(own_.substr(0, own_.find_last_of(u'\\')), false));
    for (std::uint32_t i = 0; link_folders; ++i) {
      const std::wstring_view device_path = link_folders(i);
      if (device_path.empty()) break;
      const WineName spelled(device_path);
      if (!spelled.changed()) continue;
      std::u16string_view folder = U16(spelled.text());
      if (folder.ends_with(u'\\')) folder.remove_suffix(1);
      index.Number(folder, true);
    }
    LinkIndex::Folder folder;
    for (std::uint32_t i = 0; !Done() && index.At(i, folder); ++i)
      if (folder.in_tree) Refresh(i);
  }

  // Reads the folder when it is not what is remembered.
  void Refresh(std::uint32_t number) {
    LinkIndex::Folder folder;
    if (!Index().At(number, folder)) return;
    std::u16string path = folder.path;
    if (path.size() == kDriveUnits) path += u'\\';
    FILE_NETWORK_OPEN_INFORMATION info;
    if (!Ask(path, info)) return;
    const LONGLONG changed = info.ChangeTime.QuadPart;
    if (changed == folder.changed) return;
    if (!(info.FileAttributes & FILE_ATTRIBUTE_DIRECTORY)) return (void)Try(path);
    const LONGLONG now = Now();
    FolderListing listing;
    const bool whole = ReadFolder(path, listing);
    // The folders below are still to be found when this one turns out to lie in a tree of rules.
    const bool remember = whole && folder.in_tree && now - changed > kUnsettledTicks;
    Index().Remember(number, listing, remember ? changed : 0);
    if (folder.in_tree)
      for (const std::u16string& below : listing.folders) {
        const std::uint32_t next =
            Index().Number(std::u16string(folder.path).append(1, u'\\').append(below), true);
        if (next < number && !Done()) Refresh(next);  // it was read before, as the file's own folder
      }
    for (const FolderListing::File& file : listing.files)
      if (file.id == identity_.id) (void)Try(std::u16string(folder.path).append(1, u'\\').append(file.name));
  }

  // False when it was cut.
  bool ReadFolder(const std::u16string& path, FolderListing& listing) {
    const UniqueHandle directory = Open(path, FILE_DIRECTORY_FILE, FILE_LIST_DIRECTORY);
    if (!directory) return false;
    const std::unique_ptr<char[]> page(new char[kPageBytes]);
    for (;;) {
      IO_STATUS_BLOCK io;
      const NTSTATUS status =
          ::NtQueryDirectoryFile(directory.get(), nullptr, nullptr, nullptr, &io, page.get(), kPageBytes,
                                 kFileIdBothDirectoryInformation, FALSE, nullptr, FALSE);
      if (!nt::Success(status)) return status == STATUS_NO_MORE_FILES;
      for (const char* at = page.get();;) {
        const auto* entry = reinterpret_cast<const IdEntry*>(at);
        TakeEntry(*entry, listing);
        if (!entry->NextEntryOffset) break;
        at += entry->NextEntryOffset;
      }
      if (entries_ >= kMaxEntries || GetTickCount64() > deadline_) return false;
    }
  }

  void TakeEntry(const IdEntry& entry, FolderListing& listing) {
    ++entries_;
    const std::u16string_view name(U16(entry.FileName), entry.FileNameLength / sizeof(wchar_t));
    if (!(entry.FileAttributes & FILE_ATTRIBUTE_DIRECTORY))
      listing.files.push_back({entry.FileId.QuadPart, std::u16string(name)});
    else if (name != u"." && name != u".." && !(entry.FileAttributes & FILE_ATTRIBUTE_REPARSE_POINT))
      listing.folders.emplace_back(name);
  }

  std::vector<std::u16string>& found_;  // as FindFirstFileNameW tells names
  const std::u16string drive_;
  const std::u16string& own_;
  HANDLE file_;
  Identity identity_ = {};
  const ULONGLONG deadline_;
  std::size_t entries_ = 0;
  const std::unique_ptr<AllInformation> info_;
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
  const UniqueHandle file = Open(own, 0, FILE_READ_ATTRIBUTES);
  if (!file) {
    SetLastError(ERROR_FILE_NOT_FOUND);
    return INVALID_HANDLE_VALUE;
  }
  auto links = std::make_unique<LinkNames>();
  Search(links->names, own, file.get()).Run();
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
