// Owners of kernel handles. Null and INVALID_HANDLE_VALUE both count as none.
//
//   UniqueHandle event(CreateEventW(nullptr, TRUE, FALSE, nullptr));
//   UniqueHandle token;
//   NtOpenProcessToken(GetCurrentProcess(), TOKEN_QUERY, token.put());
//
// Code that runs inside intercepted calls uses a closer that goes past the interception
// (VornCore/Hook/own_handle.h).
#pragma once

#include "windows/nt.h"

namespace vorn::windows {

// kClose takes a handle that is neither null nor INVALID_HANDLE_VALUE.
template <auto kClose>
class [[nodiscard]] BasicHandle {
 public:
  constexpr BasicHandle() noexcept = default;
  explicit BasicHandle(HANDLE handle) noexcept : handle_(Normalised(handle)) {}
  BasicHandle(BasicHandle&& other) noexcept : handle_(other.release()) {}
  BasicHandle& operator=(BasicHandle&& other) noexcept {
    reset(other.release());
    return *this;
  }
  ~BasicHandle() { reset(); }

  explicit operator bool() const noexcept { return handle_ != nullptr; }
  HANDLE get() const noexcept { return handle_; }
  HANDLE release() noexcept {
    HANDLE handle = handle_;
    handle_ = nullptr;
    return handle;
  }
  void reset(HANDLE handle = nullptr) noexcept {
    if (handle_ && handle_ != handle) (void)kClose(handle_);
    handle_ = Normalised(handle);
  }
  // For functions that write a new handle.
  HANDLE* put() noexcept {
    reset();
    return &handle_;
  }

 private:
  static HANDLE Normalised(HANDLE handle) noexcept {
    return handle == INVALID_HANDLE_VALUE ? nullptr : handle;
  }

  HANDLE handle_ = nullptr;
};

inline void CloseKernelHandle(HANDLE handle) noexcept { CloseHandle(handle); }
using UniqueHandle = BasicHandle<&CloseKernelHandle>;

}  // namespace vorn::windows
