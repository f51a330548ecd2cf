// The error of a Windows call that just failed.
#pragma once

#include <windows.h>

namespace detours {

// Never NO_ERROR, so that a call that fails without giving a reason is not taken for a success.
inline DWORD Failure() {
  const DWORD error = GetLastError();
  return error ? error : ERROR_GEN_FAILURE;
}

}  // namespace detours
