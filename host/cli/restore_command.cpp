#include <fmt/format.h>

#include <algorithm>
#include <filesystem>

#include "Policy/file_time.h"
#include "commands.h"
#include "vorn/deletions.h"
#include "vorn/event.h"
#include "vorn/text.h"
#include "windows/file_time.h"

namespace vorn::cli {
namespace {

bool SamePath(const std::wstring& a, const std::wstring& b) {
  return CompareStringOrdinal(a.c_str(), -1, b.c_str(), -1, TRUE) == CSTR_EQUAL;
}

std::string TimeText(std::uint64_t time_ms) {
  const FILETIME utc = windows::FileTimeOf(time_ms * policy::kTicksPerMillisecond + policy::kUnixEpochTicks);
  FILETIME local;
  SYSTEMTIME t;
  if (!FileTimeToLocalFileTime(&utc, &local) || !FileTimeToSystemTime(&local, &t)) return "?";
  return fmt::format("{:04}-{:02}-{:02} {:02}:{:02}:{:02}", t.wYear, t.wMonth, t.wDay, t.wHour, t.wMinute,
                     t.wSecond);
}

int ListRuns() {
  const std::vector<std::string> runs = host::ListDeletingRuns();
  if (runs.empty()) PrintLine("no run has moved anything to the recycle bin");
  for (const std::string& run : runs)
    PrintLine(fmt::format("{}  {} deleted", run,
                          host::ListDeletions(run).value_or(std::vector<host::Deletion>()).size()));
  return kExitOk;
}

}  // namespace

int Restore(const std::string& run, bool list, const std::vector<std::string>& paths) {
  if (run.empty()) return ListRuns();
  const auto entries = host::ListDeletions(run);
  if (!entries) {
    PrintErrorLine(
        fmt::format("vorn: there is no run \"{}\" that deleted anything (vorn restore lists the runs)", run));
    return kExitMistake;
  }
  int result = kExitOk;
  std::vector<std::wstring> wanted;
  for (const std::string& path : paths) {
    std::error_code error;
    const std::filesystem::path full = std::filesystem::absolute(host::ToWide(path), error).make_preferred();
    wanted.push_back(full.wstring());
    if (std::ranges::none_of(*entries,
                             [&](const auto& entry) { return SamePath(wanted.back(), entry.path); })) {
      PrintErrorLine(fmt::format("vorn: run {} has not deleted \"{}\"", run, path));
      result = kExitMistake;
    }
  }
  // The last deletion of a path is the one that its user remembers: it is put back first.
  for (auto entry = entries->rbegin(); entry != entries->rend(); ++entry) {
    if (!wanted.empty() &&
        std::ranges::none_of(wanted, [&](const std::wstring& path) { return SamePath(path, entry->path); }))
      continue;
    const std::string name = host::Printable(host::ToUtf8(entry->path));
    const std::optional<host::RecycledFile>& file = entry->stored;
    if (list) {
      PrintLine(
          fmt::format("{}  {:<14}  {}", TimeText(entry->time_ms), file ? "in recycle bin" : "gone", name));
      continue;
    }
    std::uint32_t error = 0;
    switch (file ? host::RestoreFile(*file, &error) : host::RestoreOutcome::kGone) {
      case host::RestoreOutcome::kRestored:
        PrintLine("restored        " + name);
        continue;
      case host::RestoreOutcome::kTargetExists:
        PrintLine("left in the bin " + name + " (a file of that name exists)");
        break;
      case host::RestoreOutcome::kElsewhere:
        PrintLine("left in the bin " + name + " (a link has taken the place of its folder)");
        break;
      case host::RestoreOutcome::kGone:
        PrintLine("gone            " + name + " (no longer in the recycle bin)");
        break;
      case host::RestoreOutcome::kFailed:
        PrintLine("failed          " + name + " (" + host::Win32ErrorText(error) + ")");
        break;
    }
    result = kExitMistake;
  }
  return result;
}

}  // namespace vorn::cli
