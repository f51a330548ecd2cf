// The path that the library decides on, from the path that a person writes.
#pragma once

#include <string>

namespace vorn::host {

// The canonical NT path (such as \Device\HarddiskVolume3\Users\a, UNC: \Device\Mup\server\share\a, no
// backslash at the end) of an absolute drive-letter or UNC path, with or without "\\?\". The part of the path
// that exists is resolved to its final form: links, junctions, short names, substituted and mapped drives,
// because the library decides on final paths; the rest stays as written, with "." and ".." taken out. Throws
// std::system_error: ERROR_BAD_PATHNAME for a path that is neither form, ERROR_FILE_NOT_FOUND for a drive
// that does not exist.
std::wstring ToNtPath(const std::wstring& path);

}  // namespace vorn::host
