// Start to exit of a child process, confined against plain: a probe starts children one after another, once
// unconfined and once under the library, in alternating rounds. Budget: 1.35. The same again with a directory
// for crash dumps, for which the library keeps a thread and the debug-help library ready.
//
// child_start_bench [ROUNDS [CHILDREN]]
// child_start_bench plain|confined|dumps CHILDREN   runs this kind alone, to be counted: see
// tools/count-start
#include <windows.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <variant>
#include <vector>

#include "tests/unit/build_paths.h"
#include "vorn/create_process.h"
#include "vorn/launcher.h"
#include "vorn/message_server.h"
#include "vorn/policy_file.h"
#include "vorn/section.h"
#include "vorn/text.h"

namespace {

using Clock = std::chrono::steady_clock;
constexpr double kBudget = 1.35;

double Median(std::vector<double> values) {
  std::nth_element(values.begin(), values.begin() + values.size() / 2, values.end());
  return values[values.size() / 2];
}

// The command line with which a probe starts count children that end at once.
std::wstring Storm(int count) {
  const std::wstring probe = L"\"" + vorn::test::BuildPath("process_probe.exe").wstring() + L"\" ";
  return probe + L"storm 1 " + std::to_wstring(count) + L" " + probe + L"exit 0";
}

[[noreturn]] void Fail(const std::string& text) {
  std::fprintf(stderr, "%s\n", text.c_str());
  std::exit(1);
}

void RunPlain(std::wstring command) {
  STARTUPINFOW startup{};
  startup.cb = sizeof startup;
  PROCESS_INFORMATION process{};
  if (!vorn::host::CreateProcessWithRetry(nullptr, command.data(), FALSE, 0, nullptr, nullptr, &startup,
                                          &process))
    Fail(vorn::host::Win32ErrorText(GetLastError()));
  WaitForSingleObject(process.hProcess, 120'000);
  DWORD code = 1;
  GetExitCodeProcess(process.hProcess, &code);
  CloseHandle(process.hThread);
  CloseHandle(process.hProcess);
  if (code != 0) Fail("plain run: exit code " + std::to_string(code));
}

void RunConfined(vorn::host::Launcher& launcher, const std::wstring& command) {
  auto started = launcher.Start({.command_line = command});
  if (const auto* failure = std::get_if<vorn::host::LaunchFailure>(&started)) Fail(failure->text);
  const auto code = std::get<vorn::host::ConfinedProcess>(started).Wait(std::chrono::seconds(120));
  if (code != 0u) Fail("confined run: exit code " + std::to_string(code.value_or(~0u)));
}

// Milliseconds per child: a run of many, less a run of none.
template <class Run>
double PerChild(int children, Run run) {
  const auto time = [&](int count) {
    const auto start = Clock::now();
    run(Storm(count));
    return std::chrono::duration<double, std::milli>(Clock::now() - start).count();
  };
  const double none = time(0);
  return (time(children) - none) / children;
}

}  // namespace

int main(int argc, char** argv) {
  const std::string only = argc > 2 && std::strtol(argv[1], nullptr, 10) == 0 ? argv[1] : "";
  const int rounds = argc > 1 && only.empty() ? std::atoi(argv[1]) : 9;
  const int children = argc > 2 ? std::atoi(argv[2]) : 20;
  if (only.empty() && (rounds < 1 || children < 1)) Fail("usage: child_start_bench [ROUNDS [CHILDREN]]");

  const auto logs = std::filesystem::temp_directory_path() / vorn::host::RandomName(L"vorn_bench");
  std::filesystem::create_directories(logs);
  {
    vorn::host::MessageServer server(vorn::host::RandomName(L"vorn_bench"), {});
    vorn::host::SectionContents contents;
    contents.UseLibrariesIn(vorn::test::ThisProgram().parent_path().wstring());
    contents.log_directory = logs.wstring();
    contents.server_port = server.port_name();
    contents.flags = vorn::host::PolicyDocument{}.log_level;
    contents.options = vorn::host::kRunOptions;
    const vorn::host::SharedSection section(contents);
    contents.dump_directory = logs.wstring();
    const vorn::host::SharedSection section_with_dumps(contents);
    vorn::host::Launcher launcher(section), launcher_with_dumps(section_with_dumps);

    if (!only.empty()) {
      if (only == "plain")
        RunPlain(Storm(children));
      else
        RunConfined(only == "dumps" ? launcher_with_dumps : launcher, Storm(children));
      return 0;
    }

    struct Kind {
      const char* name;
      vorn::host::Launcher* launcher;
      std::vector<double> times = {}, ratios = {};
    } kinds[] = {{"confined", &launcher}, {"confined, with dumps", &launcher_with_dumps}};
    std::vector<double> plain;
    for (int round = 0; round < rounds; ++round) {
      plain.push_back(PerChild(children, RunPlain));
      for (Kind& kind : kinds) {
        kind.times.push_back(
            PerChild(children, [&](const std::wstring& command) { RunConfined(*kind.launcher, command); }));
        kind.ratios.push_back(kind.times.back() / plain.back());
      }
    }
    std::printf("child, start to exit: plain %.1f ms\n", Median(plain));
    for (const Kind& kind : kinds)
      std::printf("  %s: %.1f ms, ratio %.2f (budget %.2f)\n", kind.name, Median(kind.times),
                  Median(kind.ratios), kBudget);
    for (const Kind& kind : kinds) kind.launcher->WaitForAll(std::chrono::seconds(30));
    server.WaitUntilIdle(std::chrono::seconds(30));
  }
  std::error_code ignored;
  std::filesystem::remove_all(logs, ignored);
  return 0;
}
