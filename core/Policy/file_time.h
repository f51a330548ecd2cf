// The system's file times: 100 ns ticks since 1601-01-01 UTC.
#pragma once

#include <cstdint>

namespace vorn::policy {

inline constexpr std::uint64_t kTicksPerMicrosecond = 10, kTicksPerMillisecond = 10'000;
inline constexpr std::uint64_t kUnixEpochTicks = 116'444'736'000'000'000;  // 1970-01-01

// Milliseconds since 1970; 0 for a time before.
constexpr std::uint64_t UnixMilliseconds(std::uint64_t ticks) noexcept {
  return ticks > kUnixEpochTicks ? (ticks - kUnixEpochTicks) / kTicksPerMillisecond : 0;
}

}  // namespace vorn::policy
