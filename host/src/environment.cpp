#include "vorn/environment.h"

#include <algorithm>
#include <filesystem>
#include <memory>
#include <string_view>

#include "windows/nt.h"

namespace vorn::host {

namespace {

bool SameName(std::wstring_view a, std::wstring_view b) {
  return CompareStringOrdinal(a.data(), static_cast<int>(a.size()), b.data(), static_cast<int>(b.size()),
                              TRUE) == CSTR_EQUAL;
}

}  // namespace

std::wstring EnvironmentValue(const wchar_t* name) {
  std::wstring value(32767, L'\0');  // the longest there can be
  value.resize(GetEnvironmentVariableW(name, value.data(), static_cast<DWORD>(value.size())));
  return value;
}

std::wstring DataFolder(const wchar_t* name) {
  const std::wstring base = EnvironmentValue(L"LOCALAPPDATA");
  return base.empty() ? base : (std::filesystem::path(base) / L"Vorn" / name).wstring();
}

std::wstring ChangedEnvironment(const EnvironmentChanges& changes) {
  std::wstring block;
  const std::unique_ptr<wchar_t, decltype(&FreeEnvironmentStringsW)> own(GetEnvironmentStringsW(),
                                                                         &FreeEnvironmentStringsW);
  for (std::wstring_view entry(own.get()); !entry.empty(); entry = entry.data() + entry.size() + 1) {
    // A name may begin with "=": the current folders of drives.
    const std::wstring_view name = entry.substr(0, entry.find(L'=', 1));
    const bool changed =
        std::ranges::any_of(changes, [&](const auto& change) { return SameName(change.first, name); });
    if (!changed) block.append(entry).push_back(L'\0');
  }
  for (auto change = changes.begin(); change != changes.end(); ++change) {
    const bool overruled = std::any_of(
        change + 1, changes.end(), [&](const auto& later) { return SameName(later.first, change->first); });
    if (overruled || !change->second) continue;
    block.append(change->first).append(L"=").append(*change->second).push_back(L'\0');
  }
  if (block.empty()) block.push_back(L'\0');
  block.push_back(L'\0');
  return block;
}

}  // namespace vorn::host
