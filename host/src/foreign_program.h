// Programs of a foreign kind: Wine starts those of Unix, too, as processes that nothing can enter.
#pragma once

#include <optional>

#include "vorn/launcher.h"

namespace vorn::host {

// On Wine, refuses what is no program of Windows before anything of it runs, and gives a batch file to the
// command processor, as the system would otherwise do after it has tried to start it as a Unix program.
// Nothing on Windows, which starts images alone. Any thread.
std::optional<LaunchFailure> RefuseForeignProgram(LaunchOptions& options);

}  // namespace vorn::host
