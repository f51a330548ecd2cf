// Owner of a kernel handle. Null and INVALID_HANDLE_VALUE both count as none.
#pragma once

#include "windows/nt.h"

namespace vorn::ipc {

class UniqueHandle {
 public:
  UniqueHandle() noexcept = default;
  explicit UniqueHandle(HANDLE handle) noexcept
      : handle_(handle == INVALID_HANDLE_VALUE ? nullptr : handle) {}
  UniqueHandle(UniqueHandle&& other) noexcept : handle_(other.release()) {}
  UniqueHandle& operator=(UniqueHandle&& other) noexcept {
    reset(other.release());
    return *this;
  }
  ~UniqueHandle() { reset(); }

  explicit operator bool() const noexcept { return handle_ != nullptr; }
  HANDLE get() const noexcept { return handle_; }
  HANDLE release() noexcept {
    HANDLE handle = handle_;
    handle_ = nullptr;
    return handle;
  }
  void reset(HANDLE handle = nullptr) noexcept {
    if (handle_ && handle_ != handle) CloseHandle(handle_);
    handle_ = handle == INVALID_HANDLE_VALUE ? nullptr : handle;
  }
  // For functions that write a new handle.
  HANDLE* put() noexcept {
    reset();
    return &handle_;
  }

 private:
  HANDLE handle_ = nullptr;
};

}  // namespace vorn::ipc
