// A policy of many file rules made ready for use: time and memory, of 10,000 and of 100,000 rules, where the
// files of the rules are not there, and where their folder is.
#include <windows.h>

#include <psapi.h>

#include <chrono>
#include <cstdio>
#include <filesystem>
#include <string>

#include "vorn/compiled_policy.h"
#include "vorn/text.h"

namespace {

using namespace vorn::host;

std::string PolicyText(const std::string& top, std::size_t rules) {
  constexpr std::size_t kFilesOfAFolder = 100;
  std::string text = "[files]\nwrite = [\n";
  for (std::size_t i = 0; i < rules; ++i)
    text += "  '" + top + "\\folder" + std::to_string(i / kFilesOfAFolder) + "\\file" + std::to_string(i) +
            "',\n";
  return text + "]\n";
}

double PeakMegabytes() {
  PROCESS_MEMORY_COUNTERS counters{};
  K32GetProcessMemoryInfo(GetCurrentProcess(), &counters, sizeof counters);
  return static_cast<double>(counters.PeakWorkingSetSize) / (1 << 20);
}

double ProcessorMs() {
  FILETIME ignored, kernel, user;
  GetProcessTimes(GetCurrentProcess(), &ignored, &ignored, &kernel, &user);
  const auto ms = [](FILETIME t) {
    return static_cast<double>(std::uint64_t{t.dwHighDateTime} << 32 | t.dwLowDateTime) / 1e4;
  };
  return ms(kernel) + ms(user);
}

// How long work takes, and how long of that on the processor.
struct Duration {
  explicit Duration(auto work) {
    const auto start = std::chrono::steady_clock::now();
    const double processor = ProcessorMs();
    work();
    of_processor = ProcessorMs() - processor;
    elapsed = std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - start).count();
  }
  double elapsed, of_processor;
};

// The peak of a process only grows: smaller policies first.
void Measure(const char* where, const std::string& top, std::size_t rules, double budget_ms,
             double budget_mb) {
  const std::string text = PolicyText(top, rules);
  const double before = PeakMegabytes();
  std::variant<PolicyDocument, std::vector<PolicyError>> document;
  const Duration read([&] { document = ParsePolicy(text, [](auto) { return std::nullopt; }); });
  const double parsed = PeakMegabytes();
  std::size_t bytes = 0;
  const Duration made([&] {
    const auto policy = CompiledPolicy::Make(std::get<PolicyDocument>(std::move(document)), {});
    SectionContents contents;
    std::get<CompiledPolicy>(policy).BuildSectionContents(contents);
    bytes = contents.file_rules.size();
  });
  std::printf(
      "%-24s %6zu rules: read %5.0f (%4.0f) ms %3.0f MB, made ready %5.0f (%4.0f) ms %3.0f MB; "
      "budget %.0f ms, %.0f MB\n",
      where, bytes, read.elapsed, read.of_processor, parsed - before, made.elapsed, made.of_processor,
      PeakMegabytes() - parsed, budget_ms, budget_mb);
}

}  // namespace

int main() {
  const std::filesystem::path top = std::filesystem::temp_directory_path() / RandomName(L"vorn_policy_bench");
  for (int i = 0; i < 1000; ++i) std::filesystem::create_directories(top / ("folder" + std::to_string(i)));
  const std::string there = ToUtf8(top.wstring());
  for (const auto& [rules, ms, mb] : {std::tuple{10'000u, 100.0, 40.0}, {100'000u, 1000.0, 200.0}}) {
    Measure("no such folder", there + "\\none", rules, ms, mb);
    Measure("files of present folders", there, rules, ms, mb);
  }
  std::error_code ignored;
  std::filesystem::remove_all(top, ignored);
}
