// Texts at the edge between Windows (UTF-16) and everything that is printed or stored (UTF-8). Parts that are
// not valid become U+FFFD. Any thread.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace vorn::host {

std::string ToUtf8(std::wstring_view text);
std::wstring ToWide(std::string_view text);

// A path's text in the ANSI code page, which import tables are written in; empty when that cannot express it
// or it has no room in MAX_PATH * 3 bytes.
std::string ToAnsi(const std::wstring& text);
// The path, or its short form where the ANSI code page cannot express it and there is one.
std::wstring PathForAnsi(const std::wstring& path);

// The system's sentence for a Win32 error, without full stop or line end: "The system cannot find the file
// specified"; "error N" when it has none.
std::string Win32ErrorText(std::uint32_t error);

// prefix + "_" + process id + "_" + 128 random bits in hexadecimal: a name that nobody can guess, for ports
// and named objects.
std::wstring RandomName(std::wstring_view prefix);

}  // namespace vorn::host
