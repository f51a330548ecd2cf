// The start-up handshake between a parent and its child: a named event that the parent creates before the
// child runs, and that the child sets when its library is ready.
#pragma once

#include "VornCore/Hook/own_handle.h"

namespace VornCore {

// The parent's half. The event, or null (logged) without a usable prefix or when it cannot be created.
OwnHandle CreateSubProcessEvent(HANDLE child) noexcept;

// The child's half, for this process. False without a usable prefix, or when there is no such event (logged).
bool SetInitEvent() noexcept;

}  // namespace VornCore
