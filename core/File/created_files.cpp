#include "File/created_files.h"

#include "Platform/native.h"
#include "Policy/path_hash.h"
#include "Policy/wide.h"

namespace VornCore {
namespace {

std::uint32_t HashOf(std::wstring_view path) { return vorn::policy::HashPathNoCase(vorn::policy::U16(path)); }

}  // namespace

std::uint64_t FileIdOf(HANDLE file) noexcept {
  std::uint64_t id = 0;
  IO_STATUS_BLOCK io;
  const NTSTATUS status = platform::Native().NtQueryInformationFile(
      file, &io, &id, sizeof id, static_cast<FILE_INFORMATION_CLASS>(nt::kFileInternalInformation));
  return nt::Success(status) ? id : 0;
}

void CreatedFiles::Remember(HANDLE file, std::wstring_view path) noexcept {
  const std::uint64_t id = FileIdOf(file);
  const std::uint32_t hash = HashOf(path);
  platform::LockGuard guard(lock_);
  EntryOf(hash) = {id, hash};
}

bool CreatedFiles::Holds(HANDLE file, std::wstring_view path) noexcept {
  const std::uint32_t hash = HashOf(path);
  Entry known;
  {
    platform::LockGuard guard(lock_);
    known = EntryOf(hash);
  }
  return known.id != 0 && known.path_hash == hash && known.id == FileIdOf(file);
}

void CreatedFiles::Rename(HANDLE file, std::wstring_view from, std::wstring_view to) noexcept {
  const bool holds = Holds(file, from);
  const std::uint32_t old_hash = HashOf(from), new_hash = HashOf(to);
  platform::LockGuard guard(lock_);
  const Entry moved = EntryOf(old_hash);
  if (holds) EntryOf(old_hash) = {};
  // What lies at the new path from now on is this file.
  if (holds || EntryOf(new_hash).path_hash == new_hash)
    EntryOf(new_hash) = holds ? Entry{moved.id, new_hash} : Entry{};
}

}  // namespace VornCore
