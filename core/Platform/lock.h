// Owners of a critical section and of the time it is held. Usable from any thread; the lock is recursive.
//
// The end of a process takes its other threads away with the locks that they hold, and then runs the DLLs'
// detach code, which closes handles and logs. Who waited for such a lock would not come back: Windows ends
// the process on the spot, with an exit code that is not the program's and without the detach code that is
// left. So the last thread does not wait: it goes on without the lock, which nobody else can want any more.
#pragma once

#include "windows/nt.h"

namespace VornCore::platform {

class CriticalSection {
 public:
  CriticalSection() { InitializeCriticalSection(&section_); }
  ~CriticalSection() { DeleteCriticalSection(&section_); }
  CriticalSection(const CriticalSection&) = delete;
  CriticalSection& operator=(const CriticalSection&) = delete;

  void Enter() {
    if (!TryEnterCriticalSection(&section_) && !RtlDllShutdownInProgress()) EnterCriticalSection(&section_);
  }
  void Leave() {
    if (section_.OwningThread == ULongToHandle(GetCurrentThreadId())) LeaveCriticalSection(&section_);
  }

 private:
  CRITICAL_SECTION section_;
};

class [[nodiscard]] LockGuard {
 public:
  explicit LockGuard(CriticalSection& section) : section_(section) { section_.Enter(); }
  ~LockGuard() { section_.Leave(); }
  LockGuard(const LockGuard&) = delete;
  LockGuard& operator=(const LockGuard&) = delete;

 private:
  CriticalSection& section_;
};

}  // namespace VornCore::platform
