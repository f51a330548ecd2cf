// The path that the library decides on, from the path that a person writes.
#pragma once

#include <memory>
#include <optional>
#include <string>
#include <string_view>
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

// The names in one folder, read at one time: what is plain to see there need not be opened.
class FolderNames {
 public:
  explicit FolderNames(const std::wstring& folder);  // final path; one that cannot be read knows nothing

  // How the folder spells the entry that this name leads to; empty when there is no such entry. Nothing when
  // only the system can tell: links, names that are not plain ASCII, streams.
  std::optional<std::wstring> Find(std::wstring_view name) const;

 private:
  // By name and by short name, in small letters; an empty spelling is one to ask the system about.
  std::unordered_map<std::wstring, std::wstring> spellings_;
  bool complete_ = false;
};

// Resolves paths, and remembers the folders and drives that it has met: for many paths at one time. A folder
// in which several paths lie is read once. Not for concurrent use.
class PathResolver {
 public:
  // path: absolute drive-letter or UNC path, with or without "\\?\", in either kind of slash; "." and ".."
  // are taken out. Throws std::system_error: ERROR_BAD_PATHNAME for a path that is neither form,
  // ERROR_FILE_NOT_FOUND for a drive that does not exist.
  ResolvedPath Resolve(const std::wstring& path);

  // The device that a path such as "\\.\C:" or "\\.\PhysicalDrive0" names (IsDevicePath). Throws
  // std::system_error: ERROR_FILE_NOT_FOUND for one that does not exist.
  ResolvedPath ResolveDevice(const std::wstring& path);

  // The device of the drive with this letter, without links; empty when there is none.
  std::wstring DeviceOf(wchar_t letter);

 private:
  struct Place {
    std::wstring path;  // final drive-letter or UNC path
    bool exists = false;
    bool folder_exists = false;  // always true of a place that exists
  };
  struct Folder : Place {
    int asked = 0;                            // how many paths in it
    std::unique_ptr<FolderNames> names = {};  // once it was read
  };
  Place Find(const std::wstring& path);
  Folder& FindFolder(const std::wstring& path);
  const std::wstring& DeviceOf(const std::wstring& drive, const std::wstring& path);

  std::unordered_map<std::wstring, Folder> folders_;
  std::unordered_map<std::wstring, std::wstring> devices_;  // by "C:"
};

// "\\.\" and a name.
bool IsDevicePath(const std::wstring& path);

// The NT path of a single path; see PathResolver.
std::wstring ToNtPath(const std::wstring& path);

}  // namespace vorn::host
