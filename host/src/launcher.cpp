#include "vorn/launcher.h"

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <condition_variable>
#include <mutex>
#include <system_error>
#include <thread>

#include "detours/detours.h"
#include "foreign_program.h"
#include "injection/child_start.h"
#include "process_query.h"
#include "vorn/create_process.h"
#include "vorn/environment.h"
#include "vorn/text.h"
#include "windows/known_names.h"
#include "windows/process_facts.h"
#include "windows/unique_handle.h"
#include "windows/user_only_security.h"

namespace vorn::host {

namespace {

using windows::UniqueHandle;

// Completion keys other than that of the job's notices, which is 0.
constexpr ULONG_PTR kStopKey = 1, kDrainKey = 2;
constexpr UINT kNotConfinedExit = 0xE0000001;  // of a process that is ended because it could not be confined

LaunchFailure Failure(LaunchStage stage, DWORD error, std::string_view what) {
  return {stage, error, 0, fmt::format("{}: {}", what, Win32ErrorText(error))};
}

DWORD Milliseconds(std::optional<std::chrono::milliseconds> timeout) {
  if (!timeout) return INFINITE;
  return static_cast<DWORD>(std::clamp<std::int64_t>(timeout->count(), 0, INFINITE - 1));
}

// The program's standard streams: inheritable copies, and the list that keeps every other handle out.
class InheritedStreams {
 public:
  explicit InheritedStreams(const LaunchOptions& options) {
    const std::array<std::pair<void*, DWORD>, 3> streams{{{options.standard_input, STD_INPUT_HANDLE},
                                                          {options.standard_output, STD_OUTPUT_HANDLE},
                                                          {options.standard_error, STD_ERROR_HANDLE}}};
    for (std::size_t i = 0; i < streams.size(); ++i) {
      HANDLE source = streams[i].first ? streams[i].first : GetStdHandle(streams[i].second);
      HANDLE copy = nullptr;
      if (source && source != INVALID_HANDLE_VALUE) {
        DuplicateHandle(GetCurrentProcess(), source, GetCurrentProcess(), &copy, 0, TRUE,
                        DUPLICATE_SAME_ACCESS);
      }
      copies_[i].reset(copy);
      if (copy) list_[count_++] = copy;
    }
  }

  HANDLE operator[](std::size_t i) const { return copies_[i].get(); }
  HANDLE* list() { return list_.data(); }
  std::size_t count() const { return count_; }

