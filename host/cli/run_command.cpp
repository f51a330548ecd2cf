#include <windows.h>

#include <fmt/format.h>

#include <atomic>
#include <filesystem>
#include <memory>
#include <mutex>
#include <system_error>

#include "commands.h"
#include "run_report.h"
#include "vorn/environment.h"
#include "vorn/launcher.h"
#include "vorn/message_server.h"
#include "vorn/private_temp.h"
#include "vorn/pruning.h"
#include "vorn/text.h"

namespace vorn::cli {
namespace {

constexpr std::chrono::seconds kLastMessages{5};
constexpr std::chrono::hours kNoLimit{24 * 365};
constexpr std::uint32_t kExitByControlC = 0xC000013A;  // what the system gives a program that Ctrl-C ends

std::mutex g_run_lock;  // the console handler runs on a thread of its own
host::Launcher* g_run = nullptr;
std::atomic<bool> g_interrupted;

BOOL WINAPI OnConsoleControl(DWORD) {
  g_interrupted = true;
  const std::lock_guard lock(g_run_lock);
  if (g_run) g_run->TerminateAll(kExitByControlC);
  return TRUE;
}

// While it lives, Ctrl-C ends what the launcher started.
class InterruptibleRun {
 public:
  explicit InterruptibleRun(host::Launcher& launcher) {
    Set(&launcher);
    SetConsoleCtrlHandler(OnConsoleControl, TRUE);
  }
  ~InterruptibleRun() { Set(nullptr); }
  InterruptibleRun(const InterruptibleRun&) = delete;
  InterruptibleRun& operator=(const InterruptibleRun&) = delete;

