// Named kernel objects that confined processes open by their full NT name, such as
// \Sessions\1\BaseNamedObjects\vorn_4711_….
#pragma once

#include <string>
#include <string_view>

namespace vorn::host {

// The full NT name of an object of this process's session with this short name (no backslash). Throws
// std::system_error.
std::wstring NamedObjectPath(std::wstring_view short_name);

}  // namespace vorn::host
