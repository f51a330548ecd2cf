#include "VornCore/Base/clock.h"

#include "Policy/file_time.h"
#include "windows/file_time.h"

namespace VornCore {

std::uint64_t GetPreciseTimeMicros() noexcept {
  FILETIME now;
  GetSystemTimePreciseAsFileTime(&now);
  return (vorn::windows::TicksOf(now) - vorn::policy::kUnixEpochTicks) / vorn::policy::kTicksPerMicrosecond;
}

}  // namespace VornCore
