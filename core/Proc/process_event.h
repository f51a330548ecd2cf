// Telling the host what became of a child process.
#pragma once

#include <string_view>

#include "Policy/message.h"
#include "windows/nt.h"

namespace VornCore {

using vorn::policy::ProcessEventKind;

// code: 0, the Win32 error or the exit code, by kind. The message carries the base name of the image of
// process; none with a null handle.
void SendProcessEvent(ProcessEventKind kind, HANDLE process, DWORD child_id, DWORD code) noexcept;

// The same with the name taken from image, a path of any form.
void SendProcessEvent(ProcessEventKind kind, std::wstring_view image, DWORD child_id, DWORD code) noexcept;

}  // namespace VornCore
