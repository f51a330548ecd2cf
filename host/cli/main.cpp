// vorn.exe: start programs confined, check and explain policies, put deleted files back, read crash
// dumps.
#include <windows.h>

#include <shellapi.h>

#include <CLI/CLI.hpp>
#include <sstream>

#include "command_line.h"
#include "commands.h"
#include "vorn/text.h"

namespace {

std::vector<std::string> Arguments() {
  int count = 0;
  wchar_t** words = CommandLineToArgvW(GetCommandLineW(), &count);
  std::vector<std::string> arguments;
  for (int i = 1; words && i < count; ++i) arguments.push_back(vorn::host::ToUtf8(words[i]));
  LocalFree(words);
  return arguments;
}

int Main() {
  CLI::App app("Runs programs confined: a policy says which files and network destinations they may use.",
               "vorn");
  app.require_subcommand(1);
  app.allow_windows_style_options(false);  // "/c/x" is a path
  app.set_version_flag("--version", VORN_VERSION);
  app.set_help_all_flag("--help-all", "Print the help of all commands");

  vorn::cli::RunArguments run_arguments;
  std::vector<std::string> program;
  CLI::App* run = app.add_subcommand("run", "Run a program under a policy; returns the program's exit code");
  run->add_option("-p,--policy", run_arguments.policy_file, "Policy file (TOML)")->required();
  run->add_option("-e,--events", run_arguments.events_file,
                  "Write every event to this file, one JSON object a line");
  run->add_flag("-q,--quiet", run_arguments.quiet, "Show the summary only, not every event");
  run->add_option("program", program, "The program and its arguments, behind --")->required();
  run->footer("Example: vorn run --policy work.toml -- cmd /c build.bat");

  std::string policy_file;
  CLI::App* check =
      app.add_subcommand("check", "Check a policy; every mistake is shown with line and column");
  check->add_option("policy", policy_file, "Policy file (TOML)")->required();

  std::vector<std::string> questions;
  CLI::App* explain = app.add_subcommand("explain", "Say which rule decides a path or a destination");
  explain->add_option("-p,--policy", policy_file, "Policy file (TOML)")->required();
  explain->add_option("question", questions, "Paths (C:\\work\\a.txt) or destinations (example.com:443)")
      ->required();

  std::string run_name;
  bool list = false;
  std::vector<std::string> paths;
  CLI::App* restore = app.add_subcommand("restore", "Put back what a run moved to the recycle bin");
  restore->add_flag("-l,--list", list, "Only show it");
  restore->add_option("run", run_name, "The run, as its summary named it (without: lists the runs)");
  restore->add_option("paths", paths, "Only these files");

  std::string dump_file;
  CLI::App* dump =
      app.add_subcommand("dump", "Say what a crash dump holds: exception, place, threads, modules");
  dump->add_option("file", dump_file, "Crash dump (.dmp)")->required();

  std::vector<std::string> arguments = Arguments();
  // Words behind the "--" of run are the program's; the parser must not look for options among them.
  if (!arguments.empty() && arguments.front() == "run") {
    const std::optional<std::wstring> tail = vorn::cli::TailAfterDashes(GetCommandLineW());
    if (const auto dashes = std::find(arguments.begin(), arguments.end(), "--");
        dashes != arguments.end() && tail) {
      arguments.erase(dashes, arguments.end());
      if (!tail->empty()) arguments.push_back("program");
      run_arguments.program_command_line = *tail;
    }
  }
  try {
    std::reverse(arguments.begin(), arguments.end());
    app.parse(arguments);
  } catch (const CLI::ParseError& error) {
    std::ostringstream output, errors;
    std::string line;
    const int code = app.exit(error, output, errors);
    for (std::istringstream lines(output.str()); std::getline(lines, line);) vorn::cli::PrintLine(line);
    if (code == 0) return vorn::cli::kExitOk;
    if (dynamic_cast<const CLI::RequiredError*>(&error))  // perhaps because another word is misspelt
      for (const std::string& word : app.remaining(true))
        vorn::cli::PrintErrorLine("not understood: " + word);
    for (std::istringstream lines(errors.str()); std::getline(lines, line);) vorn::cli::PrintErrorLine(line);
    return vorn::cli::kExitCannotRun;
  }
  if (*check) return vorn::cli::Check(policy_file);
  if (*explain) return vorn::cli::Explain(policy_file, questions);
  if (*restore) return vorn::cli::Restore(run_name, list, paths);
  if (*dump) return vorn::cli::Dump(dump_file);
  if (run_arguments.program_command_line.empty()) {
    vorn::cli::PrintErrorLine(
        "vorn: write the program behind --, as in: vorn run --policy work.toml -- cmd /c build.bat");
    return vorn::cli::kExitCannotRun;
  }
  return vorn::cli::Run(run_arguments);
}

}  // namespace

int main() {
  try {
    return Main();
  } catch (const std::exception& error) {
    vorn::cli::PrintErrorLine(std::string("vorn: ") + error.what());
    return vorn::cli::kExitCannotRun;
  }
}