 private:
  std::array<UniqueHandle, 3> copies_;
  std::array<HANDLE, 3> list_{};
  std::size_t count_ = 0;
};

struct AttributeListDeleter {
  void operator()(LPPROC_THREAD_ATTRIBUTE_LIST list) const {
    DeleteProcThreadAttributeList(list);
    ::operator delete(list);
  }
};
using AttributeList =
    std::unique_ptr<std::remove_pointer_t<LPPROC_THREAD_ATTRIBUTE_LIST>, AttributeListDeleter>;

// Null when there is nothing to inherit.
AttributeList HandleList(InheritedStreams& streams) {
  if (streams.count() == 0) return {};
  SIZE_T bytes = 0;
  InitializeProcThreadAttributeList(nullptr, 1, 0, &bytes);
  auto* memory = static_cast<LPPROC_THREAD_ATTRIBUTE_LIST>(::operator new(bytes));
  if (!InitializeProcThreadAttributeList(memory, 1, 0, &bytes)) {
    ::operator delete(memory);
    return {};
  }
  AttributeList list(memory);
  if (!UpdateProcThreadAttribute(list.get(), 0, PROC_THREAD_ATTRIBUTE_HANDLE_LIST, streams.list(),
                                 streams.count() * sizeof(HANDLE), nullptr, nullptr)) {
    return {};
  }
  return list;
}

// 0 or a Win32 error.
DWORD Inject(HANDLE process, DWORD pid, const std::wstring& library) {
  if (library.empty() || GetFileAttributesW(library.c_str()) == INVALID_FILE_ATTRIBUTES)
    return ERROR_MOD_NOT_FOUND;
  const std::string path = ToAnsi(PathForAnsi(library));
  if (path.empty()) return ERROR_NO_UNICODE_TRANSLATION;
  return injection::InjectLibrary(process, pid, path.c_str(),
                                  [](DWORD, auto run_helper) { return run_helper(); });
}

DWORD CreateInitEvent(const std::wstring& prefix, DWORD pid, UniqueHandle& event) {
  injection::InitEventName name(prefix.data(), prefix.size() * sizeof(wchar_t), pid);
  windows::UserOnlySecurity security;
  if (security.error()) return security.error();
  const NTSTATUS status = name.Create(event.put(), security.descriptor());
  return nt::Success(status) ? 0 : RtlNtStatusToDosErrorNoTeb(status);
}

}  // namespace

struct ConfinedProcess::Impl {
  UniqueHandle process;
  DWORD pid = 0;
};

ConfinedProcess::ConfinedProcess(std::unique_ptr<Impl> impl) noexcept : impl_(std::move(impl)) {}
ConfinedProcess::ConfinedProcess(ConfinedProcess&&) noexcept = default;
ConfinedProcess& ConfinedProcess::operator=(ConfinedProcess&&) noexcept = default;
ConfinedProcess::~ConfinedProcess() = default;
std::uint32_t ConfinedProcess::pid() const noexcept { return impl_->pid; }
void* ConfinedProcess::handle() const noexcept { return impl_->process.get(); }

std::optional<std::uint32_t> ConfinedProcess::Wait(std::optional<std::chrono::milliseconds> timeout) const {
  if (WaitForSingleObject(impl_->process.get(), Milliseconds(timeout)) != WAIT_OBJECT_0) return std::nullopt;
  DWORD code = 0;
  GetExitCodeProcess(impl_->process.get(), &code);
  return code;
}

bool ConfinedProcess::Terminate(std::uint32_t exit_code) const {
  return TerminateProcess(impl_->process.get(), exit_code) != 0;
}

class Launcher::Impl {
 public:
  explicit Impl(const SharedSection& section) : section_(section) {
    const auto check = [](bool good) {
      if (!good)
        throw std::system_error(static_cast<int>(GetLastError()), std::system_category(), "job object");
    };
    job_.reset(CreateJobObjectW(nullptr, nullptr));
    check(bool(job_));
    JOBOBJECT_EXTENDED_LIMIT_INFORMATION limits{};
    limits.BasicLimitInformation.LimitFlags = JOB_OBJECT_LIMIT_KILL_ON_JOB_CLOSE;
    check(SetInformationJobObject(job_.get(), JobObjectExtendedLimitInformation, &limits, sizeof limits));
    notices_.reset(CreateIoCompletionPort(INVALID_HANDLE_VALUE, nullptr, 0, 1));
    check(bool(notices_));
    JOBOBJECT_ASSOCIATE_COMPLETION_PORT port{nullptr, notices_.get()};
    check(
        SetInformationJobObject(job_.get(), JobObjectAssociateCompletionPortInformation, &port, sizeof port));
    watcher_ = std::thread([this] { Watch(); });
  }

  ~Impl() {
    PostQueuedCompletionStatus(notices_.get(), 0, kStopKey, nullptr);
    watcher_.join();
  }

  std::variant<ConfinedProcess, LaunchFailure> Start(LaunchOptions options) {
    if (auto failure = RefuseForeignProgram(options)) return std::move(*failure);
    PROCESS_INFORMATION created{};
    if (const DWORD error = CreateSuspended(options, created)) {
      const std::wstring& program = options.application.empty() ? options.command_line : options.application;
      return Failure(LaunchStage::kCreate, error, fmt::format("cannot start {}", ToUtf8(program)));
    }
    UniqueHandle thread(created.hThread);
    auto process = std::make_unique<ConfinedProcess::Impl>();
    process->process.reset(created.hProcess);
    process->pid = created.dwProcessId;
    if (auto failure = Confine(*process, thread.get(), options)) {
      // Whatever it was, the process does not run on unconfined.
      TerminateProcess(process->process.get(), kNotConfinedExit);
      WaitForSingleObject(process->process.get(), 5000);
      return std::move(*failure);
    }
    return ConfinedProcess(std::move(process));
  }

  bool Owns(std::uint32_t pid) const {
    const UniqueHandle process(OpenProcess(PROCESS_QUERY_INFORMATION, FALSE, pid));
    BOOL inside = FALSE;
    return process && IsProcessInJob(process.get(), job_.get(), &inside) && inside;
  }

  std::vector<LaunchedProcess> Processes() const {
    std::unique_lock lock(mutex_);
    // The fence comes behind every notice that is there already.
    if (PostQueuedCompletionStatus(notices_.get(), 0, kDrainKey, nullptr)) {
      const std::uint64_t fence = ++fences_posted_;
      changed_.wait(lock, [&] { return fences_passed_ >= fence; });
    }
    return processes_;
  }

