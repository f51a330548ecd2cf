#include "foreign_program.h"

#include <algorithm>
#include <string>

#include "Platform/native.h"
#include "vorn/text.h"
#include "windows/unique_handle.h"

namespace vorn::host {
namespace {

using windows::UniqueHandle;

// The file that the system finds by this name; empty when there is none.
std::wstring Find(const std::wstring& name) {
  wchar_t* folders = nullptr;
  if (!nt::Success(RtlGetExePath(name.c_str(), &folders))) return {};
  std::wstring path(32768, L'\0');
  const auto search = [&](const wchar_t* extension) {
    return SearchPathW(folders, name.c_str(), extension, static_cast<DWORD>(path.size()), path.data(),
                       nullptr);
  };
  DWORD units = search(L".exe");
  if (!units) units = search(nullptr);
  RtlReleasePath(folders);
  path.resize(units < path.size() ? units : 0);
  return path;
}

std::wstring FindProgram(const LaunchOptions& options) {
  if (!options.application.empty()) return options.application;
  const std::wstring& line = options.command_line;
  if (line.starts_with(L'"')) return Find(line.substr(1, line.find(L'"', 1) - 1));
  // Without quotes, a name with blanks is tried part by part.
  for (std::size_t end = 0; end < line.size();) {
    end = std::min(line.find_first_of(L" \t", end + 1), line.size());
    if (std::wstring path = Find(line.substr(0, end)); !path.empty()) return path;
  }
  return {};
}

// True also for what cannot be opened: the system says why.
bool IsImage(const std::wstring& path) {
  const UniqueHandle file(
      CreateFileW(path.c_str(), GENERIC_READ, nt::kShareAll, nullptr, OPEN_EXISTING, 0, nullptr));
  if (!file) return true;
  const UniqueHandle image(CreateFileMappingW(file.get(), nullptr, PAGE_READONLY | SEC_IMAGE, 0, 0, nullptr));
  return image || GetLastError() != ERROR_BAD_EXE_FORMAT;
}

bool IsBatchFile(const std::wstring& path) {
  const std::wstring kind = path.substr(std::min(path.size(), path.rfind(L'.')));
  return _wcsicmp(kind.c_str(), L".bat") == 0 || _wcsicmp(kind.c_str(), L".cmd") == 0;
}

}  // namespace

std::optional<LaunchFailure> RefuseForeignProgram(LaunchOptions& options) {
  if (!VornCore::platform::Native().starts_foreign_programs) return {};
  const std::wstring program = FindProgram(options);
  if (IsImage(program)) return {};
  if (!IsBatchFile(program))
    return LaunchFailure{LaunchStage::kCreate, ERROR_BAD_EXE_FORMAT, 0,
                         ToUtf8(program) + " is no program of Windows: it could not be confined"};
  wchar_t system[MAX_PATH + 1] = {};
  GetSystemDirectoryW(system, MAX_PATH);
  options.application = std::wstring(system) + L"\\cmd.exe";
  options.command_line = L"\"" + options.application + L"\" /s /c \"" + options.command_line + L"\"";
  return {};
}

}  // namespace vorn::host
