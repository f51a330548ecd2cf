#include "Proc/proc_mgr.h"

#include <cstring>

#include "Platform/guard.h"
#include "Platform/last_error.h"
#include "Proc/child_environment.h"
#include "Proc/child_injection.h"
#include "Proc/foreign_program.h"
#include "Proc/init_event.h"
#include "Proc/process_event.h"
#include "VornCore/Base/hook_depth_guard.h"
#include "VornCore/Base/log.h"
#include "VornCore/Base/strings.h"
#include "VornCore/Hook/own_handle.h"
#include "injection/child_start.h"

namespace VornCore {
namespace {

constexpr DWORD kInitTimeoutMs = 10'000;

// A creation routine that a debugger or another tool holds at its first byte will not resume the child
// through us in the usual way.
bool CreateProcessHasBreakpoint() noexcept {
  return *reinterpret_cast<const volatile std::uint8_t*>(&CreateProcessW) == 0xCC;
}

// What the library needs of the caller's process parameters: memory that it does not trust.
struct ChildParameters {
  nt::ProcessParameters* callers;  // null when they cannot be read
  wchar_t* environment;
  SIZE_T environment_size;  // bytes
  UNICODE_STRING image;
};

ChildParameters ReadParameters(PRTL_USER_PROCESS_PARAMETERS parameters) noexcept {
  ChildParameters child{};
  auto* const callers = reinterpret_cast<nt::ProcessParameters*>(parameters);
  const bool readable = platform::Guarded([&] {
    child.environment = callers->Environment;
    child.environment_size = callers->EnvironmentSize;
    child.image = callers->ImagePathName;
  });
  child.callers = readable ? callers : nullptr;
  return child;
}

// A terminated copy, or null.
HeapString CopyImagePath(const UNICODE_STRING& image) noexcept {
  HeapString copy(static_cast<wchar_t*>(calloc(image.Length / sizeof(wchar_t) + 1, sizeof(wchar_t))));
  if (!copy || !image.Buffer) return nullptr;
  if (!platform::Guarded([&] { memcpy(copy.get(), image.Buffer, image.Length); })) return nullptr;
  return copy;
}

// Calls create() with the child's environment extended, and puts the caller's block back, also when a fault
// passes.
template <class Create>
NTSTATUS WithExtraEnvironment(const ChildParameters& child, Create create) {
  SIZE_T size = child.environment_size;
  wchar_t* const block = GetExtraEnvironment(child.environment, &size);
  if (block == child.environment) return create();

  NTSTATUS status = STATUS_UNSUCCESSFUL;
  platform::WithFinally(
      [&] {
        child.callers->Environment = block;
        child.callers->EnvironmentSize = size;
        status = create();
      },
      [&] {
        child.callers->Environment = child.environment;
        child.callers->EnvironmentSize = child.environment_size;
        FreeIfNotNull(block);
      });
  return status;
}

// What follows a creation that succeeded. state may be null.
void FollowChild(ThreadState* state, HANDLE process, HANDLE thread, const wchar_t* image) noexcept {
  if (!process) {
    // Not a process that the library could enter: some systems start programs of a foreign kind this way.
    VORN_LOG_E("the new process has no handle and is not followed");
    SendProcessEvent(ProcessEventKind::kInjectionFailed, std::wstring_view(image ? image : L""), 0,
                     ERROR_NOT_SUPPORTED);
    return;
  }
  if (!state || CreateProcessHasBreakpoint()) {
    InjectBizDll(process);
    return;
  }
  state->hPendingThread = thread;
  state->hPendingProcess = process;
  state->pendingProcessId = GetProcessId(process);
  if (!state->pendingProcessId) state->pendingProcessId = GetProcessIdOfThread(thread);
}

// Returns when the child's library is ready, the child has ended, or time is up.
void WaitForChild(HANDLE event, HANDLE process) noexcept {
  using vorn::injection::StartOutcome;
  const vorn::injection::Start start = vorn::injection::WaitForStart(event, process, kInitTimeoutMs);
  if (start.outcome == StartOutcome::kTimeout) {
    VORN_LOG_W("wait sub process inited timeout");
    return;
  }
  if (start.outcome == StartOutcome::kFailed) {
    VORN_LOG_W("wait sub process inited failed, wait 0x%lX", start.wait);
    return;
  }
  if (start.exit_code == STILL_ACTIVE) return;
  const DWORD pid = GetProcessId(process);
  VORN_LOG_W("process pid %ld exited immediately, code %ld", pid, start.exit_code);
  SendProcessEvent(ProcessEventKind::kExitedImmediately, HANDLE{}, pid, start.exit_code);
}

// The process of the pending child that thread belongs to. A program may close either handle before it
// resumes the child, and handle values are used again.
class PendingChild {
 public:
  PendingChild(const ThreadState& state, HANDLE thread) noexcept {
    if (!thread || thread != state.hPendingThread) return;
    const DWORD owner = GetProcessIdOfThread(thread);  // 0: the handle may not be asked
    if (owner && owner != state.pendingProcessId) return;
    if (GetProcessId(state.hPendingProcess) == state.pendingProcessId)
      process_ = state.hPendingProcess;
    else
      opened_.reset(OpenProcess(PROCESS_ALL_ACCESS, FALSE, state.pendingProcessId));
  }

