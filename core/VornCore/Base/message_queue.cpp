#include "VornCore/Base/message_queue.h"

#include "VornCore/Base/log.h"

namespace VornCore {

bool MessageQueue::InitEvent() noexcept {
  event_.reset(CreateEventW(nullptr, TRUE, FALSE, nullptr));
  return bool(event_);
}

void MessageQueue::Destroy() noexcept {
  ring_.Destroy();
  event_.reset();
  sleeping_.store(false, std::memory_order_relaxed);
}

bool MessageQueue::Push(const void* data, std::uint32_t bytes) noexcept {
  if (IsAbandoned()) return false;  // nobody would give the lock back
  const bool queued = ring_.Push(data, bytes);
  if (sleeping_.load(std::memory_order_relaxed) && sleeping_.exchange(false)) SetEvent(event_.get());
  return queued;
}

void MessageQueue::WaitForMessage() noexcept {
  ResetEvent(event_.get());
  sleeping_.store(true);
  if (ring_.IsEmpty()) WaitForSingleObject(event_.get(), INFINITE);
  sleeping_.store(false, std::memory_order_relaxed);
}

void MessageQueue::Consume(Handler handle) noexcept {
  constexpr int kMaxFailures = 10;
  int failures = 0;
  for (;;) {
    const RingNode* node = nullptr;
    switch (ring_.Pop(&node)) {
      case PopResult::kNode:
        handle(node->data, node->length);
        failures = 0;
        break;
      case PopResult::kEmpty:
        WaitForMessage();
        break;
      case PopResult::kError:
        if (++failures == kMaxFailures) {
          VORN_LOG_E("get data failed more than 10, and break");
          return;
        }
        VORN_LOG_W("get data failed, cnt %d", failures);
        break;
    }
  }
}

std::uint32_t MessageQueue::Drain(bool (*handle)(const void* data, std::uint32_t bytes)) noexcept {
  const RingNode* node = ring_.Taken();
  if (node && !handle(node->data, node->length)) return 1 + ring_.Count();
  while (ring_.Count() > 0)
    if (ring_.Pop(&node) == PopResult::kNode && !handle(node->data, node->length)) return 1 + ring_.Count();
  return 0;
}

void MessageQueue::WaitForSleepingConsumer(DWORD patience_ms) const noexcept {
  const ULONGLONG end = GetTickCount64() + patience_ms;
  while (!sleeping_.load() && GetTickCount64() < end) Sleep(1);
}

}  // namespace VornCore
