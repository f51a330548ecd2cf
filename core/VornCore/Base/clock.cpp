#include "VornCore/Base/clock.h"

#include "Platform/nt.h"

namespace VornCore {

std::uint64_t GetPreciseTimeMicros() noexcept {
  constexpr std::uint64_t kUnixEpoch = 116'444'736'000'000'000;  // 1970-01-01 in 100 ns since 1601-01-01
  FILETIME now;
  GetSystemTimePreciseAsFileTime(&now);
  const std::uint64_t ticks = (std::uint64_t{now.dwHighDateTime} << 32) | now.dwLowDateTime;
  return (ticks - kUnixEpoch) / 10;
}

}  // namespace VornCore