  HANDLE process() const noexcept { return process_ ? process_ : opened_.get(); }

 private:
  HANDLE process_ = nullptr;
  OwnHandle opened_;
};

// Injects the pending child and resumes it.
NTSTATUS ResumeChild(ThreadState& state, HANDLE process, HANDLE thread, ULONG* previous_count) noexcept {
  const OwnHandle event = InjectBizDll(process) ? CreateSubProcessEvent(process) : OwnHandle();
  ULONG count = 0;
  NTSTATUS status = Ntdll::CallOriginalNtResumeThread(thread, &count);
  if (previous_count && !platform::Guarded([&] { *previous_count = count; }))
    status = STATUS_ACCESS_VIOLATION;
  if (count == 1) {  // it really runs now
    state.hPendingThread = nullptr;
    state.hPendingProcess = nullptr;
    if (event && nt::Success(status)) WaitForChild(event.get(), process);
  }
  return status;
}

}  // namespace

bool CProcMgr::Init() noexcept {
  Ntdll::RegisterOverrides(this);
  return true;
}

bool CProcMgr::UnInit() noexcept {
  Ntdll::UnregisterOverrides(this);
  return true;
}

NTSTATUS CProcMgr::NtCreateUserProcess(PHANDLE ProcessHandle, PHANDLE ThreadHandle,
                                       ACCESS_MASK ProcessDesiredAccess, ACCESS_MASK ThreadDesiredAccess,
                                       POBJECT_ATTRIBUTES ProcessObjectAttributes,
                                       POBJECT_ATTRIBUTES ThreadObjectAttributes, ULONG ProcessFlags,
                                       ULONG ThreadFlags, PRTL_USER_PROCESS_PARAMETERS ProcessParameters,
                                       PPS_CREATE_INFO CreateInfo, PPS_ATTRIBUTE_LIST AttributeList, bool*) {
  const HookDepthGuard handler;
  ThreadState* const state = handler.state();
  return handler.Real([&]() -> NTSTATUS {
    const auto create = [&] {
      return Ntdll::CallOriginalNtCreateUserProcess(
          ProcessHandle, ThreadHandle, ProcessDesiredAccess, ThreadDesiredAccess, ProcessObjectAttributes,
          ThreadObjectAttributes, ProcessFlags, ThreadFlags, ProcessParameters, CreateInfo, AttributeList);
    };
    if ((state && state->bHelperInject) || !ProcessParameters) return create();
    const ChildParameters child = ReadParameters(ProcessParameters);
    if (!child.callers) return create();
    const platform::LastErrorKeeper last_error;
    if (const NTSTATUS refused = RefuseForeignProgram(state, AttributeList); !nt::Success(refused))
      return refused;
    const NTSTATUS status = WithExtraEnvironment(child, create);
    const HeapString image = CopyImagePath(child.image);
    const HeapText image_text = WideToAnsi(image.get());
    if (!nt::Success(status)) {
      VORN_LOG_W("pid %ld CreateProcess %s failed, status:%08lX.", GetCurrentProcessId(), OrNull(image_text),
                 status);
      return status;
    }
    VORN_LOG_N("pid %ld CreateProcess %s success, sub pid %ld, sub tid %ld", GetCurrentProcessId(),
               OrNull(image_text), GetProcessId(*ProcessHandle), GetThreadId(*ThreadHandle));
    FollowChild(state, *ProcessHandle, *ThreadHandle, image.get());
    return status;
  });
}

NTSTATUS CProcMgr::NtResumeThread(HANDLE ThreadHandle, PULONG PreviousSuspendCount, bool*) {
  if (!HasThreadState()) return Ntdll::CallOriginalNtResumeThread(ThreadHandle, PreviousSuspendCount);
  const HookDepthGuard handler;
  ThreadState& state = *handler.state();
  return handler.Real([&] {
    const platform::LastErrorKeeper last_error;
    const PendingChild child(state, ThreadHandle);
    if (!child.process()) return Ntdll::CallOriginalNtResumeThread(ThreadHandle, PreviousSuspendCount);
    return ResumeChild(state, child.process(), ThreadHandle, PreviousSuspendCount);
  });
}

}  // namespace VornCore
