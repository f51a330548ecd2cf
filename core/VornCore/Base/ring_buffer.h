// Bounded queue of copied messages between the threads that produce them and the one that takes them.
//
//   RingQueue queue;
//   queue.Init(1000);
//   queue.Push(message, bytes);                       // any thread; copies
//   const RingNode* node;
//   if (queue.Pop(&node) == PopResult::kNode) use(node->data, node->length);
//
// A ring of nodes, each with a buffer of its own that only grows:
//
//   nodes   [ 0 ][ 1 ][ 2 ][ 3 ] … [ capacity − 1 ]
//              ^head        ^tail                      head == tail: empty; tail one short of head: full
//
// so it holds at most capacity − 1 messages, and the node that was popped last is never the one being filled:
// its data may be read in place until the next Pop. Any number of threads push, one pops. A spin lock covers
// the indexes and the copy; after warm-up nothing is allocated.
#pragma once

#include <atomic>
#include <cstdint>

namespace VornCore {

struct RingNode {
  std::uint32_t capacity;  // bytes allocated at data
  std::uint32_t length;    // bytes of the current message
  void* data;
};

enum class PopResult : std::uint32_t { kNode = 0, kEmpty = 1, kError = 2 };

class RingQueue {
 public:
  RingQueue() = default;
  RingQueue(const RingQueue&) = delete;
  RingQueue& operator=(const RingQueue&) = delete;

  // False for a capacity below 1 and when memory is short. Before any other thread uses the queue.
  [[nodiscard]] bool Init(std::int32_t capacity) noexcept;

  // True when a copy of length bytes is queued. False without data, when the queue is full, or when the
  // node's buffer cannot be made large enough; then that node is popped as an error.
  [[nodiscard]] bool Push(const void* data, std::uint32_t length) noexcept;

  // Takes the oldest message. The node stays the caller's until the next Pop.
  [[nodiscard]] PopResult Pop(const RingNode** node) noexcept;

  // For a thread that goes on where the popping one ended: the node that this one still had, or null, and the
  // number of messages behind it.
  [[nodiscard]] const RingNode* Taken() const noexcept { return taken_.load(std::memory_order_relaxed); }
  [[nodiscard]] std::uint32_t Count() const noexcept {
    return tail_ >= head_ ? tail_ - head_ : tail_ + static_cast<std::uint32_t>(capacity_) - head_;
  }

  // Whether a thread is inside the queue at this moment.
  [[nodiscard]] bool IsLocked() const noexcept { return lock_.load() != 0; }
  [[nodiscard]] bool IsEmpty() noexcept;
  [[nodiscard]] bool IsFull() noexcept;  // false for a queue without nodes

  // Frees the nodes and their buffers. No other thread may use the queue any more.
  bool Destroy() noexcept;

 private:
  void Lock() noexcept;
  void Unlock() noexcept;
  [[nodiscard]] std::uint32_t After(std::uint32_t index) const noexcept {
    return index + 1 == static_cast<std::uint32_t>(capacity_) ? 0 : index + 1;
  }

  std::atomic<std::uint32_t> lock_ = 0;  // 0 free, 1 held
  std::uint32_t head_ = 0;               // next to pop
  std::uint32_t tail_ = 0;               // next to fill
  std::int32_t capacity_ = 0;
  RingNode* nodes_ = nullptr;
  std::atomic<const RingNode*> taken_ = nullptr;  // by the last Pop; changes with head_, under the lock
};

}  // namespace VornCore
