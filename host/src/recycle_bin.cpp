#include "vorn/recycle_bin.h"

#include "windows/nt.h"
// (sddl.h needs it)
#include <sddl.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <memory>

#include "Policy/file_time.h"
#include "Policy/kept_file.h"
#include "Policy/wide.h"
#include "vorn/environment.h"
#include "vorn/nt_path.h"
#include "vorn/recycle_info.h"
#include "vorn/text.h"
#include "windows/file_time.h"
#include "windows/unique_handle.h"
#include "windows/user_only_security.h"

namespace vorn::host {
namespace {

namespace fs = std::filesystem;

std::string ReadWhole(const fs::path& path) {
  std::ifstream file(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(file), {}};
}

template <class Visit>
void ForEachFile(const fs::path& folder, Visit&& visit) {
  std::error_code error;
  for (fs::directory_iterator it(folder, error), end; !error && it != end; it.increment(error))
    visit(it->path());
}

std::wstring CurrentUserSid() {
  windows::UniqueHandle token;
  if (!OpenProcessToken(GetCurrentProcess(), TOKEN_QUERY, token.put())) return {};
  std::vector<std::byte> buffer(256);
  DWORD size = 0;
  wchar_t* text = nullptr;
  if (!GetTokenInformation(token.get(), TokenUser, buffer.data(), static_cast<DWORD>(buffer.size()), &size) ||
      !ConvertSidToStringSidW(reinterpret_cast<TOKEN_USER*>(buffer.data())->User.Sid, &text))
    return {};
  std::wstring sid = text;
  LocalFree(text);
  return sid;
}

bool SamePath(const std::wstring& a, const std::wstring& b) {
  return CompareStringOrdinal(a.c_str(), -1, b.c_str(), -1, TRUE) == CSTR_EQUAL;
}

// The run in the name of a kept file; empty where another than a run has put it there.
std::string RunOf(const std::wstring& stored_path) {
  const std::wstring name = fs::path(stored_path).filename().wstring();
  const auto tail = policy::ParseKeptName(policy::U16(std::wstring_view(name)));
  return tail ? std::string(tail->run.begin(), tail->run.end()) : std::string();
}

// $Ixxxxxx.ext remembers the origin of $Rxxxxxx.ext beside it.
void ListRecycleFolder(const fs::path& folder, std::string_view run, std::vector<RecycledFile>& files) {
  ForEachFile(folder, [&](const fs::path& info_path) {
    std::wstring name = info_path.filename().wstring();
    if (!name.starts_with(L"$I")) return;
    name[1] = L'R';
    const std::string kept_by = RunOf(name);
    if (!run.empty() && kept_by != run) return;
    const std::string bytes = ReadWhole(info_path);
    auto info = ParseRecycleInfo(std::as_bytes(std::span(bytes)));
    if (!info) return;
    files.push_back({{info->path.begin(), info->path.end()},
                     (info_path.parent_path() / name).wstring(),
                     info_path.wstring(),
                     info->deleted_at_ms,
                     kept_by});
  });
}

// Paths between the two worlds, where kernel32 offers them: only there a trash folder takes the bin's place.
using UnixToDos = wchar_t*(CDECL*)(const char*);
UnixToDos GetUnixToDos() {
  return reinterpret_cast<UnixToDos>(
      GetProcAddress(GetModuleHandleW(L"kernel32.dll"), "wine_get_dos_file_name"));
}

// The last component is taken as it is: the conversion would drop a dot at its end.
std::wstring DosPath(UnixToDos convert, const std::string& unix_path) {
  const std::size_t name = unix_path.rfind('/') + 1;
  std::unique_ptr<wchar_t, void (*)(wchar_t*)> folder(
      convert(unix_path.substr(0, name).c_str()),
      [](wchar_t* block) { HeapFree(GetProcessHeap(), 0, block); });
  if (!folder) return {};
  std::wstring path = folder.get();
  if (!path.ends_with(L'\\')) path += L'\\';
  return path + ToWide(unix_path.substr(name));
}

std::uint64_t LocalTimeToMs(const std::string& text) {
  SYSTEMTIME local{}, utc{};
  FILETIME time{};
  if (std::sscanf(text.c_str(), "%hu-%hu-%huT%hu:%hu:%hu", &local.wYear, &local.wMonth, &local.wDay,
                  &local.wHour, &local.wMinute, &local.wSecond) != 6)
    return 0;
  if (!TzSpecificLocalTimeToSystemTime(nullptr, &local, &utc) || !SystemTimeToFileTime(&utc, &time)) return 0;
  return policy::UnixMilliseconds(windows::TicksOf(time));
}

fs::path TrashFolder(UnixToDos convert) {
  std::string unix_root = fs::path(EnvironmentValue(L"XDG_DATA_HOME")).string();
  if (unix_root.empty()) {
    const char* home = std::getenv("HOME");
    if (!home) return {};
    unix_root = std::string(home) + "/.local/share";
  }
  return DosPath(convert, unix_root + "/Trash");
}

void ListTrashFolder(UnixToDos convert, std::string_view run, std::vector<RecycledFile>& files) {
  const fs::path trash = TrashFolder(convert);
  if (trash.empty()) return;
  ForEachFile(trash / L"info", [&](const fs::path& info_path) {
    if (info_path.extension() != L".trashinfo") return;
    const std::string kept_by = RunOf(info_path.stem());
    if (!run.empty() && kept_by != run) return;
    auto info = ParseTrashInfo(ReadWhole(info_path));
    if (!info) return;
    files.push_back({DosPath(convert, info->path), (trash / L"files" / info_path.stem()).wstring(),
                     info_path.wstring(), LocalTimeToMs(info->deletion_date), kept_by});
  });
}

// Calls visit with the root of every fixed drive, "C:\".
template <class Visit>
void ForEachFixedDrive(Visit&& visit) {
  const DWORD drives = GetLogicalDrives();
  for (wchar_t letter = L'A'; letter <= L'Z'; ++letter) {
    const std::wstring root = {letter, L':', L'\\'};
    if ((drives >> (letter - L'A') & 1) && GetDriveTypeW(root.c_str()) == DRIVE_FIXED) visit(root);
  }
}

std::wstring BinOf(const std::wstring& root) { return root + L"$Recycle.Bin\\" + CurrentUserSid(); }

bool HasHardLinks(const std::wstring& root) {
  DWORD flags = 0;
  return GetVolumeInformationW(root.c_str(), nullptr, 0, nullptr, nullptr, &flags, nullptr, 0) &&
         (flags & FILE_SUPPORTS_HARD_LINKS);
}

bool IsFolder(const std::wstring& path) {
  std::error_code error;
  return fs::is_directory(path, error);
}

// As the shell makes it at the first deletion on a drive.
bool MakeBin(const std::wstring& bin) {
  if (IsFolder(bin)) return true;
  windows::UserOnlySecurity security;
  if (security.error() || !CreateDirectoryW(bin.c_str(), security.attributes())) return false;
  SetFileAttributesW(bin.c_str(), FILE_ATTRIBUTE_HIDDEN | FILE_ATTRIBUTE_SYSTEM);
  std::ofstream(fs::path(bin) / L"desktop.ini", std::ios::binary)
      << "[.ShellClassInfo]\r\nCLSID={645FF040-5081-101B-9F08-00AA002F954E}\r\n";
  return true;
}

// In the form whose name the system does not alter, as it would by dropping a dot at its end.
std::wstring Exact(const std::wstring& path) { return path.starts_with(L"\\\\") ? path : L"\\\\?\\" + path; }

// A folder that is reached without a link, made where it is missing. As long as this object lives, nothing on
// the way to it can be replaced where the system keeps a folder in place while it is open.
class RealFolder {
 public:
  explicit RealFolder(const fs::path& path) : final_(Enter(path)) {}
  bool is_there() const { return !final_.empty(); }
  std::uint32_t error() const { return error_; }  // why it is not
  bool is_elsewhere() const { return elsewhere_; }

