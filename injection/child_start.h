// Making a process that has not run yet load the library, and waiting until the library is ready. The host
// does this for the programs that it starts, the library for the processes that those start; each reports in
// its own way.
//
//   create suspended → InjectLibrary → InitEventName::Create → resume → WaitForStart
//
// The init event is created before the process runs, and set by the library in it. Its name is the section's
// prefix followed by the process id in decimal.
#pragma once

#include "Policy/section_format.h"
#include "detours/detours.h"
#include "windows/nt.h"

namespace vorn::injection {

// The process handle needs what DetourUpdateProcessWithDll asks for. library: ANSI path. 0 or a Win32 error.
//
// A process of the other bitness is updated by a helper process of that bitness: with_helper(direct_error,
// run) is called for it and answers with what run() does, or with an error of its own.
template <class WithHelper>
DWORD InjectLibrary(HANDLE process, DWORD pid, const char* library, WithHelper with_helper) {
  if (DetourUpdateProcessWithDll(process, &library, 1)) return NO_ERROR;
  return with_helper(GetLastError(), [&]() -> DWORD {
    return DetourProcessViaHelperW(pid, library, CreateProcessW) ? NO_ERROR : GetLastError();
  });
}

// Full NT object name of a process's init event.
class InitEventName {
 public:
  // The prefix may lie at an odd address; a null one, or one that is too long, gives no usable name.
  InitEventName(const void* prefix, std::size_t prefix_bytes, DWORD pid) noexcept;
  InitEventName(const InitEventName&) = delete;
  InitEventName& operator=(const InitEventName&) = delete;

  bool usable() const noexcept { return name_.Buffer != nullptr; }
  // The parent's half: a new event that resets itself. security may be null.
  NTSTATUS Create(HANDLE* event, PSECURITY_DESCRIPTOR security) noexcept;
  // The library's half.
  NTSTATUS Open(HANDLE* event) noexcept;

 private:
  static constexpr std::size_t kMaxProcessIdDigits = 10;

  wchar_t text_[policy::kMaxInitEventPrefix];
  UNICODE_STRING name_ = {};
};

enum class StartOutcome { kReady, kEnded, kTimeout, kFailed };
struct Start {
  StartOutcome outcome;
  DWORD wait;       // what the wait returned
  DWORD exit_code;  // STILL_ACTIVE while the process runs
};
// Returns when the library is ready, the process has ended, or time is up.
Start WaitForStart(HANDLE event, HANDLE process, DWORD timeout_ms) noexcept;

}  // namespace vorn::injection
