#include "Debug/exception_handler_dump.h"

#include <algorithm>
#include <cwchar>
#include <new>

#include "Debug/crash_dump.h"
#include "Platform/guard.h"
#include "Platform/native.h"
#include "Policy/wide.h"

namespace VornCore {
namespace {

using vorn::policy::kDumpNameUnits;
using vorn::policy::kDumpTagUnits;

constexpr std::size_t kPathUnits = 520;
constexpr DWORD kDumpThreadStack = 0x10000;
constexpr DWORD kLoadDelayMs = 500;          // a process that ends before that need not load anything
constexpr DWORD kStartPatienceMs = 10'000;   // for a dump thread that has not started yet
constexpr DWORD kOthersPatienceMs = 60'000;  // for the dumps of other threads that crashed meanwhile
constexpr DWORD kPollMs = 10;

constexpr NTSTATUS kDebugPrint = 0x40010006, kDebugPrintWide = 0x4001000A;
constexpr DWORD kCodeWithoutFlag = 0x646A6236;

// The filter asks for the flag before it looks at the writer.
std::uintptr_t (*thread_start)();
void (*thread_end)(std::uintptr_t);
std::uint32_t (*get_flag)();
std::atomic<ExceptionHandlerDump*> installed;

}  // namespace

HRESULT ExceptionHandlerDump::Install(const DumpConfig& config) noexcept {
  bool first = false;
  static const bool success = [&] {
    first = true;
    return InstallOnce(config);
  }();
  if (!success) return E_UNEXPECTED;
  return first ? S_OK : S_FALSE;
}

bool ExceptionHandlerDump::InstallOnce(const DumpConfig& config) noexcept {
  const std::size_t units = config.dumpDirectory ? wcslen(config.dumpDirectory) : 0;
  if (units == 0) return false;
  const bool closed = config.dumpDirectory[units - 1] == L'\\';
  if (units + !closed + 1 > kDirectoryUnits) return false;
  thread_start = config.pfnThreadStart;
  thread_end = config.pfnThreadEnd;
  get_flag = config.pfnGetFlag;
  auto* const writer = new (std::nothrow) ExceptionHandlerDump(config);
  if (!writer) return false;
  memcpy(writer->dumpDirectory_, config.dumpDirectory, units * sizeof(wchar_t));
  if (!closed) writer->dumpDirectory_[units] = L'\\';
  writer->hRequest_.reset(CreateSemaphoreW(nullptr, 0, 1, nullptr));
  writer->hDone_.reset(CreateSemaphoreW(nullptr, 0, 1, nullptr));
  writer->hThread_.reset(
      CreateThread(nullptr, kDumpThreadStack, DumpThreadProc, writer, 0, &writer->dump_thread_id_));
  installed = writer;
  SetUnhandledExceptionFilter(TopLevelFilter);
  SetErrorMode(SEM_FAILCRITICALERRORS | SEM_NOGPFAULTERRORBOX | SEM_NOOPENFILEERRORBOX);
  return true;
}

ExceptionHandlerDump::ExceptionHandlerDump(const DumpConfig& config) noexcept
    : dumpType_(config.dumpType),
      context_(config.context),
      pfnOnDumped_(config.pfnOnDumped),
      dumpDirectory_{} {
  std::copy_n(config.fileTag, kDumpTagUnits, fileTag_);
}

ExceptionHandlerDump::~ExceptionHandlerDump() {
  if (hThread_) TerminateThread(hThread_.get(), 1);
}

// The crashing thread: little stack may be left.

LONG WINAPI ExceptionHandlerDump::TopLevelFilter(EXCEPTION_POINTERS* pointers) noexcept {
  switch (static_cast<NTSTATUS>(pointers->ExceptionRecord->ExceptionCode)) {
    case EXCEPTION_BREAKPOINT:
    case EXCEPTION_SINGLE_STEP:
    case kDebugPrint:
    case kDebugPrintWide:
      return EXCEPTION_CONTINUE_SEARCH;
  }
  return RequestDump(pointers) ? EXCEPTION_EXECUTE_HANDLER : EXCEPTION_CONTINUE_SEARCH;
}

bool ExceptionHandlerDump::RequestDump(EXCEPTION_POINTERS* pointers) noexcept {
  DumpRequest request = {.thread_id = GetCurrentThreadId(), .flag = 0, .pointers = pointers};
  const EXCEPTION_RECORD* record = pointers ? pointers->ExceptionRecord : nullptr;
  if (get_flag && !(record && record->ExceptionCode == kCodeWithoutFlag)) request.flag = get_flag();
  ExceptionHandlerDump* const writer = installed;
  return writer && writer->CanServe() && writer->WaitForDump(request);
}

bool ExceptionHandlerDump::CanServe() const noexcept {
  return hThread_ && hRequest_ && hDone_ && dump_thread_id_ != GetCurrentThreadId();
}

bool ExceptionHandlerDump::WaitForDump(const DumpRequest& request) noexcept {
  ++unfinished_;
  bool written = false;
  {
    const platform::LockGuard lock(lock_);
    result_ = 0;
    request_ = request;
    ReleaseSemaphore(hRequest_.get(), 1, nullptr);
    written = WaitUntilDone() && result_ != 0;
    result_ = 0;
    request_ = {};
  }
  --unfinished_;
  // The return of the filter ends the process, and would take along the dumps that are still to be written.
  for (DWORD waited = 0; unfinished_ != 0 && waited < kOthersPatienceMs; waited += kPollMs) Sleep(kPollMs);
  return written;
}

// Whether the dump thread has served the request.
bool ExceptionHandlerDump::WaitUntilDone() noexcept {
  const HANDLE done_or_ended[] = {hDone_.get(), hThread_.get()};
  for (;;) {
    const DWORD patience = serving_ ? INFINITE : kStartPatienceMs;
    const DWORD answer = WaitForMultipleObjects(2, done_or_ended, FALSE, patience);
    if (answer != WAIT_TIMEOUT) return answer == WAIT_OBJECT_0;
    // Take the request back, unless it is being served by now.
    if (WaitForSingleObject(hRequest_.get(), 0) == WAIT_OBJECT_0) return false;
  }
}

// The dump thread.

DWORD WINAPI ExceptionHandlerDump::DumpThreadProc(void* self) noexcept {
  auto* const writer = static_cast<ExceptionHandlerDump*>(self);
  const std::uintptr_t started = thread_start ? thread_start() : 0;
  // The start of a program is not slowed by a library that only crashes need; a request does not wait for it.
  if (WaitForSingleObject(writer->hRequest_.get(), kLoadDelayMs) == WAIT_OBJECT_0)
    ReleaseSemaphore(writer->hRequest_.get(), 1, nullptr);
  if (const auto dump = platform::Native().LoadMiniDumpWriteDump()) writer->ServeRequests(dump);
  if (thread_end) thread_end(started);
  return 0;
}

void ExceptionHandlerDump::ServeRequests(platform::MiniDumpWriteDumpFn dump) noexcept {
  for (;;) {
    wchar_t path[kPathUnits + 1] = {};
    BuildDumpPath(path, kPathUnits);
    serving_ = true;
    if (WaitForSingleObject(hRequest_.get(), INFINITE) != WAIT_OBJECT_0) return;
    const DumpRequest& request = request_;
    result_ = WriteDump(request.thread_id, request.flag, request.pointers, path, dumpType_, dump);
    if (pfnOnDumped_) {
      (void)platform::Guarded([&] {
        pfnOnDumped_(path, context_, request.pointers, request.flag, request.thread_id, result_ != 0);
      });
    }
    ReleaseSemaphore(hDone_.get(), 1, nullptr);
  }
}

void ExceptionHandlerDump::BuildDumpPath(wchar_t* path, std::size_t capacity) const noexcept {
  const std::size_t directory = wcslen(dumpDirectory_);
  if (directory + kDumpNameUnits > capacity) return;
  const auto name = vorn::policy::DumpFileName(GetCurrentProcessId(), GetCurrentThreadId(), GetTickCount(),
                                               {fileTag_, kDumpTagUnits});
  memcpy(path, dumpDirectory_, directory * sizeof(wchar_t));
  memcpy(path + directory, name.data(), sizeof name);
}

}  // namespace VornCore
