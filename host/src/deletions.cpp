#include "vorn/deletions.h"

#include <windows.h>

#include <algorithm>
#include <set>

#include "vorn/run_journal.h"

namespace vorn::host {
namespace {

// Deletion times of the journal and of the bin come from two clocks and two roundings.
constexpr std::uint64_t kSameDeletionMs = 120'000;

bool SamePath(const std::wstring& a, const std::wstring& b) {
  return CompareStringOrdinal(a.c_str(), -1, b.c_str(), -1, TRUE) == CSTR_EQUAL;
}

std::uint64_t Distance(std::uint64_t a, std::uint64_t b) { return a > b ? a - b : b - a; }

std::wstring FileName(const std::wstring& path) { return path.substr(path.find_last_of(L'\\') + 1); }

// The bin knows where a file really lay, the journal the way on which the program came to it. What another
// run has kept is another file.
bool SameFile(const RecycledFile& file, const RecycleEntry& entry, const std::string& run) {
  if (!file.run.empty() && file.run != run) return false;
  return SamePath(file.original_path, entry.path) ||
         (file.run == run && SamePath(FileName(file.original_path), FileName(entry.path)));
}

// Takes the file of this deletion out of the bin's list: the same file, nearest time.
std::optional<RecycledFile> TakeFromBin(std::vector<RecycledFile>& bin, const RecycleEntry& entry,
                                        const std::string& run) {
  auto best = bin.end();
  for (auto it = bin.begin(); it != bin.end(); ++it) {
    const std::uint64_t distance = Distance(it->deleted_at_ms, entry.time_ms);
    if (SameFile(*it, entry, run) && distance <= kSameDeletionMs &&
        (best == bin.end() || distance < Distance(best->deleted_at_ms, entry.time_ms)))
      best = it;
  }
  if (best == bin.end()) return {};
  RecycledFile file = *best;
  bin.erase(best);
  return file;
}

}  // namespace

std::optional<std::vector<Deletion>> ListDeletions(const std::string& run) {
  const auto journal = RunJournal::Read(run);
  std::vector<RecycledFile> bin = ListRecycleBin(journal ? std::string_view() : run);
  std::vector<Deletion> deletions;
  for (const RecycleEntry& entry : journal.value_or(std::vector<RecycleEntry>()))
    deletions.push_back({entry.path, entry.time_ms, TakeFromBin(bin, entry, run)});
  // What the journal missed, because its process ended first, say.
  for (const RecycledFile& file : bin)
    if (file.run == run) deletions.push_back({file.original_path, file.deleted_at_ms, file});
  if (!journal && deletions.empty()) return {};
  std::ranges::stable_sort(deletions, {}, &Deletion::time_ms);
  return deletions;
}

std::vector<std::string> ListDeletingRuns() {
  const std::vector<std::string> journals = RunJournal::List();
  std::set<std::string> runs(journals.begin(), journals.end());
  for (const RecycledFile& file : ListRecycleBin())
    if (!file.run.empty()) runs.insert(file.run);
  return {runs.begin(), runs.end()};
}

}  // namespace vorn::host
