// The clock of messages and samples.
#pragma once

#include <cstdint>

namespace VornCore {

// Microseconds since 1970-01-01 UTC. Any thread.
std::uint64_t GetPreciseTimeMicros() noexcept;

}  // namespace VornCore
