#include "vorn/pruning.h"

#include <algorithm>
#include <filesystem>
#include <system_error>
#include <vector>

namespace vorn::host {
namespace {

namespace fs = std::filesystem;

struct OldFile {
  fs::path path;
  fs::file_time_type written;
  std::uint64_t bytes;
};

// Oldest first.
std::vector<OldFile> FilesOf(const std::wstring& folder, const KeepLimits& limits) {
  std::vector<OldFile> files;
  std::error_code error;
  for (fs::directory_iterator it(folder, error), end; !error && it != end; it.increment(error)) {
    const std::wstring name = it->path().filename().wstring();
    if (!name.starts_with(limits.begin) || !name.ends_with(limits.end)) continue;
    std::error_code gone;
    OldFile file{it->path(), it->last_write_time(gone), it->file_size(gone)};
    if (!gone) files.push_back(std::move(file));
  }
  std::ranges::sort(files, {}, &OldFile::written);
  return files;
}

}  // namespace

void Prune(const std::wstring& folder, const KeepLimits& limits) noexcept try {
  const std::vector<OldFile> files = FilesOf(folder, limits);
  std::uint64_t bytes = 0;
  for (const OldFile& file : files) bytes += file.bytes;
  const auto oldest = fs::file_time_type::clock::now() - limits.age;
  for (const OldFile& file : files) {
    if (file.written >= oldest && bytes <= limits.bytes) return;
    std::error_code error;
    if (fs::remove(file.path, error)) bytes -= file.bytes;
  }
} catch (...) {
  // short of memory: the next run tries again
}

}  // namespace vorn::host
