#include "vorn/nt_path.h"

#include <algorithm>
#include <system_error>
#include <vector>

#include "Platform/native.h"
#include "Policy/device_path.h"
#include "Policy/file_decision.h"
#include "Policy/wide.h"
#include "vorn/text.h"
#include "windows/unique_handle.h"

namespace vorn::host {

namespace {

constexpr std::wstring_view kDevicePrefix = L"\\\\?\\";
constexpr std::wstring_view kDeviceUncPrefix = L"\\\\?\\UNC\\";
constexpr std::wstring_view kDevice = L"\\\\.\\";
constexpr std::wstring_view kDosDirectory = L"\\??\\";
constexpr std::wstring_view kRedirector = L"\\Device\\LanmanRedirector\\";
constexpr std::wstring_view kMup = L"\\Device\\Mup\\";
constexpr std::size_t kMaxPathUnits = 32768;

[[noreturn]] void Fail(DWORD error, const std::wstring& path) {
  throw std::system_error(static_cast<int>(error), std::system_category(), ToUtf8(path));
}

bool HasDrive(std::wstring_view path) {
  const wchar_t letter = path.empty() ? L'\0' : path[0] | 0x20;
  return path.size() >= 3 && letter >= L'a' && letter <= L'z' && path[1] == L':' && path[2] == L'\\';
}

bool IsUnc(std::wstring_view path) {
  return path.size() > 2 && path[0] == L'\\' && path[1] == L'\\' && path[2] != L'\\' && path[2] != L'?' &&
         path[2] != L'.';
}

// "\\?\C:\a" is "C:\a", "\\?\UNC\s\a" is "\\s\a".
std::wstring WithoutDevicePrefix(std::wstring path) {
  if (path.starts_with(kDeviceUncPrefix)) return L"\\\\" + path.substr(kDeviceUncPrefix.size());
  if (path.starts_with(kDevicePrefix)) return path.substr(kDevicePrefix.size());
  return path;
}

// Calls ask(buffer, units), which answers how many units it wrote, and gives them as a string of just that
// size; empty on failure.
template <class Ask>
std::wstring AskForText(Ask ask) {
  static thread_local std::vector<wchar_t> buffer(kMaxPathUnits);
  const DWORD units = ask(buffer.data(), static_cast<DWORD>(buffer.size()));
  return units < buffer.size() ? std::wstring(buffer.data(), units) : std::wstring();
}

std::wstring FullPath(const std::wstring& path) {
  std::wstring full = AskForText(
      [&](wchar_t* buffer, DWORD units) { return GetFullPathNameW(path.c_str(), units, buffer, nullptr); });
  if (full.empty()) Fail(ERROR_FILENAME_EXCED_RANGE, path);
  return full;
}

// The final form of an existing file or folder. Empty when it cannot be opened: *missing says whether it is
// not there.
std::wstring FinalPath(const std::wstring& path, bool* missing) {
  // A drive is opened as its root folder: without the backslash it would be the volume.
  const std::wstring name = path.size() == 2 ? path + L'\\' : path;
  const windows::UniqueHandle file(CreateFileW(name.c_str(), FILE_READ_ATTRIBUTES, nt::kShareAll, nullptr,
                                               OPEN_EXISTING, FILE_FLAG_BACKUP_SEMANTICS, nullptr));
  const DWORD error = GetLastError();
  *missing = !file && (error == ERROR_FILE_NOT_FOUND || error == ERROR_PATH_NOT_FOUND);
  if (!file) return {};
  std::wstring final_path = WithoutDevicePrefix(AskForText([&](wchar_t* buffer, DWORD units) {
    return GetFinalPathNameByHandleW(file.get(), buffer, units, VOLUME_NAME_DOS);
  }));
  if (final_path.ends_with(L'\\')) final_path.pop_back();
  return final_path;
}

// Whether a name leads to an entry of the same letters or to none, whatever the system folds or leaves out.
bool IsPlainName(std::wstring_view name) {
  constexpr std::wstring_view kOthers = L"\"*:<>?|~";
  return !name.empty() && !name.ends_with(L'.') && !name.ends_with(L' ') &&
         std::ranges::all_of(
             name, [&](wchar_t c) { return c >= L' ' && c < 0x7F && kOthers.find(c) == kOthers.npos; });
}

std::wstring SmallLetters(std::wstring_view name) {
  std::wstring small(name);
  for (wchar_t& unit : small)
    if (unit >= L'A' && unit <= L'Z') unit |= 0x20;
  return small;
}

// Where the part ends that is never asked about: "\\\\server" or "C:".
std::size_t RootUnits(const std::wstring& path) { return IsUnc(path) ? path.find(L'\\', 2) : 2; }

// The device of a drive such as "C:"; a substituted drive's is below another drive, a mapped one's below Mup.
std::wstring QueryDevice(const std::wstring& drive, const std::wstring& path, int depth = 0) {
  std::wstring target = AskForText([&](wchar_t* buffer, DWORD units) {
    return QueryDosDeviceW(drive.c_str(), buffer, units) ? static_cast<DWORD>(wcslen(buffer)) : 0;
  });
  if (target.empty()) Fail(GetLastError(), path);
  if (target.starts_with(kDosDirectory) && depth < 8) {
    const std::wstring below = target.substr(kDosDirectory.size());
    if (below.starts_with(L"UNC\\")) return std::wstring(kMup) + below.substr(4);
    return QueryDevice(below.substr(0, 2), path, depth + 1) + below.substr(2);
  }
  if (target.starts_with(kRedirector)) {  // \Device\LanmanRedirector\;X:0000…\server\share
    const std::size_t share = target.find(L'\\', kRedirector.size());
    if (share != std::wstring::npos) return std::wstring(kMup) + target.substr(share + 1);
  }
  return target;
}

// Fewer paths in one folder are opened one by one: it may hold many more names.
constexpr int kPathsBeforeReading = 4;

}  // namespace

FolderNames::FolderNames(const std::wstring& folder) {
  WIN32_FIND_DATAW entry;
  HANDLE find = FindFirstFileW((folder + L"\\*").c_str(), &entry);
  if (find == INVALID_HANDLE_VALUE) return;
  const bool links_hide = VornCore::platform::Native().listings_hide_links;
  bool plain = true;
  do {
    const std::wstring name = entry.cFileName;
    const bool is_folder = entry.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY;
    const bool is_link =
        (entry.dwFileAttributes & FILE_ATTRIBUTE_REPARSE_POINT) || (links_hide && !is_folder);
    plain = plain && (IsPlainName(name) || name == L"." || name == L"..");
    for (const wchar_t* spelled : {entry.cFileName, entry.cAlternateFileName})
      if (*spelled) spellings_[SmallLetters(spelled)] = is_link ? std::wstring() : name;
  } while (FindNextFileW(find, &entry));
  complete_ = GetLastError() == ERROR_NO_MORE_FILES && plain;
  FindClose(find);
}

std::optional<std::wstring> FolderNames::Find(std::wstring_view name) const {
  if (!IsPlainName(name)) return std::nullopt;
  const auto known = spellings_.find(SmallLetters(name));
  if (known == spellings_.end()) return complete_ ? std::optional(std::wstring()) : std::nullopt;
  return known->second.empty() ? std::nullopt : std::optional(known->second);
}

const std::wstring& PathResolver::DeviceOf(const std::wstring& drive, const std::wstring& path) {
  std::wstring& device = devices_[drive];
  if (device.empty()) device = QueryDevice(drive, path);
  return device;
}

std::wstring PathResolver::DeviceOf(wchar_t letter) {
  try {
    return DeviceOf(std::wstring{letter, L':'}, {});
  } catch (const std::system_error&) {
    return {};
  }
}

// What lies in a folder that does not exist does not exist either: it is not asked about.
PathResolver::Place PathResolver::Find(const std::wstring& path) {
  const std::size_t separator = path.rfind(L'\\');
  const bool is_root = separator == std::wstring::npos || path.size() <= RootUnits(path);
  if (is_root && IsUnc(path)) return {path, true, true};
  Folder* folder = is_root ? nullptr : &FindFolder(path.substr(0, separator));
  bool missing = folder && !folder->exists;
  if (folder && folder->exists) {
    if (++folder->asked == kPathsBeforeReading) folder->names = std::make_unique<FolderNames>(folder->path);
    const auto spelling = folder->names ? folder->names->Find(path.substr(separator + 1)) : std::nullopt;
    if (spelling && !spelling->empty()) return {folder->path + L'\\' + *spelling, true, true};
    missing = spelling.has_value();
  }
  if (!missing) {
    std::wstring final_path = FinalPath(path, &missing);
    if (!final_path.empty()) return {std::move(final_path), true, true};
  }
  // A folder that may not be opened may have contents that may.
  if (!folder) return {path, !missing, !missing};
  return {folder->path + path.substr(separator), !missing, folder->exists};
}

PathResolver::Folder& PathResolver::FindFolder(const std::wstring& path) {
  if (const auto known = folders_.find(path); known != folders_.end()) return known->second;
  Folder folder{Find(path)};
  return folders_.emplace(path, std::move(folder)).first->second;
}

ResolvedPath PathResolver::Resolve(const std::wstring& path) {
  std::wstring plain = WithoutDevicePrefix(path);
  for (wchar_t& unit : plain) {
    if (unit == L'/') unit = L'\\';
  }
  if (plain.size() == 2 && plain[1] == L':') plain += L'\\';
  if (!HasDrive(plain) && !IsUnc(plain)) Fail(ERROR_BAD_PATHNAME, path);
  plain = FullPath(plain);
  while (plain.size() > 2 && plain.back() == L'\\') plain.pop_back();

  Place place = Find(plain);
  const std::size_t stream = policy::FindStream(policy::U16(std::wstring_view(plain)));
  if (!place.exists && stream != policy::kNotFound && stream > 2) {
    Place file = Find(plain.substr(0, stream));
    if (file.exists) place = {file.path + plain.substr(stream), true, true};
  }
  ResolvedPath resolved;
  resolved.exists = place.exists;
  resolved.folder_exists = place.folder_exists;
  resolved.nt_path = IsUnc(place.path) ? std::wstring(kMup) + place.path.substr(2)
                                       : DeviceOf(place.path.substr(0, 2), path) + place.path.substr(2);
  if (resolved.nt_path.ends_with(L'\\')) resolved.nt_path.pop_back();
  resolved.dos_path = std::move(place.path);
  return resolved;
}

ResolvedPath PathResolver::ResolveDevice(const std::wstring& path) {
  return {DeviceOf(path.substr(kDevice.size()), path), path, true, true};
}

bool IsDevicePath(const std::wstring& path) {
  return path.starts_with(kDevice) && path.find(L'\\', kDevice.size()) == std::wstring::npos;
}

std::wstring ToNtPath(const std::wstring& path) { return PathResolver().Resolve(path).nt_path; }

}  // namespace vorn::host
