// Owners of a critical section and of the time it is held. Usable from any thread; the lock is recursive.
#pragma once

#include <windows.h>

namespace VornCore::platform {

class CriticalSection {
 public:
  CriticalSection() { InitializeCriticalSection(&section_); }
  ~CriticalSection() { DeleteCriticalSection(&section_); }
  CriticalSection(const CriticalSection&) = delete;
  CriticalSection& operator=(const CriticalSection&) = delete;

  void Enter() { EnterCriticalSection(&section_); }
  void Leave() { LeaveCriticalSection(&section_); }

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
