// The other threads that a transaction holds still.
#pragma once

#include <windows.h>

#include <cstdint>

#include "detours/page_array.h"

namespace detours {

class ThreadSet {
 public:
  // Suspends a thread other than the caller's own, which is left alone. Win32 error code. The handle stays
  // the caller's and must stay open until Resume.
  [[nodiscard]] LONG Suspend(HANDLE thread) noexcept;

  // Asks for every thread where it shall go on: place_of(instruction pointer) is an address, or 0 to stay.
  // Win32 error code; threads may have been moved before one fails.
  template <class PlaceOf>
  [[nodiscard]] LONG Move(PlaceOf place_of) noexcept {
    for (HANDLE thread : threads_) {
      CONTEXT context{};
      context.ContextFlags = CONTEXT_CONTROL;
      // Also waits until the thread stands still: suspending only asks it to.
      if (!GetThreadContext(thread, &context)) return static_cast<LONG>(GetLastError());
      const std::uintptr_t place = place_of(context.*kInstructionPointer);
      if (place == 0) continue;
      context.*kInstructionPointer = place;
      if (!SetThreadContext(thread, &context)) return static_cast<LONG>(GetLastError());
    }
    return NO_ERROR;
  }

  void Resume() noexcept;

 private:
#ifdef _WIN64
  static constexpr auto kInstructionPointer = &CONTEXT::Rip;
#else
  static constexpr auto kInstructionPointer = &CONTEXT::Eip;
#endif

  PageArray<HANDLE> threads_;
};

}  // namespace detours
