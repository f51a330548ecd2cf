#include "vorn/recycle_bin.h"

#include "windows/nt.h"
// (sddl.h needs it)
#include <sddl.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <memory>

#include "Policy/file_time.h"
#include "vorn/environment.h"
#include "vorn/recycle_info.h"
#include "windows/file_time.h"
#include "windows/unique_handle.h"

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

// $Ixxxxxx.ext remembers the origin of $Rxxxxxx.ext beside it.
void ListRecycleFolder(const fs::path& folder, std::vector<RecycledFile>& files) {
  ForEachFile(folder, [&](const fs::path& info_path) {
    std::wstring name = info_path.filename().wstring();
    if (!name.starts_with(L"$I")) return;
    const std::string bytes = ReadWhole(info_path);
    auto info = ParseRecycleInfo(std::as_bytes(std::span(bytes)));
    if (!info) return;
    name[1] = L'R';
    files.push_back({{info->path.begin(), info->path.end()},
                     (info_path.parent_path() / name).wstring(),
                     info_path.wstring(),
                     info->deleted_at_ms});
  });
}

// Paths between the two worlds, where kernel32 offers them: only there a trash folder takes the bin's place.
using UnixToDos = wchar_t*(CDECL*)(const char*);
UnixToDos GetUnixToDos() {
  return reinterpret_cast<UnixToDos>(
      GetProcAddress(GetModuleHandleW(L"kernel32.dll"), "wine_get_dos_file_name"));
}

std::wstring DosPath(UnixToDos convert, const std::string& unix_path) {
  std::unique_ptr<wchar_t, void (*)(wchar_t*)> path(
      convert(unix_path.c_str()), [](wchar_t* block) { HeapFree(GetProcessHeap(), 0, block); });
  return path ? path.get() : L"";
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

void ListTrashFolder(UnixToDos convert, std::vector<RecycledFile>& files) {
  std::string unix_root = fs::path(EnvironmentValue(L"XDG_DATA_HOME")).string();
  if (unix_root.empty()) {
    const char* home = std::getenv("HOME");
    if (!home) return;
    unix_root = std::string(home) + "/.local/share";
  }
  const fs::path trash = DosPath(convert, unix_root + "/Trash");
  ForEachFile(trash / L"info", [&](const fs::path& info_path) {
    if (info_path.extension() != L".trashinfo") return;
    auto info = ParseTrashInfo(ReadWhole(info_path));
    if (!info) return;
    files.push_back({DosPath(convert, info->path), (trash / L"files" / info_path.stem()).wstring(),
                     info_path.wstring(), LocalTimeToMs(info->deletion_date)});
  });
}

}  // namespace

std::vector<RecycledFile> ListRecycleBin() {
  std::vector<RecycledFile> files;
  if (UnixToDos convert = GetUnixToDos()) {
    ListTrashFolder(convert, files);
    return files;
  }
  const std::wstring sid = CurrentUserSid();
  const std::wstring bin = L"$Recycle.Bin\\" + sid;
  const DWORD drives = sid.empty() ? 0 : GetLogicalDrives();
  for (wchar_t letter = L'A'; letter <= L'Z'; ++letter) {
    if (!(drives >> (letter - L'A') & 1)) continue;
    const std::wstring root = {letter, L':', L'\\'};
    if (GetDriveTypeW(root.c_str()) == DRIVE_FIXED) ListRecycleFolder(root + bin, files);
  }
  return files;
}

RestoreOutcome RestoreFile(const RecycledFile& file, std::uint32_t* error) {
  *error = 0;
  std::error_code ignored;
  fs::create_directories(fs::path(file.original_path).parent_path(), ignored);
  // Without MOVEFILE_REPLACE_EXISTING: the system itself refuses to put it over another file.
  if (!MoveFileExW(file.stored_path.c_str(), file.original_path.c_str(), MOVEFILE_COPY_ALLOWED)) {
    *error = GetLastError();
    if (*error == ERROR_ALREADY_EXISTS || *error == ERROR_FILE_EXISTS) return RestoreOutcome::kTargetExists;
    const bool gone = GetFileAttributesW(file.stored_path.c_str()) == INVALID_FILE_ATTRIBUTES;
    return gone ? RestoreOutcome::kGone : RestoreOutcome::kFailed;
  }
  DeleteFileW(file.info_path.c_str());
  return RestoreOutcome::kRestored;
}

}  // namespace vorn::host
