#include "vorn/crash_dump.h"

#include <fmt/format.h>
#include <fmt/xchar.h>

#include <algorithm>
#include <cstring>
#include <vector>

#include "Policy/file_time.h"
#include "Policy/wide.h"
#include "vorn/text.h"
#include "windows/file_time.h"
#include "windows/unique_handle.h"

namespace vorn::host {
namespace {

// Dump and notice take their times from one clock, the dump in whole seconds.
constexpr std::uint64_t kClockSlackMs = 2'000;
constexpr std::uint64_t kUnknownStartMs = 600'000;

// A file read through one window: the tables and names of a dump lie close together.
class WindowedFile {
 public:
  explicit WindowedFile(const std::wstring& path)
      : file_(CreateFileW(path.c_str(), GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_DELETE, nullptr,
                          OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr)) {
    LARGE_INTEGER size{};
    if (!file_ || !GetFileSizeEx(file_.get(), &size)) error_ = GetLastError();
    size_ = static_cast<std::uint64_t>(size.QuadPart);
  }

  DWORD error() const { return error_; }
  std::uint64_t size() const { return size_; }

  bool Read(std::uint64_t offset, std::span<std::byte> out) {
    if (out.size() > kWindowBytes) return ReadFileAt(offset, out);
    if (offset < start_ || offset + out.size() > start_ + window_.size()) {
      window_.resize(static_cast<std::size_t>(std::min<std::uint64_t>(kWindowBytes, size_ - offset)));
      start_ = offset;
      if (!ReadFileAt(offset, window_)) {
        window_.clear();
        return false;
      }
    }
    std::memcpy(out.data(), window_.data() + (offset - start_), out.size());
    return true;
  }

 private:
  static constexpr std::size_t kWindowBytes = 64 << 10;

  bool ReadFileAt(std::uint64_t offset, std::span<std::byte> out) {
    OVERLAPPED at{};
    at.Offset = static_cast<DWORD>(offset);
    at.OffsetHigh = static_cast<DWORD>(offset >> 32);
    DWORD read = 0;
    const bool done = ReadFile(file_.get(), out.data(), static_cast<DWORD>(out.size()), &read, &at);
    if (!done) error_ = GetLastError();
    return done && read == out.size();
  }

  windows::UniqueHandle file_;
  DWORD error_ = 0;
  std::uint64_t size_ = 0;
  std::uint64_t start_ = 0;
  std::vector<std::byte> window_;
};

struct Candidate {
  std::wstring path;
  std::uint64_t written_at_ms;
};

// The dumps of every process that has or had the id, newest first.
std::vector<Candidate> DumpsOf(const std::wstring& directory, std::uint32_t pid) {
  const std::wstring folder = directory.ends_with(L'\\') ? directory : directory + L'\\';
  const std::wstring pattern = fmt::format(L"{}{:08x}-*.{}{}", folder, pid, policy::W(policy::kDumpFileTag),
                                           policy::W(policy::kDumpExtension));
  std::vector<Candidate> candidates;
  WIN32_FIND_DATAW found;
  HANDLE search = FindFirstFileW(pattern.c_str(), &found);
  if (search == INVALID_HANDLE_VALUE) return candidates;
  do {
    candidates.push_back(
        {folder + found.cFileName, policy::UnixMilliseconds(windows::TicksOf(found.ftLastWriteTime))});
  } while (FindNextFileW(search, &found));
  FindClose(search);
  std::ranges::sort(candidates, std::greater(), &Candidate::written_at_ms);
  return candidates;
}

}  // namespace

std::variant<Minidump, std::string> ReadMinidumpFile(const std::wstring& path) {
  WindowedFile file(path);
  if (file.error()) return Win32ErrorText(file.error());
  auto parsed = ParseMinidump(
      file.size(), [&](std::uint64_t offset, std::span<std::byte> out) { return file.Read(offset, out); });
  if (auto* dump = std::get_if<Minidump>(&parsed)) return std::move(*dump);
  const auto& error = std::get<MinidumpError>(parsed);
  if (file.error()) return fmt::format("{}: {}", error.reason, Win32ErrorText(file.error()));
  return fmt::format("{} (at byte {})", error.reason, error.offset);
}

std::optional<CrashDumpFile> FindCrashDump(const std::wstring& directory, const CrashNoticeOrigin& notice) {
  const std::uint64_t latest = notice.noticed_at_ms + kClockSlackMs;
  const std::uint64_t start = notice.started_at_ms
                                  ? notice.started_at_ms
                                  : notice.noticed_at_ms - std::min(notice.noticed_at_ms, kUnknownStartMs);
  const std::uint64_t earliest = start - std::min(start, kClockSlackMs);
  const auto in_time = [&](std::uint64_t ms) { return ms >= earliest && ms <= latest; };

  std::optional<CrashDumpFile> unreadable;
  for (const Candidate& candidate : DumpsOf(directory, notice.pid)) {
    auto contents = ReadMinidumpFile(candidate.path);
    if (const auto* dump = std::get_if<Minidump>(&contents)) {
      // The dump's own time, which a file server's clock has not touched.
      if (dump->crash && dump->crash->crashing_thread_id == notice.thread_id &&
          in_time(std::uint64_t{dump->time} * 1000))
        return CrashDumpFile{candidate.path, std::move(contents)};
    } else if (!unreadable && in_time(candidate.written_at_ms)) {
      unreadable = CrashDumpFile{candidate.path, std::move(contents)};
    }
  }
  return unreadable;
}

void AddCrashDump(Event& event, const std::wstring& directory, std::uint64_t started_at_ms) {
  auto* crash = std::get_if<CrashEvent>(&event.body);
  if (!crash || directory.empty()) return;
  auto found = FindCrashDump(directory, {event.pid, crash->thread_id, event.time_ms, started_at_ms});
  if (!found) {
    crash->dump_problem = "no dump was written";
    return;
  }
  crash->dump = ToUtf8(found->path);
  if (auto* problem = std::get_if<std::string>(&found->contents)) {
    crash->dump_problem = *problem;
    return;
  }
  const auto& dump = std::get<Minidump>(found->contents);
  if (!dump.exception) {
    crash->dump_problem = "it holds no exception";
    return;
  }
  crash->address = dump.exception->address;
  crash->fault = FaultText(*dump.exception);
  if (const MinidumpModule* module = ModuleAt(dump, crash->address)) {
    crash->module = ModuleName(*module);
    crash->offset = crash->address - module->base;
  }
}

}  // namespace vorn::host
