// Process attach: the three stages of start-up, in their order, and the two small jobs afterwards (a thread's
// clean-up, the process's last log line).
//
//   InitBaseLib    the host's section, thread-local storage, the log
//   InitLowLevel   the ntdll and KernelBase hook tables
//   InitBiz        the managers and the host channel
//
// A process in which a stage fails is not left to run unconfined: it ends with an exit code that names the
// stage. Everything here runs on the thread that loads the library, inside the loader.
#include "Debug/debug_mgr.h"
#include "File/file_mgr.h"
#include "Load/load_dll_mgr.h"
#include "Net/net_mgr.h"
#include "Policy/exit_code.h"
#include "Proc/init_event.h"
#include "Proc/proc_mgr.h"
#include "VornCore/Base/channel.h"
#include "VornCore/Base/log.h"
#include "VornCore/Base/process_info.h"
#include "VornCore/Base/shared_data.h"
#include "VornCore/Base/strings.h"
#include "VornCore/Base/thread_state.h"
#include "VornCore/Hook/kernel_base.h"
#include "VornCore/Hook/late_modules.h"
#include "VornCore/Hook/ntdll.h"
#include "detours/detours.h"
#include "windows/known_names.h"
#include "windows/nt.h"

namespace VornCore {
namespace {

// 0 with a pointer to a process-wide buffer, or a Win32 error.
DWORD GetSharedDataName(const wchar_t** name) {
  static wchar_t buffer[256];
  const DWORD units = GetEnvironmentVariableW(vorn::windows::kSectionVariable, buffer, ARRAYSIZE(buffer));
  if (units == 0) return GetLastError();
  if (units >= ARRAYSIZE(buffer)) return ERROR_BAD_ENVIRONMENT;
  *name = buffer;
  return ERROR_SUCCESS;
}

// 0, or the exit code that names the step and its error. A later stage ends with ERROR_DLL_INIT_FAILED.
DWORD InitBaseLib() {
  const wchar_t* name = nullptr;
  if (const DWORD error = GetSharedDataName(&name)) return error | vorn::policy::kExitSectionName;
  if (const DWORD error = OpenSharedData(name)) return error | vorn::policy::kExitSection;
  if (const DWORD error = InitThreadState()) return error | vorn::policy::kExitThreadState;
  if (const DWORD error = StartLog(L"vorn_core_")) return error | vorn::policy::kExitLog;
  VORN_LOG_N("InitBaseLib success!");
  return ERROR_SUCCESS;
}

bool InitLowLevel() {
  if (!Ntdll::Init()) {
    VORN_LOG_E("VornCore::Ntdll::Init failed!");
    return false;
  }
  if (!KernelBase::Init()) {
    VORN_LOG_E("VornCore::KernelBase::Init failed!");
    return false;
  }
  VORN_LOG_N("InitLowLevel success!");
  return true;
}

bool UnInitLowLevel() {
  const bool kernel_base = KernelBase::UnInit();
  const bool ntdll = Ntdll::UnInit();
  VORN_LOG_N("UnInitLowLevel success!");
  return kernel_base && ntdll;
}

bool InitChannel() {
  // The section counts the name; the transport wants it terminated.
  std::uint32_t bytes = 0;
  const wchar_t* port = GetServerPortName(&bytes);
  const auto terminated = CopyBytesZ(port, port ? bytes : 0);
  return channel::Init(static_cast<const wchar_t*>(terminated.get()), false);
}

bool InitLateModules() {
  mod::Watch(CNetMgr::WatchedModules());
  return mod::Init();
}

template <class Class>
bool InitManager() {
  return Class::GetInstance()->Init();
}

// In the order of their start.
enum class OnFailure { kStop, kGoOn };
struct Service {
  const char* name;
  bool (*init)();
  OnFailure on_failure = OnFailure::kStop;
};
constexpr Service kServices[] = {
    // The writer's filter goes in before the manager listens, and before anything that could crash.
    {"CDebugMgr", InitManager<CDebugMgr>, OnFailure::kGoOn},
    {"CNetMgr", InitManager<CNetMgr>},
    {"mod", InitLateModules},
    {"CProcMgr", InitManager<CProcMgr>},
    {"CLoadDllMgr", InitManager<CLoadDllMgr>},
    {"CFileMgr", InitManager<CFileMgr>},
    {"channel", InitChannel},
};

bool InitBiz() {
  for (const Service& service : kServices) {
    if (service.init()) continue;
    VORN_LOG_E("%s::Init failed!", service.name);
    if (service.on_failure == OnFailure::kStop) return false;
  }
  VORN_LOG_N("InitBiz success!");
  return true;
}

void LogProcessStart(bool success) {
  const nt::ProcessParameters* parameters = nt::CurrentParameters();
  const HeapText path = UnicodeStringToAnsi(&parameters->ImagePathName);
  const HeapText command_line = UnicodeStringToAnsi(&parameters->CommandLine);
  VORN_LOG_N("Process Start:%d, path:%s, cmdline:%s, IL:0x%x", success, OrNull(path), OrNull(command_line),
             GetIntegrityLevel());
}

bool Init() {
  SetErrorMode(SEM_FAILCRITICALERRORS | SEM_NOGPFAULTERRORBOX | SEM_NOOPENFILEERRORBOX);
  bool success = false;
  DWORD code = InitBaseLib();
  if (code == ERROR_SUCCESS) {
    code = ERROR_DLL_INIT_FAILED;
    if (InitLowLevel()) {
      success = InitBiz();
      if (!success) UnInitLowLevel();
    }
  }
  LogProcessStart(success);
  if (success)
    SetInitEvent();
  else
    TerminateProcess(GetCurrentProcess(), code);
  return success;
}

}  // namespace
}  // namespace VornCore

BOOL WINAPI DllMain(HINSTANCE, DWORD reason, LPVOID reserved) {
  // A helper process only updates another process's import table.
  static const bool helper_process = DetourIsHelperProcess();
  if (helper_process) return TRUE;
  switch (reason) {
    case DLL_PROCESS_ATTACH:
      DetourRestoreAfterWith();
      return VornCore::Init();
    case DLL_THREAD_DETACH:
      VornCore::FreeThreadState();
      break;
    case DLL_PROCESS_DETACH:
      VORN_LOG_N("Process End, pid:%d", static_cast<int>(GetCurrentProcessId()));
      if (reserved) VornCore::channel::FlushAtProcessEnd();  // the process ends, the library is not unloaded
      break;
  }
  return TRUE;
}
