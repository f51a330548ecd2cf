// A growing array on pages of its own. Other threads may be suspended while it grows, one of them inside the
// heap, so the heap is out of reach.
#pragma once

#include <windows.h>

#include <cstddef>
#include <cstring>
#include <type_traits>

namespace detours {

template <class T>
class PageArray {
  static_assert(std::is_trivially_copyable_v<T>);

 public:
  constexpr PageArray() noexcept = default;
  ~PageArray() { Clear(); }
  PageArray(const PageArray&) = delete;
  PageArray& operator=(const PageArray&) = delete;

  // False when there is no memory.
  [[nodiscard]] bool Add(const T& item) noexcept {
    if (size_ == capacity_ && !Grow()) return false;
    items_[size_++] = item;
    return true;
  }

  void RemoveLast() noexcept { --size_; }

  void Clear() noexcept {
    if (items_) VirtualFree(items_, 0, MEM_RELEASE);
    items_ = nullptr;
    size_ = capacity_ = 0;
  }

  [[nodiscard]] std::size_t size() const noexcept { return size_; }
  [[nodiscard]] T& operator[](std::size_t i) noexcept { return items_[i]; }
  [[nodiscard]] T* begin() noexcept { return items_; }
  [[nodiscard]] T* end() noexcept { return items_ + size_; }

 private:
  bool Grow() noexcept {
    constexpr std::size_t kFirst = 4096 / sizeof(T);
    const std::size_t capacity = capacity_ ? capacity_ * 2 : kFirst;
    auto* items = static_cast<T*>(
        VirtualAlloc(nullptr, capacity * sizeof(T), MEM_RESERVE | MEM_COMMIT, PAGE_READWRITE));
    if (!items) return false;
    if (items_) {
      memcpy(items, items_, size_ * sizeof(T));
      VirtualFree(items_, 0, MEM_RELEASE);
    }
    items_ = items;
    capacity_ = capacity;
    return true;
  }

  T* items_ = nullptr;
  std::size_t size_ = 0;
  std::size_t capacity_ = 0;
};

}  // namespace detours
