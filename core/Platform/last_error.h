// Gives the thread its last-error value back at the end of a scope: code inside an intercepted call must not
// change what the application reads.
#pragma once

#include <windows.h>

namespace VornCore::platform {

class [[nodiscard]] LastErrorKeeper {
 public:
  LastErrorKeeper() : value_(GetLastError()) {}
  ~LastErrorKeeper() { SetLastError(value_); }
  LastErrorKeeper(const LastErrorKeeper&) = delete;
  LastErrorKeeper& operator=(const LastErrorKeeper&) = delete;
  DWORD value() const { return value_; }

 private:
  DWORD value_;
};

}  // namespace VornCore::platform
