// A ring queue with a consumer thread that sleeps while there is nothing to take.
//
// A producer that finds the consumer awake pays for the copy alone; only one that finds it asleep, or about
// to fall asleep, signals the event. No message is missed: the consumer says that it will sleep before it
// looks into the queue a last time, and both that look and every push take the queue's lock. So a push comes
// before the look, and is seen by it, or after it, and then sees the sleeper.
#pragma once

#include <atomic>
#include <cstdint>

#include "VornCore/Base/ring_buffer.h"
#include "windows/unique_handle.h"

namespace VornCore {

class MessageQueue {
 public:
  // The two steps before any thread uses the queue.
  [[nodiscard]] bool InitRing(std::int32_t capacity) noexcept { return ring_.Init(capacity); }
  [[nodiscard]] bool InitEvent() noexcept;
  // Frees everything. No thread may use the queue any more.
  void Destroy() noexcept;

  // Queues a copy and wakes the consumer, also when there was no room. Any thread.
  [[nodiscard]] bool Push(const void* data, std::uint32_t bytes) noexcept;

  using Handler = void (*)(const void* data, std::uint32_t bytes);
  // The consumer thread's loop: hands each message to handle. Returns only when the queue answers with ten
  // errors in a row.
  void Consume(Handler handle) noexcept;

  // Whether the end of the process took away a thread inside the queue. Then nothing is pushed any more, and
  // nothing may be drained.
  [[nodiscard]] bool IsAbandoned() const noexcept { return ring_.IsLocked() && RtlDllShutdownInProgress(); }
  // For the last thread of an ending process: hands what is left to handle, until it answers false, and
  // returns how many messages are left then. The first may be the message that the consumer had in hand when
  // it ended, and it may have got through.
  [[nodiscard]] std::uint32_t Drain(bool (*handle)(const void* data, std::uint32_t bytes)) noexcept;

  // Waits until the consumer sleeps, and so holds no lock; gives up when time is up.
  void WaitForSleepingConsumer(DWORD patience_ms) const noexcept;

 private:
  void WaitForMessage() noexcept;

  RingQueue ring_;
  vorn::windows::UniqueHandle event_;  // manual reset
  std::atomic<bool> sleeping_ = false;
};

}  // namespace VornCore
