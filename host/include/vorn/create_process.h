// CreateProcessW for machines on which a start may get lost.
#pragma once

#include <windows.h>

namespace vorn::host {

// CreateProcessW without security attributes: what it takes, returns and leaves in GetLastError().
//
// Wine under load loses about one start in eight thousand: the new process ends before any code of the
// program has run, and the caller gets ERROR_INTERNAL_ERROR, which Windows does not answer here. Such a start
// is made again, a few times at most. Any thread.
inline BOOL CreateProcessWithRetry(const wchar_t* application, wchar_t* command_line, BOOL inherit_handles,
                                   DWORD flags, void* environment, const wchar_t* directory,
                                   STARTUPINFOW* startup, PROCESS_INFORMATION* created) {
  constexpr int kAttempts = 5;
  for (int attempt = 1;; ++attempt) {
    if (CreateProcessW(application, command_line, nullptr, nullptr, inherit_handles, flags, environment,
                       directory, startup, created))
      return TRUE;
    if (GetLastError() != ERROR_INTERNAL_ERROR || attempt == kAttempts) return FALSE;
    Sleep(20);
  }
}

}  // namespace vorn::host
