// A value, or the typed reason why there is none. What std::expected will be, without exceptions.
#pragma once

#include <utility>

namespace detours {

template <class T, class Reason>
class [[nodiscard]] Result {
 public:
  constexpr Result(T value) noexcept : value_(std::move(value)), has_value_(true) {}
  constexpr Result(Reason reason) noexcept : reason_(reason) {}

  [[nodiscard]] constexpr bool has_value() const noexcept { return has_value_; }
  constexpr explicit operator bool() const noexcept { return has_value_; }

  // Only with a value.
  [[nodiscard]] constexpr const T& operator*() const noexcept { return value_; }
  [[nodiscard]] constexpr const T* operator->() const noexcept { return &value_; }

  // Only without a value.
  [[nodiscard]] constexpr Reason error() const noexcept { return reason_; }

 private:
  T value_{};
  Reason reason_{};
  bool has_value_ = false;
};

}  // namespace detours
