#include "detours/thread_set.h"

namespace detours {

LONG ThreadSet::Suspend(HANDLE thread) noexcept {
  const DWORD id = GetThreadId(thread);
  if (id == 0) return static_cast<LONG>(GetLastError());
  if (id == GetCurrentThreadId()) return NO_ERROR;
  if (!threads_.Add(thread)) return ERROR_NOT_ENOUGH_MEMORY;
  if (SuspendThread(thread) == static_cast<DWORD>(-1)) {
    const DWORD error = GetLastError();
    threads_.RemoveLast();
    return static_cast<LONG>(error);
  }
  return NO_ERROR;
}

void ThreadSet::Resume() noexcept {
  for (HANDLE thread : threads_) ResumeThread(thread);
  threads_.Clear();
}

}  // namespace detours
