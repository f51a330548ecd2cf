// What a run moved to the recycle bin, kept so that it can be listed and put back after the run.
//
// A journal is one file of JSON Lines per run in %LOCALAPPDATA%\Vorn\runs, made with the first deletion: a
// run that deletes nothing leaves none. Not thread-safe: one owner.
#pragma once

#include <cstdint>
#include <filesystem>
#include <fstream>
#include <optional>
#include <string>
#include <vector>

namespace vorn::host {

struct RecycleEntry {
  std::wstring path;          // as the program knew it, drive-letter or UNC form
  std::uint64_t time_ms = 0;  // milliseconds since 1970 UTC
  std::uint32_t pid = 0;      // the process that deleted it
};

class RunJournal {
 public:
  // run: a name made of letters, digits and dashes.
  explicit RunJournal(std::string run);

  const std::string& run() const { return run_; }
  std::size_t count() const { return count_; }
  // Appends and flushes. False when the journal cannot be written.
  bool Add(const RecycleEntry& entry);

  // A new run name: local date and time, and the host's process id.
  static std::string NewRunName();
  // Entries of a run in order, or nothing when there is no such journal.
  static std::optional<std::vector<RecycleEntry>> Read(const std::string& run);
  // Names of the runs that have a journal, oldest first.
  static std::vector<std::string> List();

 private:
  std::string run_;
  std::ofstream file_;
  std::size_t count_ = 0;
};

}  // namespace vorn::host
