// The start-up handshake between a parent and its child: a named event that the parent creates before the
// child runs, and that the child sets when its library is ready. Its name is the section's prefix followed by
// the child's process id in decimal.
#pragma once

#include "windows/nt.h"

namespace VornCore {

// The parent's half. The event, or null (logged) without a usable prefix or when it cannot be created. The
// caller closes it.
HANDLE CreateSubProcessEvent(HANDLE child) noexcept;

// The child's half, for this process. False without a usable prefix, or when there is no such event (logged).
bool SetInitEvent() noexcept;

}  // namespace VornCore
