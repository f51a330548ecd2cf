#include "Debug/debug_mgr.h"

#include <atomic>

#include "Debug/exception_handler_dump.h"
#include "Policy/crash_dump.h"
#include "Policy/wide.h"
#include "VornCore/Base/channel.h"
#include "VornCore/Base/hook_depth_guard.h"
#include "VornCore/Base/log.h"
#include "VornCore/Base/shared_data.h"
#include "VornCore/Base/strings.h"

namespace VornCore {
namespace {

constexpr std::uint32_t kDumpType = MiniDumpWithDataSegs | MiniDumpWithHandleData | MiniDumpScanMemory |
                                    MiniDumpWithUnloadedModules | MiniDumpWithIndirectlyReferencedMemory |
                                    MiniDumpWithProcessThreadData | MiniDumpWithFullMemoryInfo |
                                    MiniDumpWithThreadInfo;
static_assert(kDumpType == 0x1975);

constexpr DWORD kNoticePauseMs = 1000;  // for the channel's send thread

// The last filter that the application tried to install.
std::atomic<LPTOP_LEVEL_EXCEPTION_FILTER> last_filter;

// The dump thread's file work, and that of the debug-help library on it, is the library's own.
std::uintptr_t OnDumpThreadStart() {
  ThreadState* state = GetThreadState();
  if (state) state->bOwnCall = 1;
  return reinterpret_cast<std::uintptr_t>(state);
}

void OnDumpThreadEnd(std::uintptr_t) {
  if (ThreadState* state = GetThreadState()) state->bOwnCall = 0;
}

std::uint32_t GetCrashHookDepth() {
  const ThreadState* state = GetThreadState();
  return state ? state->hookDepth : 0;
}

void SendCrashNotice(std::uint32_t exception_code, std::uint32_t flag, std::uint32_t thread_id) {
  const vorn::policy::CrashNotice notice{.code = exception_code, .hook_depth = flag, .thread_id = thread_id};
  if (EncodeAndSend(notice)) Sleep(kNoticePauseMs);
}

void OnCrashDumped(const wchar_t* path, void*, EXCEPTION_POINTERS* pointers, std::uint32_t flag,
                   std::uint32_t thread_id, bool) {
  const EXCEPTION_RECORD* record = pointers ? pointers->ExceptionRecord : nullptr;
  SendCrashNotice(record ? record->ExceptionCode : 0, flag, thread_id);
  const HeapText text = WideToAnsi(path);
  if (record)
    VORN_LOG_E("[Crash] ExceptionCode:0x%08X, ExceptionAddress:0x%p Flag:0x%x path:%s",
               static_cast<unsigned>(record->ExceptionCode), record->ExceptionAddress, flag, OrNil(text));
  else
    VORN_LOG_E("[Crash] path:%s", OrNil(text));
}

// False without a dump directory: crashes take the system's way.
bool SetupCrashDump() {
  std::uint32_t bytes = 0;
  const wchar_t* directory = GetDumpDirectory(&bytes);
  if (!directory || bytes == 0) return false;
  const auto terminated = CopyBytesZ(directory, bytes);  // the section counts it
  DumpConfig config{.dumpDirectory = static_cast<const wchar_t*>(terminated.get()),
                    .dumpType = kDumpType,
                    .fileTag = {},
                    .context = nullptr,
                    .pfnOnDumped = OnCrashDumped,
                    .pfnThreadStart = OnDumpThreadStart,
                    .pfnThreadEnd = OnDumpThreadEnd,
                    .pfnGetFlag = GetCrashHookDepth};
  vorn::policy::kDumpFileTag.copy(vorn::policy::U16(config.fileTag), vorn::policy::kDumpTagUnits);
  (void)ExceptionHandlerDump::Install(config);
  return true;
}

}  // namespace

bool CDebugMgr::Init() noexcept {
  // The writer's own filter still reaches the system: nobody listens yet.
  (void)SetupCrashDump();
  KernelBase::RegisterOverrides(this);
  return true;
}

bool CDebugMgr::UnInit() noexcept {
  KernelBase::UnregisterOverrides(this);
  return true;
}

LPTOP_LEVEL_EXCEPTION_FILTER CDebugMgr::SetUnhandledExceptionFilter(LPTOP_LEVEL_EXCEPTION_FILTER filter,
                                                                    bool*) {
  const HookDepthGuard handler;
  if (last_filter.exchange(filter) != filter)
    VORN_LOG_N("[UEF], pTopLevelExceptionFilter:%X\n",
               static_cast<unsigned>(reinterpret_cast<std::uintptr_t>(filter)));
  return nullptr;
}

}  // namespace VornCore
