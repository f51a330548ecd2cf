// Programs that no library can enter: where a system starts other programs than images of Windows, they would
// run unconfined.
#pragma once

#include "VornCore/Base/thread_state.h"
#include "windows/nt.h"

namespace VornCore {

// Asked before NtCreateUserProcess is called with these attributes, the caller's memory: the status with
// which a system refuses that starts images alone, or success. A refusal is reported, but that of a batch
// file, which the command processor runs then. Nothing is refused without the option, and on such a system.
[[nodiscard]] NTSTATUS RefuseForeignProgram(ThreadState* state, PPS_ATTRIBUTE_LIST attributes) noexcept;

}  // namespace VornCore