 private:
  // The final path of the folder; empty when it cannot be made, or a link stands on the way.
  std::wstring Enter(const fs::path& path) {
    const bool root = path == path.root_path();
    const std::wstring parent = root ? std::wstring() : Enter(path.parent_path());
    if (!root && parent.empty()) return {};
    if (!root) CreateDirectoryW(Exact(path).c_str(), nullptr);
    windows::UniqueHandle folder;
    // Only who may list it keeps a folder in its place.
    for (const DWORD access : {FILE_LIST_DIRECTORY, FILE_READ_ATTRIBUTES})
      if (!folder)
        folder.reset(CreateFileW(Exact(path).c_str(), access, FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr,
                                 OPEN_EXISTING, FILE_FLAG_BACKUP_SEMANTICS | FILE_FLAG_OPEN_REPARSE_POINT,
                                 nullptr));
    error_ = folder ? ERROR_SUCCESS : GetLastError();
    FILE_ATTRIBUTE_TAG_INFO tag{};
    std::wstring final(32768, L'\0');
    final.resize(folder ? GetFinalPathNameByHandleW(folder.get(), final.data(),
                                                    static_cast<DWORD>(final.size()), VOLUME_NAME_DOS)
                        : 0);
    if (final.empty()) return {};
    if (final.ends_with(L'\\')) final.pop_back();
    const bool link = GetFileInformationByHandleEx(folder.get(), FileAttributeTagInfo, &tag, sizeof tag) &&
                      IsReparseTagNameSurrogate(tag.ReparseTag);
    elsewhere_ = !root && (link || !SamePath(final, parent + L"\\" + path.filename().wstring()));
    open_.push_back(std::move(folder));
    return elsewhere_ ? std::wstring() : final;
  }