  bool WaitForAll(std::optional<std::chrono::milliseconds> timeout) {
    // The job tells when it becomes empty, but does not promise to: hence the longest single wait.
    constexpr std::chrono::milliseconds kLongestWait = std::chrono::seconds(1);
    const auto start = std::chrono::steady_clock::now();
    std::unique_lock lock(mutex_);
    while (ActiveProcesses() != 0) {
      auto wait = kLongestWait;
      if (timeout) {
        const auto left = *timeout - std::chrono::duration_cast<std::chrono::milliseconds>(
                                         std::chrono::steady_clock::now() - start);
        if (left.count() <= 0) return false;
        wait = std::min(wait, left);
      }
      changed_.wait_for(lock, wait);
    }
    return true;
  }

  void TerminateAll(std::uint32_t exit_code) { TerminateJobObject(job_.get(), exit_code); }

 private:
  // A process that did not tell everything yet when its notice came: Wine's tells its image once it has
  // loaded it.
  struct Unasked {
    std::size_t index;  // in processes_
    UniqueHandle process;
    ULONGLONG give_up = GetTickCount64() + 10'000;
  };

  // Of the thread that reads the job's notices: a process that lives for a moment is asked for its name while
  // it can be.
  void Watch() {
    constexpr DWORD kAskAgainMs = 2;
    std::vector<Unasked> unasked;
    for (;;) {
      DWORD message = 0;
      ULONG_PTR key = 0;
      OVERLAPPED* pid = nullptr;  // where the notice is about a process
      const bool got = GetQueuedCompletionStatus(notices_.get(), &message, &key, &pid,
                                                 unasked.empty() ? INFINITE : kAskAgainMs);
      if (!got && GetLastError() != WAIT_TIMEOUT) return;
      std::erase_if(unasked, [this](Unasked& process) { return AskAgain(process); });
      if (!got) continue;
      if (key == kStopKey) return;
      if (key == kDrainKey) {
        std::lock_guard lock(mutex_);
        ++fences_passed_;
        changed_.notify_all();
      } else if (message == JOB_OBJECT_MSG_NEW_PROCESS) {
        UniqueHandle process;
        LaunchedProcess described = Describe(static_cast<DWORD>(reinterpret_cast<ULONG_PTR>(pid)), process);
        std::lock_guard lock(mutex_);
        if (process) unasked.push_back({.index = processes_.size(), .process = std::move(process)});
        processes_.push_back(std::move(described));
      } else if (message == JOB_OBJECT_MSG_ACTIVE_PROCESS_ZERO) {
        std::lock_guard lock(mutex_);
        changed_.notify_all();
      }
    }
  }

  // process: opened when there is more to ask later.
  LaunchedProcess Describe(DWORD pid, UniqueHandle& process) const {
    LaunchedProcess description{.pid = pid};
    process.reset(OpenProcess(PROCESS_QUERY_INFORMATION | PROCESS_VM_READ | SYNCHRONIZE, FALSE, pid));
    BOOL inside = FALSE;
    if (!process || !IsProcessInJob(process.get(), job_.get(), &inside) || !inside) {
      process.reset();
      return description;
    }
    description.parent_pid = windows::ParentProcessIdOf(process.get());
    if (Ask(process.get(), description)) process.reset();
    return description;
  }

  // Fills in what the process tells by now; false when it may tell more later.
  bool Ask(HANDLE process, LaunchedProcess& described) const {
    described.image = ImageOf(process);
    if (described.image.empty()) return false;
    if (!described.image.ends_with(L"\\rundll32.exe")) return true;  // spares most the second question
    const std::wstring command = CommandLineOf(process);
    const SectionContents& contents = section_.contents();
    described.injection_helper =
        std::ranges::any_of(std::array{&contents.core_x64, &contents.core_x86}, [&](const auto* library) {
          return DetourIsHelperCommand(described.image.c_str(), command.c_str(), ToAnsi(*library).c_str());
        });
    return !command.empty();
  }

  // True when there is no more to ask: it has told everything, or has ended, or does not tell.
  bool AskAgain(Unasked& unasked) {
    LaunchedProcess now;
    const bool complete = Ask(unasked.process.get(), now);
    if (!now.image.empty()) {
      std::lock_guard lock(mutex_);
      processes_[unasked.index].image = std::move(now.image);
      processes_[unasked.index].injection_helper |= now.injection_helper;
    }
    return complete || WaitForSingleObject(unasked.process.get(), 0) == WAIT_OBJECT_0 ||
           GetTickCount64() >= unasked.give_up;
  }

  DWORD ActiveProcesses() const {
    JOBOBJECT_BASIC_ACCOUNTING_INFORMATION accounting{};
    QueryInformationJobObject(job_.get(), JobObjectBasicAccountingInformation, &accounting, sizeof accounting,
                              nullptr);
    return accounting.ActiveProcesses;
  }

