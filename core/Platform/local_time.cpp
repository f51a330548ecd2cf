#include "Platform/local_time.h"

#include <cstdint>

#include "Platform/native.h"
#include "windows/file_time.h"

namespace VornCore::platform {
namespace {

using vorn::windows::TicksOf;

// Wine reads the time zone under a lock of its own on every GetLocalTime. The end of a process takes threads
// away wherever they are; when one of them was inside, the process's last log line would wait for it for
// ever. So the distance to UTC is asked for once, at the first line, when no other thread logs yet.
SYSTEMTIME LocalTimeOnWine() noexcept {
  FILETIME now;
  GetSystemTimeAsFileTime(&now);
  static const std::uint64_t distance = [&] {
    FILETIME local;
    return FileTimeToLocalFileTime(&now, &local) ? TicksOf(local) - TicksOf(now) : 0;  // modulo 2^64
  }();
  const FILETIME local = vorn::windows::FileTimeOf(TicksOf(now) + distance);
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
