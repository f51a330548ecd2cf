// Starts programs confined, and answers for what they start in turn.
//
//   vorn::host::Launcher launcher(section);
//   auto started = launcher.Start({.command_line = L"notepad.exe"});
//   if (auto* failure = std::get_if<LaunchFailure>(&started)) ... failure->text ...
//   auto& process = std::get<ConfinedProcess>(started);
//   process.Wait();
//   launcher.WaitForAll();             // children included
//
// Every program runs in the launcher's job object: destroying the launcher ends it and everything it started.
// A program that cannot be confined is ended before it runs an instruction of its own, or as soon as it is
// known.
#pragma once

#include <chrono>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <variant>
#include <vector>

#include "vorn/section.h"

namespace vorn::host {

// How far a start got when it failed.
enum class LaunchStage {
  kCreate,         // the process could not be created
  kJob,            // it could not be put under the launcher's control
  kInject,         // the library could not be injected
  kInitEvent,      // its init event could not be created
  kResume,         // its first thread could not be started
  kSectionName,    // the library found no section name (exit code 0x1…)
  kSection,        // the library could not use the section (0x2…)
  kThreadStorage,  // no thread-local storage (0x4…)
  kLog,            // the log files could not be opened (0x8…)
  kHooks,          // a function could not be intercepted (0xED…)
  kManagers,       // hooks, managers or channel failed (1114)
  kScratch,        // misuse of the library's scratch buffers (0xEED00A4C to 0xEED00A4E)
  kLoad,           // the loader could not load the program or the library (STATUS codes of the loader)
  kExited,         // it ended with another code before the library reported
  kTimeout,        // the library did not report in time
};

struct LaunchFailure {
  LaunchStage stage = LaunchStage::kCreate;
  // Win32 error (kCreate to kHooks), exit code (kManagers to kExited), 0 (kTimeout).
  std::uint32_t code = 0;
  std::uint32_t exit_code = 0;  // of the ended process, where it ended by itself; else 0
  std::string text = {};        // UTF-8: what failed and why
};

// What the exit code of a process that ended during start-up says.
LaunchFailure DescribeStartUpExit(std::uint32_t exit_code);

struct LaunchOptions {
  std::wstring application = {};        // full path; empty: found by the first word of the command line
  std::wstring command_line = {};       // as the program sees it, its own name first
  std::wstring working_directory = {};  // empty: the host's
  // Changes to the host's environment: a value, or nothing to remove the variable.
  std::vector<std::pair<std::wstring, std::optional<std::wstring>>> environment = {};
  // Handles for the program's standard streams; null: the host's own. They need not be inheritable; no other
  // handle is inherited. Remain the caller's.
  void* standard_input = nullptr;
  void* standard_output = nullptr;
  void* standard_error = nullptr;
  // How long the library may take to report that it is ready.
  std::chrono::milliseconds start_timeout = std::chrono::seconds(30);
};

// A running confined program. Any thread; the launcher must outlive it.
class ConfinedProcess {
 public:
  ConfinedProcess(ConfinedProcess&&) noexcept;
  ConfinedProcess& operator=(ConfinedProcess&&) noexcept;
  ~ConfinedProcess();  // lets the program run on, as long as the launcher lives

  std::uint32_t pid() const noexcept;
  void* handle() const noexcept;  // process handle, owned by this object

  // The exit code, or nothing when time is up.
  std::optional<std::uint32_t> Wait(std::optional<std::chrono::milliseconds> timeout = std::nullopt) const;
  // Ends this process alone. False: it could not be ended.
  bool Terminate(std::uint32_t exit_code) const;

 private:
  friend class Launcher;
  struct Impl;
  explicit ConfinedProcess(std::unique_ptr<Impl> impl) noexcept;
  std::unique_ptr<Impl> impl_;
};

// A process that runs or ran under a launcher, confined or not.
struct LaunchedProcess {
  std::uint32_t pid = 0;
  std::uint32_t parent_pid = 0;  // 0: it had ended before it could be asked
  std::wstring image = {};       // full path; empty as above
  // It was seen to be the system's rundll32 running the run's own library: the process that gives the library
  // to a child of the other bitness, and which starts the library up like any other process when it is not
  // that.
  bool injection_helper = false;
};

class Launcher {
 public:
  // The section must outlive the launcher. Throws std::system_error when there can be no job object.
  explicit Launcher(const SharedSection& section);
  ~Launcher();  // ends everything that still runs
  Launcher(const Launcher&) = delete;
  Launcher& operator=(const Launcher&) = delete;

  // Creates the program suspended, injects the library of its bitness, lets it run and waits until the
  // library reports or the process ends. One start at a time.
  std::variant<ConfinedProcess, LaunchFailure> Start(const LaunchOptions& options);

  // Whether a process belongs to this launcher: started by it or by what it started. Any thread.
  bool Owns(std::uint32_t pid) const;

  // Every process of the launcher so far, in the order of their start, as the system tells it: also those
  // that never spoke to the host. A process id that was used again stands here twice. Any thread.
  std::vector<LaunchedProcess> Processes() const;

  // Waits until no process of the launcher runs. False: time is up.
  bool WaitForAll(std::optional<std::chrono::milliseconds> timeout = std::nullopt);

  // Ends every process of the launcher. Any thread.
  void TerminateAll(std::uint32_t exit_code);

 private:
  class Impl;
  std::unique_ptr<Impl> impl_;
};

}  // namespace vorn::host
