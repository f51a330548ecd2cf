#include "VornCore/Base/clock.h"

#include "Policy/file_time.h"
#include "windows/nt.h"

namespace VornCore {

std::uint64_t GetPreciseTimeMicros() noexcept {
  FILETIME now;
  GetSystemTimePreciseAsFileTime(&now);
  const std::uint64_t ticks = (std::uint64_t{now.dwHighDateTime} << 32) | now.dwLowDateTime;
  return (ticks - vorn::policy::kUnixEpochTicks) / vorn::policy::kTicksPerMicrosecond;
}

}  // namespace VornCore