  // 0 or a Win32 error.
  DWORD CreateSuspended(const LaunchOptions& options, PROCESS_INFORMATION& created) {
    InheritedStreams streams(options);
    const AttributeList attributes = HandleList(streams);
    STARTUPINFOEXW startup{};
    startup.StartupInfo.cb = attributes ? sizeof startup : sizeof startup.StartupInfo;
    startup.StartupInfo.dwFlags = STARTF_USESTDHANDLES;
    startup.StartupInfo.hStdInput = streams[0];
    startup.StartupInfo.hStdOutput = streams[1];
    startup.StartupInfo.hStdError = streams[2];
    startup.lpAttributeList = attributes.get();

    EnvironmentChanges changes = options.environment;
    changes.emplace_back(windows::kSectionVariable, section_.name());
    std::wstring environment = ChangedEnvironment(changes);
    std::wstring command_line = options.command_line;  // CreateProcessW writes into it
    const DWORD flags = CREATE_SUSPENDED | CREATE_UNICODE_ENVIRONMENT |
                        (attributes ? static_cast<DWORD>(EXTENDED_STARTUPINFO_PRESENT) : 0);
    const bool done = CreateProcessWithRetry(
        options.application.empty() ? nullptr : options.application.c_str(), command_line.data(),
        attributes != nullptr, flags, environment.data(),
        options.working_directory.empty() ? nullptr : options.working_directory.c_str(), &startup.StartupInfo,
        &created);
    if (!done) return GetLastError();
    // Wine starts Unix programs too, without a Windows process: there is nothing that could be confined.
    if (!created.hProcess || !created.hThread) return ERROR_BAD_EXE_FORMAT;
    return 0;
  }

  // Nothing: the library has reported that it is ready.
  std::optional<LaunchFailure> Confine(const ConfinedProcess::Impl& created, HANDLE thread,
                                       const LaunchOptions& options) {
    HANDLE process = created.process.get();
    if (!AssignProcessToJobObject(job_.get(), process)) {
      return Failure(LaunchStage::kJob, GetLastError(), "the program could not be put under control");
    }
    const SectionContents& contents = section_.contents();
    const std::wstring* library =
        windows::ForMachine(windows::MachineOf(process), &contents.core_x64, &contents.core_x86);
    if (!library) {
      return Failure(LaunchStage::kInject, ERROR_NOT_SUPPORTED,
                     "there is no library for the program's machine");
    }
    if (const DWORD error = Inject(process, created.pid, *library)) {
      return Failure(LaunchStage::kInject, error, fmt::format("{} could not be injected", ToUtf8(*library)));
    }
    UniqueHandle ready;
    if (const DWORD error = CreateInitEvent(contents.init_event_prefix, created.pid, ready)) {
      return Failure(LaunchStage::kInitEvent, error, "the init event could not be created");
    }
    if (ResumeThread(thread) == static_cast<DWORD>(-1)) {
      return Failure(LaunchStage::kResume, GetLastError(), "the program's thread could not be started");
    }
    const injection::Start start =
        injection::WaitForStart(ready.get(), process, Milliseconds(options.start_timeout));
    switch (start.outcome) {
      case injection::StartOutcome::kReady:
        return std::nullopt;
      case injection::StartOutcome::kEnded:
        return DescribeStartUpExit(start.exit_code);
      default:
        return LaunchFailure{
            LaunchStage::kTimeout, 0, 0,
            fmt::format("the library did not report within {} ms", options.start_timeout.count())};
    }
  }

  const SharedSection& section_;
  UniqueHandle job_;
  UniqueHandle notices_;
  mutable std::mutex mutex_;
  mutable std::condition_variable changed_;  // a fence has passed, or the job became empty
  mutable std::uint64_t fences_posted_ = 0;
  std::uint64_t fences_passed_ = 0;
  std::vector<LaunchedProcess> processes_;
  std::thread watcher_;
};

Launcher::Launcher(const SharedSection& section) : impl_(std::make_unique<Impl>(section)) {}
Launcher::~Launcher() = default;
std::variant<ConfinedProcess, LaunchFailure> Launcher::Start(const LaunchOptions& options) {
  return impl_->Start(options);
}
bool Launcher::Owns(std::uint32_t pid) const { return impl_->Owns(pid); }
std::vector<LaunchedProcess> Launcher::Processes() const { return impl_->Processes(); }
bool Launcher::WaitForAll(std::optional<std::chrono::milliseconds> timeout) {
  return impl_->WaitForAll(timeout);
}
void Launcher::TerminateAll(std::uint32_t exit_code) { impl_->TerminateAll(exit_code); }

}  // namespace vorn::host
