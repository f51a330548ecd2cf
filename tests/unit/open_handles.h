// How many handles this process has open. The C++ runtime makes a few of its own when threads meet at a lock:
// what is left behind by calls counts in thousands, by threads as many as there were.
#pragma once

#include <windows.h>

#include <cstdint>

namespace vorn::test {

// Counted one by one: not every system fills in the number that GetProcessHandleCount gives.
inline int OpenHandles() {
  constexpr std::uintptr_t kEnd = 0x8000, kStep = 4;
  int count = 0;
  DWORD flags = 0;
  for (std::uintptr_t value = kStep; value < kEnd; value += kStep)
    count += GetHandleInformation(reinterpret_cast<HANDLE>(value), &flags) != 0;
  return count;
}

}  // namespace vorn::test
