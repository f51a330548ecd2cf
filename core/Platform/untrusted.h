// Memory that the application named and that may not be there: reads, writes and wipes that answer false
// instead of faulting. Any thread.
//
// The access itself is the test: what is copied is what was checked, even when another thread of the
// application unmaps it meanwhile.
#pragma once

#include <cstddef>
#include <cstring>

#include "Platform/guard.h"

namespace VornCore::platform {

inline constexpr std::size_t kPageBytes = 4096;

// Whether all bytes can be read. Null cannot; no bytes at all can.
[[nodiscard]] inline bool IsReadable(const void* address, std::size_t bytes) noexcept {
  if (!bytes) return true;
  if (!address) return false;
  return Guarded([&] {
    auto* first = static_cast<const volatile char*>(address);
    for (std::size_t i = 0; i < bytes; i += kPageBytes) (void)first[i];
    (void)first[bytes - 1];
  });
}

[[nodiscard]] inline bool CopyGuarded(void* to, const void* from, std::size_t bytes) noexcept {
  if (!bytes) return true;
  if (!to || !from) return false;
  return Guarded([&] { memcpy(to, from, bytes); });
}

// Zeroes what can be written of the range, up to its first unwritable byte.
inline bool WipeGuarded(void* address, std::size_t bytes) noexcept {
  if (!bytes) return true;
  if (!address) return false;
  return Guarded([&] { memset(address, 0, bytes); });
}

// One value of the application's. T is plain data.
template <class T>
[[nodiscard]] bool ReadGuarded(const T* from, T& value) noexcept {
  return from && Guarded([&] { value = *from; });
}
template <class T>
bool WriteGuarded(T* to, const T& value) noexcept {
  return to && Guarded([&] { *to = value; });
}

}  // namespace VornCore::platform