  std::vector<windows::UniqueHandle> open_;
  bool elsewhere_ = false;
  std::uint32_t error_ = ERROR_SUCCESS;
  const std::wstring final_;
};

}  // namespace

KeepPlaces FindKeepPlaces() {
  PathResolver resolver;
  if (UnixToDos convert = GetUnixToDos()) {
    const fs::path trash = TrashFolder(convert);
    std::error_code error;
    for (const wchar_t* part : {L"files", L"info"}) fs::create_directories(trash / part, error);
    if (trash.empty() || !IsFolder(trash / L"info")) return {};
    return {policy::KeepFormat::kTrash, {{.folder = resolver.Resolve(trash.wstring()).nt_path}}};
  }
  KeepPlaces places{.format = policy::KeepFormat::kRecycleBin};
  ForEachFixedDrive([&](const std::wstring& root) {
    if (!HasHardLinks(root) || !MakeBin(BinOf(root))) return;
    std::wstring volume = resolver.Resolve(root).nt_path;
    if (volume.ends_with(L'\\')) volume.pop_back();
    places.places.push_back({volume, resolver.Resolve(BinOf(root)).nt_path});
  });
  return places;
}

std::vector<RecycledFile> ListRecycleBin(std::string_view run) {
  std::vector<RecycledFile> files;
  if (UnixToDos convert = GetUnixToDos())
    ListTrashFolder(convert, run, files);
  else
    ForEachFixedDrive([&](const std::wstring& root) { ListRecycleFolder(BinOf(root), run, files); });
  // A process that ended between the two leaves an index without a file: nothing was deleted.
  if (!run.empty())
    std::erase_if(files, [](const RecycledFile& file) {
      return GetFileAttributesW(file.stored_path.c_str()) == INVALID_FILE_ATTRIBUTES;
    });
  return files;
}

RestoreOutcome RestoreFile(const RecycledFile& file, std::uint32_t* error) {
  *error = 0;
  const RealFolder folder(fs::path(file.original_path).parent_path());
  if (folder.is_elsewhere()) return RestoreOutcome::kElsewhere;
  if (!folder.is_there()) {
    *error = folder.error();
    return RestoreOutcome::kFailed;
  }
  // Without MOVEFILE_REPLACE_EXISTING: the system itself refuses to put it over another file.
  if (!MoveFileExW(Exact(file.stored_path).c_str(), Exact(file.original_path).c_str(),
                   MOVEFILE_COPY_ALLOWED)) {
    *error = GetLastError();
    if (*error == ERROR_ALREADY_EXISTS || *error == ERROR_FILE_EXISTS) return RestoreOutcome::kTargetExists;
    const bool gone = GetFileAttributesW(file.stored_path.c_str()) == INVALID_FILE_ATTRIBUTES;
    return gone ? RestoreOutcome::kGone : RestoreOutcome::kFailed;
  }
  DeleteFileW(file.info_path.c_str());
  return RestoreOutcome::kRestored;
}

}  // namespace vorn::host
