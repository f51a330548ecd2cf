#include "Proc/child_injection.h"

#include "Proc/process_event.h"
#include "VornCore/Base/log.h"
#include "VornCore/Base/shared_data.h"
#include "VornCore/Base/strings.h"
#include "VornCore/Base/thread_state.h"
#include "injection/child_start.h"
#include "windows/process_facts.h"

namespace VornCore {
namespace {

using namespace vorn::windows;

// 0 or a Win32 error. The creation of a helper process is marked, so that it is not followed.
DWORD UpdateImports(HANDLE child, DWORD pid, const char* library) noexcept {
  return vorn::injection::InjectLibrary(
      child, pid, library, [&](DWORD direct_error, auto run_helper) -> DWORD {
        VORN_LOG_N("direct inject pid %ld failed, code %lu, use helper", pid, direct_error);
        ThreadState* state = GetThreadState();
        if (!state)
          return ERROR_NOT_ENOUGH_MEMORY;  // unmarked, the helper would be injected by yet another helper
        state->bHelperInject = 1;
        const DWORD error = run_helper();
        state->bHelperInject = 0;
        return error;
      });
}

}  // namespace

bool InjectBizDll(HANDLE child) noexcept {
  const DWORD pid = GetProcessId(child);
  const std::uint32_t machine = MachineOf(child);
  if (machine != kMachineX64 && machine != kMachineX86) {
    VORN_LOG_E("Inject exe failed, Unknown exe type %u, pid %lu", machine, pid);
    SendProcessEvent(ProcessEventKind::kInjectionFailed, child, pid, ERROR_NOT_SUPPORTED);
    return false;
  }
  const HeapText library = WideToAnsi(ForMachine(machine, GetBizDllPathX64(), GetBizDllPathX86()));
  if (!library) {
    VORN_LOG_E("Get biz dll path failed!");
    SendProcessEvent(ProcessEventKind::kInjectionFailed, child, pid, ERROR_DLL_NOT_FOUND);
    return false;
  }
  const DWORD error = UpdateImports(child, pid, library.get());
  if (error != NO_ERROR) {
    VORN_LOG_E("Inject biz dll to PID:%lu failed! code %lu", pid, error);
    SendProcessEvent(ProcessEventKind::kInjectionFailed, child, pid, error);
    return false;
  }
  SendProcessEvent(ProcessEventKind::kInjected, child, pid, NO_ERROR);
  return true;
}

}  // namespace VornCore
