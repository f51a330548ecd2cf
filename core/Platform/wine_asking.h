// Asking the system what it can do, once, instead of judging by its version or by what it exports.
#pragma once

#include "Platform/guard.h"
#include "Platform/last_error.h"

namespace VornCore::platform::wine {

// Whether the function that call() calls, with arguments that change nothing, does its work. One that is
// exported may answer every call with the same failure, or raise.
template <class Call>
bool DoesItsWork(Call call) {
  constexpr DWORD kUnimplementedRaised = 0x80000100;
  const LastErrorKeeper keep;
  SetLastError(ERROR_SUCCESS);
  DWORD code = 0;
  if (!Guarded(call, &code)) return code != kUnimplementedRaised;
  return GetLastError() != ERROR_CALL_NOT_IMPLEMENTED;
}

}  // namespace VornCore::platform::wine
