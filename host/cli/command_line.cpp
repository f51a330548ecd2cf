#include "command_line.h"

namespace vorn::cli {

std::optional<std::wstring> TailAfterDashes(std::wstring_view command_line) {
  std::size_t at = 0;
  const auto blank = [](wchar_t c) { return c == L' ' || c == L'\t'; };
  while (at < command_line.size()) {
    while (at < command_line.size() && blank(command_line[at])) ++at;
    const std::size_t start = at;
    bool quoted = false;
    for (; at < command_line.size() && (quoted || !blank(command_line[at])); ++at) {
      std::size_t backslashes = 0;
      while (at < command_line.size() && command_line[at] == L'\\') ++backslashes, ++at;
      if (at == command_line.size()) break;
      if (command_line[at] == L'"' && backslashes % 2 == 0)
        quoted = !quoted;
      else if (backslashes)
        --at;  // look at the unit behind the backslashes as an ordinary one
    }
    if (command_line.substr(start, at - start) == L"--") {
      while (at < command_line.size() && blank(command_line[at])) ++at;
      return std::wstring(command_line.substr(at));
    }
  }
  return {};
}

}  // namespace vorn::cli
