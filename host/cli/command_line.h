// The part of a Windows command line behind a word, with its quotes and blanks as they were typed.
#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace vorn::cli {

// What follows the first word that is exactly "--" (not quoted), without leading blanks. Nothing when there
// is none.
std::optional<std::wstring> TailAfterDashes(std::wstring_view command_line);

}  // namespace vorn::cli
