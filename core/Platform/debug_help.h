// The system's dump function, which is loaded only where crashes are written: nothing of the debug-help
// library is needed to start.
#pragma once

#include <windows.h>
// after windows.h
#include <dbghelp.h>

namespace VornCore::platform {

using MiniDumpWriteDumpFn = decltype(&::MiniDumpWriteDump);

// Null when the library or its export is missing. Loads; not during process attach.
[[nodiscard]] MiniDumpWriteDumpFn LoadMiniDumpWriteDump() noexcept;

}  // namespace VornCore::platform
