#include "VornCore/Base/ring_buffer.h"

#include <cstdlib>
#include <cstring>

#include "VornCore/Base/log.h"

namespace VornCore {
namespace {

// A longer wait than one copy means that the owner has been preempted. A waiter of higher priority would keep
// it from running if it only spun, or only yielded to its equals: so it spins briefly, then yields its
// processor, and at last sleeps.
constexpr int kSpins = 256, kYields = 16;

void Pause(int round) noexcept {
  if (round < kSpins)
    YieldProcessor();
  else if (round < kSpins + kYields)
    SwitchToThread();
  else
    Sleep(1);
}

}  // namespace

void RingQueue::Lock() noexcept {
  std::uint32_t free_state = 0;
  for (int round = 0; !lock_.compare_exchange_strong(free_state, 1, std::memory_order_acquire); ++round) {
    // Waiters read until the lock looks free: a failed exchange takes the cache line from its holder.
    do Pause(round);
    while (lock_.load(std::memory_order_relaxed) && ++round < kSpins + kYields);
    free_state = 0;
  }
}

void RingQueue::Unlock() noexcept {
  // Only the holder changes a held lock: a plain store does, and saves a third of a push.
  if (lock_.load(std::memory_order_relaxed) != 1)
    VORN_LOG_E("Ring Queue %p unlock flag failed", this);
  else
    lock_.store(0, std::memory_order_release);
}

bool RingQueue::Init(std::int32_t capacity) noexcept {
  if (capacity < 1) return false;
  nodes_ = static_cast<RingNode*>(calloc(static_cast<std::size_t>(capacity), sizeof(RingNode)));
  if (!nodes_) {
    VORN_LOG_E("Ring Queue %p init failed", this);
    return false;
  }
  capacity_ = capacity;
  head_ = tail_ = 0;
  return true;
}

bool RingQueue::Push(const void* data, std::uint32_t length) noexcept {
  if (!nodes_ || !data || length == 0 || capacity_ <= 0) return false;
  Lock();
  const std::uint32_t next = After(tail_);
  if (next == head_) {
    Unlock();
    VORN_LOG_E("Ring Queue %p is full", this);
    return false;
  }
  RingNode& node = nodes_[tail_];
  tail_ = next;
  if (node.capacity < length) {
    free(node.data);
    node.data = malloc(length);
    if (!node.data) {
      node = {};
      Unlock();
      VORN_LOG_W("Ring Queue %p push pNode failed", this);
      return false;
    }
    node.capacity = length;
  }
  std::memcpy(node.data, data, length);
  node.length = length;

  const auto size = static_cast<std::int32_t>(Count());
  if (size >= static_cast<std::int32_t>(std::int64_t{capacity_} * 8 / 10))
    VORN_LOG_W("Ring Queue %p usage exceeds 80%%, nSize %d, nMaxSize %d", this, size, capacity_);
  Unlock();
  return true;
}

PopResult RingQueue::Pop(const RingNode** node) noexcept {
  if (!nodes_ || !node || capacity_ <= 0) return PopResult::kError;
  Lock();
  if (head_ == tail_) {
    taken_.store(nullptr, std::memory_order_relaxed);
    Unlock();
    return PopResult::kEmpty;
  }
  const RingNode& taken = nodes_[head_];
  const bool valid = taken.length != 0 && taken.data;
  head_ = After(head_);
  taken_.store(valid ? &taken : nullptr, std::memory_order_relaxed);
  *node = &taken;
  Unlock();
  if (!valid) {
    VORN_LOG_E("node invalid, pData %p, uDataLen %u", taken.data, taken.length);
    return PopResult::kError;
  }
  return PopResult::kNode;
}

bool RingQueue::IsEmpty() noexcept {
  Lock();
  const bool empty = head_ == tail_;
  Unlock();
  return empty;
}

bool RingQueue::IsFull() noexcept {
  if (capacity_ <= 0) return false;
  Lock();
  const bool full = After(tail_) == head_;
  Unlock();
  return full;
}

bool RingQueue::Destroy() noexcept {
  for (std::int32_t i = 0; nodes_ && i < capacity_; ++i) free(nodes_[i].data);
  free(nodes_);
  nodes_ = nullptr;
  head_ = tail_ = 0;
  capacity_ = 0;
  taken_.store(nullptr, std::memory_order_relaxed);
  lock_.store(0, std::memory_order_relaxed);
  return true;
}

}  // namespace VornCore
