// The path that the library decides on, from the path that a person writes.
#pragma once

#include <string>
#include <unordered_map>

namespace vorn::host {

struct ResolvedPath {
  // Canonical NT path, such as \Device\HarddiskVolume3\Users\a or \Device\Mup\server\share\a; no backslash at
  // the end. The part that exists is in its final form: links, junctions, short names, substituted and mapped
  // drives are resolved, because the library decides on final paths. The rest stays as written.
  std::wstring nt_path;
  std::wstring dos_path;      // the same as drive-letter or UNC path
  bool exists = false;        // the file, or for a stream that does not exist, its file
  bool folder_exists = true;  // false: neither the file nor the folder that it would be created in
};

// Resolves paths, and remembers the folders and drives that it has met: for many paths at one time. Not for
// concurrent use.
class PathResolver {
 public:
  // path: absolute drive-letter or UNC path, with or without "\\?\", in either kind of slash; "." and ".."
  // are taken out. Throws std::system_error: ERROR_BAD_PATHNAME for a path that is neither form,
  // ERROR_FILE_NOT_FOUND for a drive that does not exist.
  ResolvedPath Resolve(const std::wstring& path);

 private:
  struct Place {
    std::wstring path;  // final drive-letter or UNC path
    bool exists = false;
    bool folder_exists = false;  // always true of a place that exists
  };
  Place Find(const std::wstring& path);
  const Place& FindFolder(const std::wstring& path);
  const std::wstring& DeviceOf(const std::wstring& drive, const std::wstring& path);

  std::unordered_map<std::wstring, Place> folders_;
  std::unordered_map<std::wstring, std::wstring> devices_;  // by "C:"
};

// The NT path of a single path; see PathResolver.
std::wstring ToNtPath(const std::wstring& path);

}  // namespace vorn::host
