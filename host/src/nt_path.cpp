#include "vorn/nt_path.h"

#include <system_error>

#include "ipc/port/unique_handle.h"
#include "vorn/text.h"

namespace vorn::host {

namespace {

constexpr std::wstring_view kDevicePrefix = L"\\\\?\\";
constexpr std::wstring_view kDeviceUncPrefix = L"\\\\?\\UNC\\";
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

std::wstring FullPath(const std::wstring& path) {
  std::wstring full(kMaxPathUnits, L'\0');
  const DWORD units = GetFullPathNameW(path.c_str(), static_cast<DWORD>(full.size()), full.data(), nullptr);
  if (units == 0 || units >= full.size()) Fail(units ? ERROR_FILENAME_EXCED_RANGE : GetLastError(), path);
  full.resize(units);
  return full;
}

// The final form of an existing file or folder, or nothing.
std::wstring FinalPath(const std::wstring& path) {
  const ipc::UniqueHandle file(CreateFileW(path.c_str(), FILE_READ_ATTRIBUTES, nt::kShareAll, nullptr,
                                           OPEN_EXISTING, FILE_FLAG_BACKUP_SEMANTICS, nullptr));
  if (!file) return {};
  std::wstring final_path(kMaxPathUnits, L'\0');
  const DWORD units = GetFinalPathNameByHandleW(file.get(), final_path.data(),
                                                static_cast<DWORD>(final_path.size()), VOLUME_NAME_DOS);
  if (units == 0 || units >= final_path.size()) return {};
  final_path.resize(units);
  return WithoutDevicePrefix(std::move(final_path));
}

// Resolves the longest part of the path that exists; "\\server" alone and what is above a root is never
// asked.
std::wstring Resolve(const std::wstring& path) {
  const std::size_t root = IsUnc(path) ? path.find(L'\\', 2) : 2;
  for (std::size_t end = path.size(); end != std::wstring::npos && end >= root;
       end = path.rfind(L'\\', end - 1)) {
    // A drive is opened as its root folder: without the backslash it would be the volume.
    std::wstring part = path.substr(0, end);
    if (part.size() == 2) part += L'\\';
    std::wstring final_path = FinalPath(part);
    if (final_path.empty()) continue;
    if (final_path.back() == L'\\') final_path.pop_back();
    return final_path + path.substr(end);
  }
  return path;
}

// The device of a drive such as "C:"; a substituted drive's is below another drive, a mapped one's below Mup.
std::wstring DeviceOf(const std::wstring& drive, const std::wstring& path, int depth = 0) {
  std::wstring target(kMaxPathUnits, L'\0');
  if (!QueryDosDeviceW(drive.c_str(), target.data(), static_cast<DWORD>(target.size())))
    Fail(GetLastError(), path);
  target.resize(std::wstring(target.c_str()).size());  // the first of several strings is in force
  if (target.starts_with(kDosDirectory) && depth < 8) {
    const std::wstring below = target.substr(kDosDirectory.size());
    if (below.starts_with(L"UNC\\")) return std::wstring(kMup) + below.substr(4);
    return DeviceOf(below.substr(0, 2), path, depth + 1) + below.substr(2);
  }
  if (target.starts_with(kRedirector)) {  // \Device\LanmanRedirector\;X:0000…\server\share
    const std::size_t share = target.find(L'\\', kRedirector.size());
    if (share != std::wstring::npos) return std::wstring(kMup) + target.substr(share + 1);
  }
  return target;
}

}  // namespace

std::wstring ToNtPath(const std::wstring& path) {
  std::wstring plain = WithoutDevicePrefix(path);
  for (wchar_t& unit : plain) {
    if (unit == L'/') unit = L'\\';
  }
  if (plain.size() == 2 && plain[1] == L':') plain += L'\\';
  if (!HasDrive(plain) && !IsUnc(plain)) Fail(ERROR_BAD_PATHNAME, path);
  plain = FullPath(plain);
  while (plain.size() > 3 && plain.back() == L'\\') plain.pop_back();

  const std::wstring resolved = Resolve(plain);
  std::wstring result = IsUnc(resolved) ? std::wstring(kMup) + resolved.substr(2)
                                        : DeviceOf(resolved.substr(0, 2), path) + resolved.substr(2);
  if (result.back() == L'\\') result.pop_back();
  return result;
}

}  // namespace vorn::host
