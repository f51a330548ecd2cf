// The other threads that a transaction holds still.
#pragma once

#include <windows.h>

#include "detours/page_array.h"
#include "detours/trampoline.h"

namespace detours {

class ThreadSet {
 public:
  // Suspends a thread other than the caller's own, which is left alone. Win32 error code. The handle stays
  // the caller's and must stay open until Resume.
  [[nodiscard]] LONG Suspend(HANDLE thread) noexcept;

  // Moves the instruction pointers that stand between the first instructions of a function that is about to
  // be patched to the same place in its trampoline. Win32 error code.
  [[nodiscard]] LONG MoveOut(const Trampoline& trampoline) noexcept;

  void Resume() noexcept;

 private:
  PageArray<HANDLE> threads_;
};

}  // namespace detours
