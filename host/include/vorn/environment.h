// This process's environment, and environment blocks for new processes.
#pragma once

#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace vorn::host {

// The value of a variable; empty when it is not set.
std::wstring EnvironmentValue(const wchar_t* name);

// %LOCALAPPDATA%\Vorn\name, where vorn keeps what it writes; empty when the variable is not set.
std::wstring DataFolder(const wchar_t* name);

using EnvironmentChanges = std::vector<std::pair<std::wstring, std::optional<std::wstring>>>;

// This process's environment with the changes (a value, or nothing to remove the variable; the last change of
// a name counts), as a block for CreateProcessW. Names are compared without regard to case.
std::wstring ChangedEnvironment(const EnvironmentChanges& changes);

}  // namespace vorn::host
