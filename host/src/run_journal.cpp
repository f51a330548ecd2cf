#include "vorn/run_journal.h"

#include <windows.h>

#include <algorithm>
#include <nlohmann/json.hpp>

#include "vorn/environment.h"
#include "vorn/pruning.h"
#include "vorn/text.h"

namespace vorn::host {
namespace {

namespace fs = std::filesystem;

fs::path Folder() { return DataFolder(L"runs"); }

bool IsRunName(const std::string& run) {
  return !run.empty() && std::all_of(run.begin(), run.end(), [](char c) {
    return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'z') || c == '-';
  });
}

// Empty where there is no folder for journals.
fs::path FileOf(const std::string& run) {
  const fs::path folder = Folder();
  return folder.empty() ? folder : folder / (run + ".jsonl");
}

}  // namespace

RunJournal::RunJournal(std::string run) : run_(std::move(run)) {}

bool RunJournal::Add(const RecycleEntry& entry) {
  if (!file_.is_open()) {
    std::error_code ignored;
    if (Folder().empty()) return false;
    fs::create_directories(Folder(), ignored);
    Prune(Folder().wstring(), kKeptJournals);
    file_.open(FileOf(run_), std::ios::binary | std::ios::app);
  }
  const nlohmann::json line = {{"path", ToUtf8(entry.path)}, {"time_ms", entry.time_ms}, {"pid", entry.pid}};
  file_ << line.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace) << '\n' << std::flush;
  ++count_;
  return file_.good();
}

std::string RunJournal::NewRunName() {
  SYSTEMTIME now;
  GetLocalTime(&now);
  char name[64];
  std::snprintf(name, sizeof name, "%04u%02u%02u-%02u%02u%02u-%lu", now.wYear, now.wMonth, now.wDay,
                now.wHour, now.wMinute, now.wSecond, GetCurrentProcessId());
  return name;
}

std::optional<std::vector<RecycleEntry>> RunJournal::Read(const std::string& run) {
  if (!IsRunName(run)) return {};
  std::ifstream file(FileOf(run), std::ios::binary);
  if (!file) return {};
  std::vector<RecycleEntry> entries;
  for (std::string line; std::getline(file, line);) {
    const auto json = nlohmann::json::parse(line, nullptr, false);
    if (!json.is_object() || !json.contains("path") || !json["path"].is_string())
      continue;  // a line cut by a crash
    entries.push_back({ToWide(json["path"].get<std::string>()), json.value("time_ms", std::uint64_t{0}),
                       json.value("pid", 0u)});
  }
  return entries;
}

std::vector<std::string> RunJournal::List() {
  std::vector<std::string> runs;
  std::error_code error;
  for (fs::directory_iterator it(Folder(), error), end; !error && it != end; it.increment(error))
    if (it->path().extension() == L".jsonl") runs.push_back(it->path().stem().string());
  std::sort(runs.begin(), runs.end());
  return runs;
}

}  // namespace vorn::host
