// The crash writer: the process's top-level exception filter, and the thread that writes the dump.
//
// A crashing thread does not write its own dump: its stack may be exhausted, its state damaged. It hands a
// request to the dump thread, which waits for one from installation on, and waits until the dump is written
// and the owner was told.
//
//   crashing thread                          dump thread
//   TopLevelFilter, RequestDump              prepares a path, waits for hRequest
//     WaitForDump         -- hRequest -->    WriteDump
//                                            pfnOnDumped
//                         <--  hDone  --     the next path
//   the process ends
//
// Crashes of several threads are dumped one after another, and the process ends when every crash that came in
// has its dump. A request that cannot be served fails instead of waiting for ever: when the dump thread has
// ended, when it is the one that crashes, and when it has not started yet because the crashing thread keeps
// the loader busy.
#pragma once

#include <atomic>
#include <cstdint>

#include "Platform/debug_help.h"
#include "Platform/lock.h"
#include "Policy/crash_dump.h"
#include "windows/unique_handle.h"

namespace VornCore {

struct DumpConfig {
  const wchar_t* dumpDirectory;  // with or without trailing backslash, at most 258 units without it; copied
  std::uint32_t dumpType;        // MINIDUMP_TYPE flags
  wchar_t fileTag[6];            // the first three units are used
  void* context;                 // for pfnOnDumped
  // Runs on the dump thread after every attempt; a fault inside is caught. The callbacks may be null.
  void (*pfnOnDumped)(const wchar_t* path, void* context, EXCEPTION_POINTERS* pointers, std::uint32_t flag,
                      std::uint32_t thread_id, bool written);
  std::uintptr_t (*pfnThreadStart)();          // first on the dump thread
  void (*pfnThreadEnd)(std::uintptr_t value);  // last, with what pfnThreadStart returned
  std::uint32_t (*pfnGetFlag)();               // on the crashing thread: its request's flag
};

struct DumpRequest {
  std::uint32_t thread_id;  // of the crashing thread
  std::uint32_t flag;
  EXCEPTION_POINTERS* pointers;
};

class ExceptionHandlerDump {
 public:
  // Starts the dump thread, which runs once the loader lets it, and becomes the top-level filter. Once per
  // process; later calls change nothing. S_OK when this call installed it, S_FALSE when an earlier one did,
  // E_UNEXPECTED when it is not installed: memory is short, or the directory is missing or too long.
  static HRESULT Install(const DumpConfig& config) noexcept;

  // EXCEPTION_EXECUTE_HANDLER: a dump is written, and the process ends quietly. EXCEPTION_CONTINUE_SEARCH:
  // the system handles the exception. Breakpoints, single steps and debug output are left to it without a
  // dump.
  static LONG WINAPI TopLevelFilter(EXCEPTION_POINTERS* pointers) noexcept;

  // Has the calling thread's crash dumped. True when a dump was written.
  [[nodiscard]] static bool RequestDump(EXCEPTION_POINTERS* pointers) noexcept;

  virtual ~ExceptionHandlerDump();  // ends the dump thread wherever it is
  ExceptionHandlerDump(const ExceptionHandlerDump&) = delete;
  ExceptionHandlerDump& operator=(const ExceptionHandlerDump&) = delete;

 private:
  static constexpr std::size_t kDirectoryUnits = 260;

  explicit ExceptionHandlerDump(const DumpConfig& config) noexcept;
  static bool InstallOnce(const DumpConfig& config) noexcept;

  [[nodiscard]] bool CanServe() const noexcept;
  [[nodiscard]] bool WaitForDump(const DumpRequest& request) noexcept;
  [[nodiscard]] bool WaitUntilDone() noexcept;

  static DWORD WINAPI DumpThreadProc(void* writer) noexcept;
  void ServeRequests(platform::MiniDumpWriteDumpFn dump) noexcept;
  void BuildDumpPath(wchar_t* path, std::size_t capacity) const noexcept;

  platform::CriticalSection lock_;  // one request at a time
  vorn::windows::UniqueHandle hThread_;
  vorn::windows::UniqueHandle hRequest_;  // semaphore: a request is waiting
  vorn::windows::UniqueHandle hDone_;     // semaphore: it is done
  DumpRequest request_ = {};
  std::uint32_t dumpType_;
  char16_t fileTag_[vorn::policy::kDumpTagUnits];
  std::int32_t result_ = 0;  // 1: the last dump was written
  void* context_;
  decltype(DumpConfig::pfnOnDumped) pfnOnDumped_;
  wchar_t dumpDirectory_[kDirectoryUnits];  // ends in a backslash
  DWORD dump_thread_id_ = 0;
  std::atomic<bool> serving_ = false;         // the dump thread has reached its loop
  std::atomic<std::int32_t> unfinished_ = 0;  // crashing threads whose requests are not done
};

}  // namespace VornCore
