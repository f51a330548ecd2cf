// Making a child process that has not run yet load the library of its bitness.
#pragma once

#include "windows/nt.h"

namespace VornCore {

// Every outcome is reported to the host. False when the child will run without the library.
bool InjectBizDll(HANDLE child) noexcept;

}  // namespace VornCore