 private:
  static void Set(host::Launcher* launcher) {
    const std::lock_guard lock(g_run_lock);
    g_run = launcher;
  }
};

// Whether the library of another run works in this process.
bool IsConfined() { return GetModuleHandleW(L"vorn_core.dll") || GetModuleHandleW(L"vorn_core32.dll"); }

// The directory of the policy's table, or the default; made when missing.
std::wstring Directory(const std::string& from_policy, const char* table, const wchar_t* name) {
  std::filesystem::path path(host::ToWide(from_policy));
  if (path.empty()) {
    path = host::DataFolder(name);
    if (path.empty())
      throw std::runtime_error(
          fmt::format("%LOCALAPPDATA% is not set: name a directory under [{}] in the policy", table));
  }
  if (!path.has_root_directory()) path /= L"\\";  // a drive alone would be its current folder
  std::error_code error;
  std::filesystem::create_directories(path, error);
  if (error)
    throw std::runtime_error(fmt::format("the directory \"{}\" of [{}] cannot be made: {}",
                                         host::ToUtf8(path.wstring()), table, error.message()));
  return path.wstring();
}

// The run's own temp folder, where the policy asks for one.
std::unique_ptr<host::PrivateTemp> MakePrivateTemp(host::TempFolder choice, const std::wstring& path) {
  if (choice != host::TempFolder::kPrivate) return {};
  if (path.empty())
    throw std::runtime_error("%LOCALAPPDATA% is not set: there is no place for temp = \"private\"");
  return std::make_unique<host::PrivateTemp>(path);
}

void OpenEvents(RunReport& report, const RunArguments& arguments) {
  std::error_code ignored;  // a file that does not exist yet
  if (std::filesystem::equivalent(host::ToWide(arguments.events_file), host::ToWide(arguments.policy_file),
                                  ignored))
    throw std::runtime_error("the events would overwrite the policy");
  if (!report.WriteEventsTo(arguments.events_file))
    throw std::runtime_error(fmt::format("cannot write the events file \"{}\": {}", arguments.events_file,
                                         host::Win32ErrorText(GetLastError())));
}

// Codes of the system, such as that of a crash, are known by their hexadecimal form.
std::string ExitText(std::uint32_t exit_code) {
  return exit_code < 0x80000000 ? fmt::format("exit code {}", exit_code)
                                : fmt::format("exit code {:#x}", exit_code);
}

}  // namespace

int Run(const RunArguments& arguments) {
  if (IsConfined()) {
    PrintErrorLine(
        "vorn: not run: this process is confined by another run, whose rules a run inside it would replace");
    return kExitCannotRun;
  }
  const std::string run = host::RunJournal::NewRunName();
  const std::wstring private_temp = host::PrivateTempPath(run);
  const auto policy = LoadPolicy(arguments.policy_file, {private_temp, arguments.events_file});
  if (!policy) return kExitCannotRun;
  try {
    const host::PolicyDocument& document = policy->document();
    if (const std::string off = NotConfined(document); !off.empty())
      PrintErrorLine(fmt::format("vorn: {} NOT CONFINED: enforce = false in {}", off, arguments.policy_file));
    const std::wstring log_directory = Directory(document.log_directory, "log", L"logs");
    const std::wstring dump_directory =
        document.write_dumps ? Directory(document.dump_directory, "dump", L"dumps") : std::wstring();
    host::Prune(log_directory, host::kKeptLogs);
    host::Prune(dump_directory, host::kKeptDumps);
    host::RunJournal journal(run);
    const auto temp = MakePrivateTemp(document.temp, private_temp);
    RunReport report(*policy, journal, dump_directory, arguments.quiet);
    if (!arguments.events_file.empty()) OpenEvents(report, arguments);
    host::MessageServer server(
        host::RandomName(L"vorn"),
        {.on_message = [&](const host::Peer& peer,
                           std::span<const std::byte> message) { report.OnMessage(peer.pid, message); },
         .on_connect = {},
         .on_disconnect = {},
         .on_error = [&](const std::string& text) { report.OnTransportError(text); }});
    host::SectionContents contents;
    policy->BuildSectionContents(contents);
    contents.UseLibrariesIn(OwnFolder());
    contents.server_port = server.port_name();
    contents.log_directory = log_directory;
    contents.dump_directory = dump_directory;
    contents.run = journal.run();
    contents.keep_places = host::FindKeepPlaces();
    const host::SharedSection section(contents);
    host::Launcher launcher(section);
    const InterruptibleRun interruptible(launcher);

    host::LaunchOptions options;
    options.command_line = arguments.program_command_line;
    if (temp) options.environment = {{L"TMP", private_temp}, {L"TEMP", private_temp}};
    auto started = launcher.Start(options);
    if (auto* failure = std::get_if<host::LaunchFailure>(&started)) {
      server.WaitUntilIdle(kLastMessages);
      server.Stop();
      report.Finish();
      if (g_interrupted) {
        PrintErrorLine("vorn: not run: ended by Ctrl-C");
        return static_cast<int>(kExitByControlC);
      }
      PrintErrorLine("vorn: not run: " + failure->text);
      const bool not_found = failure->stage == host::LaunchStage::kCreate &&
                             (failure->code == ERROR_FILE_NOT_FOUND || failure->code == ERROR_PATH_NOT_FOUND);
      return not_found ? kExitNotFound : kExitCannotRun;
    }
    const auto& program = std::get<host::ConfinedProcess>(started);
    if (g_interrupted) launcher.TerminateAll(kExitByControlC);  // before there was anything to end
    const std::uint32_t exit_code = *program.Wait();
    // What the program left running goes on under the run's eyes. Processes without the library do not hold
    // the run: they end with the launcher.
    server.WaitUntilIdle(kNoLimit);
    server.Stop();
    report.OnProcesses(program.pid(), launcher.Processes());
    report.PrintSummary(g_interrupted ? "ended by Ctrl-C" : ExitText(exit_code));
    return static_cast<int>(exit_code);
  } catch (const std::exception& error) {
    PrintErrorLine(fmt::format("vorn: not run: {}", error.what()));
    return kExitCannotRun;
  }
}

}  // namespace vorn::cli
