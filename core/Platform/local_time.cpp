#include "Platform/local_time.h"

#include <cstdint>

#include "Platform/native.h"

namespace VornCore::platform {
namespace {

std::int64_t Ticks(const FILETIME& time) {
  return static_cast<std::int64_t>(std::uint64_t{time.dwHighDateTime} << 32 | time.dwLowDateTime);
}

FILETIME FromTicks(std::int64_t ticks) {
  return {static_cast<DWORD>(ticks), static_cast<DWORD>(static_cast<std::uint64_t>(ticks) >> 32)};
}

// Wine reads the time zone under a lock of its own on every GetLocalTime. The end of a process takes threads
// away wherever they are; when one of them was inside, the process's last log line would wait for it for
// ever. So the distance to UTC is asked for once, at the first line, when no other thread logs yet.
SYSTEMTIME LocalTimeOnWine() noexcept {
  FILETIME now;
  GetSystemTimeAsFileTime(&now);
  static const std::int64_t distance = [&] {
    FILETIME local;
    return FileTimeToLocalFileTime(&now, &local) ? Ticks(local) - Ticks(now) : 0;
  }();
  const FILETIME local = FromTicks(Ticks(now) + distance);
  SYSTEMTIME result{};
  FileTimeToSystemTime(&local, &result);
  return result;
}

}  // namespace

SYSTEMTIME LocalTime() noexcept {
  if (IsWine()) return LocalTimeOnWine();
  SYSTEMTIME now;
  GetLocalTime(&now);
  return now;
}

}  // namespace VornCore::platform
