#include "vorn/host_places.h"

#include <windows.h>

#include <algorithm>
#include <system_error>

#include "Policy/device_path.h"
#include "Policy/wide.h"
#include "vorn/environment.h"
#include "vorn/nt_path.h"
#include "vorn/text.h"

namespace vorn::host {
namespace {

bool Holds(const std::wstring& folder, const std::wstring& path) {
  return policy::IsUnder(policy::U16(std::wstring_view(path)), policy::U16(std::wstring_view(folder)));
}

// Whether opening this folder would open what nobody means by a temp folder.
bool IsTooWide(const std::wstring& folder, PathResolver& resolver) {
  wchar_t system[MAX_PATH + 1] = {};
  GetWindowsDirectoryW(system, MAX_PATH);
  const ResolvedPath place = resolver.Resolve(folder);
  if (place.dos_path.size() <= 3) return true;
  return std::ranges::any_of(std::initializer_list<std::wstring>{system, EnvironmentValue(L"USERPROFILE")},
                             [&](const std::wstring& path) {
                               return !path.empty() && Holds(place.nt_path, resolver.Resolve(path).nt_path);
                             });
}

void AddTempFolders(std::vector<HostRule>& rules) {
  PathResolver resolver;
  for (const wchar_t* name : {L"TMP", L"TEMP"}) {
    const std::wstring folder = EnvironmentValue(name);
    try {
      if (!folder.empty() && !IsTooWide(folder, resolver))
        rules.push_back({FileAccess::kWrite, folder, "temp folder", true});
    } catch (const std::system_error&) {
      // a relative path, or a drive that does not exist: no place to open
    }
  }
}

}  // namespace

std::vector<HostRule> FreePlaces(TempFolder temp, const std::wstring& private_temp) {
  std::vector<HostRule> rules;
  if (temp == TempFolder::kWrite) AddTempFolders(rules);
  if (temp == TempFolder::kPrivate && !private_temp.empty())
    rules.push_back({FileAccess::kWrite, private_temp, "temp folder of the run"});
  const DWORD drives = GetLogicalDrives();
  for (wchar_t letter = L'A'; letter <= L'Z'; ++letter) {
    const std::wstring root = {letter, L':', L'\\'};
    if ((drives >> (letter - L'A') & 1) && GetDriveTypeW(root.c_str()) == DRIVE_FIXED)
      rules.push_back({FileAccess::kWrite, root + L"$Recycle.Bin", "recycle bin", true});
  }
  return rules;
}

std::vector<HostRule> OwnPlaces(const PolicyDocument& document, const std::wstring& own_folder,
                                const std::wstring& policy_file, const std::wstring& events_file) {
  const auto chosen = [](const std::string& directory, const wchar_t* by_default) {
    return directory.empty() ? DataFolder(by_default) : ToWide(directory);
  };
  std::vector<HostRule> rules;
  for (auto& [path, what] : {std::pair{own_folder, "vorn's own folder"},
                             {policy_file, "the policy"},
                             {events_file, "the events of the run"},
                             {chosen(document.log_directory, L"logs"), "vorn's logs"},
                             {chosen(document.dump_directory, L"dumps"), "vorn's crash dumps"},
                             {DataFolder(L"runs"), "vorn's journals"}})
    if (!path.empty()) rules.push_back({FileAccess::kRead, path, what, false, true});
  return rules;
}

}  // namespace vorn::host
