// The host's transport library, vorn_ipc.dll: loaded from the path in the section, initialised, called, and
// unloaded again. Loading and unloading happen on one thread; in between any thread may send or stop.
#pragma once

#include <cstdint>

#include "ipc/ipc_interface.h"

namespace VornCore {

// Loads the transport of this process's bitness and connects it. False, with a log line that names the step,
// when anything fails; nothing stays loaded then.
[[nodiscard]] bool InitIPC(const wchar_t* local_port, const wchar_t* server_port,
                           const vorn::ipc::IpcCallbacks* callbacks) noexcept;
bool UnInitIPC() noexcept;

// False when there is no transport.
bool IpcRecvLoop() noexcept;
bool IpcStop() noexcept;
bool IpcSend(const void* data, std::uint32_t bytes) noexcept;

}  // namespace VornCore
