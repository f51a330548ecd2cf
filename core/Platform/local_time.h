// The local time of log lines, also in the last moments of a process.
#pragma once

#include <windows.h>

namespace VornCore::platform {

// Any thread. Takes no lock that a thread may hold when the end of the process takes it away.
SYSTEMTIME LocalTime() noexcept;

}  // namespace VornCore::platform
