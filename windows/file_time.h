// FILETIME as one number of ticks, as Policy/file_time.h counts them.
#pragma once

#include <cstdint>

#include "windows/nt.h"

namespace vorn::windows {

inline std::uint64_t TicksOf(const FILETIME& time) noexcept {
  return std::uint64_t{time.dwHighDateTime} << 32 | time.dwLowDateTime;
}
inline FILETIME FileTimeOf(std::uint64_t ticks) noexcept {
  return {static_cast<DWORD>(ticks), static_cast<DWORD>(ticks >> 32)};
}

}  // namespace vorn::windows
