// Owner of a handle that the library opened for itself: closing it goes past the library's own handlers.
#pragma once

#include "VornCore/Hook/ntdll.h"
#include "windows/unique_handle.h"

namespace VornCore {

inline void CloseOwnHandle(HANDLE handle) noexcept { Ntdll::CallOriginalNtClose(handle); }
using OwnHandle = vorn::windows::BasicHandle<&CloseOwnHandle>;

}  // namespace VornCore
