// The outgoing queue against the same ring behind a mutex, and its wake-up against one that signals every
// message.
//
// Prints the time of a message through each, as ratios within one run, and the allocations after warm-up.
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <mutex>
#include <thread>
#include <vector>

#include "Platform/lock.h"
#include "VornCore/Base/message_queue.h"
#include "VornCore/Base/ring_buffer.h"

namespace {
std::atomic<long long> allocations = 0;
}
// The linker leads every malloc of this program here.
extern "C" void* __real_malloc(std::size_t bytes);
extern "C" void* __wrap_malloc(std::size_t bytes) {
  ++allocations;
  return __real_malloc(bytes);
}

namespace {

using VornCore::PopResult;
using VornCore::RingNode;

constexpr std::int32_t kNodes = 1'000;

// What the queue is measured against: the same ring of growing buffers, under a lock of the given kind.
template <class Mutex>
class MutexRing {
 public:
  bool Push(const void* data, std::uint32_t length) {
    std::lock_guard guard(mutex_);
    const std::uint32_t next = (tail_ + 1) % kNodes;
    if (next == head_) return false;
    RingNode& node = nodes_[tail_];
    tail_ = next;
    if (node.capacity < length) {
      std::free(node.data);
      node.data = std::malloc(length);
      node.capacity = length;
    }
    std::memcpy(node.data, data, length);
    node.length = length;
    return true;
  }
  PopResult Pop(const RingNode** node) {
    std::lock_guard guard(mutex_);
    if (head_ == tail_) return PopResult::kEmpty;
    *node = &nodes_[head_];
    head_ = (head_ + 1) % kNodes;
    return PopResult::kNode;
  }

 private:
  Mutex mutex_;
  std::uint32_t head_ = 0, tail_ = 0;
  RingNode nodes_[kNodes] = {};
};

class CriticalSectionMutex {
 public:
  void lock() { section_.Enter(); }
  void unlock() { section_.Leave(); }

 private:
  VornCore::platform::CriticalSection section_;
};

class SrwMutex {
 public:
  void lock() { AcquireSRWLockExclusive(&lock_); }
  void unlock() { ReleaseSRWLockExclusive(&lock_); }

 private:
  SRWLOCK lock_ = SRWLOCK_INIT;
};

using Clock = std::chrono::steady_clock;
double NanosecondsSince(Clock::time_point start) {
  return std::chrono::duration<double, std::nano>(Clock::now() - start).count();
}

// Nanoseconds for one message in and out again, on one thread.
template <class Queue>
double OneThread(Queue& queue, std::uint32_t bytes) {
  constexpr int kMessages = 200'000;
  static char message[4096];
  const RingNode* node = nullptr;
  for (int i = 0; i < kNodes; ++i) {  // warm-up: every node has its buffer
    (void)queue.Push(message, bytes);
    (void)queue.Pop(&node);
  }
  const long long before = allocations;
  const auto start = Clock::now();
  for (int i = 0; i < kMessages; ++i) {
    (void)queue.Push(message, bytes);
    (void)queue.Pop(&node);
  }
  const double time = NanosecondsSince(start) / kMessages;
  if (allocations != before) std::printf("  %lld allocations after warm-up\n", allocations - before);
  return time;
}

// Nanoseconds for one message when producers push while another thread takes.
template <class Queue>
double Contended(Queue& queue, int producers) {
  constexpr int kMessages = 100'000;
  char message[200] = {};
  std::vector<std::thread> threads;
  const auto start = Clock::now();
  for (int p = 0; p < producers; ++p)
    threads.emplace_back([&] {
      for (int i = 0; i < kMessages; ++i)
        while (!queue.Push(message, sizeof message)) SwitchToThread();
    });
  const RingNode* node = nullptr;
  for (int taken = 0; taken < producers * kMessages;) {
    if (queue.Pop(&node) == PopResult::kNode)
      ++taken;
    else
      SwitchToThread();
  }
  for (auto& thread : threads) thread.join();
  return NanosecondsSince(start) / (producers * kMessages);
}

// The producer's cost of a message in bursts of 20 to a consumer that sleeps in between.
struct EveryMessageSignals {
  MutexRing<CriticalSectionMutex> ring;
  HANDLE event = CreateEventW(nullptr, TRUE, FALSE, nullptr);

  bool Push(const void* data, std::uint32_t bytes) {
    const bool queued = ring.Push(data, bytes);
    SetEvent(event);
    return queued;
  }
  void Consume(VornCore::MessageQueue::Handler handle) {
    const RingNode* node = nullptr;
    for (;;) {
      if (ring.Pop(&node) == PopResult::kNode) {
        handle(node->data, node->length);
        continue;
      }
      ResetEvent(event);
      if (ring.Pop(&node) == PopResult::kNode)
        handle(node->data, node->length);
      else
        WaitForSingleObject(event, INFINITE);
    }
  }
};

template <class Queue>
double Bursts(Queue& queue) {
  static std::atomic<int> taken;
  taken = 0;
  HANDLE consumer = CreateThread(
      nullptr, 0,
      [](void* context) -> DWORD {
        static_cast<Queue*>(context)->Consume([](const void*, std::uint32_t) { ++taken; });
        return 0;
      },
      &queue, 0, nullptr);
  constexpr int kBursts = 500, kBurst = 20;
  char message[200] = {};
  double time = 0;
  for (int b = 1; b <= kBursts; ++b) {
    const auto start = Clock::now();
    for (int i = 0; i < kBurst; ++i) (void)queue.Push(message, sizeof message);
    time += NanosecondsSince(start);
    while (taken != b * kBurst) SwitchToThread();
  }
  TerminateThread(consumer, 0);
  CloseHandle(consumer);
  return time / (kBursts * kBurst);
}

template <class Measure>
double Best(Measure measure) {
  double best = 1e30;
  for (int i = 0; i < 7; ++i) best = std::min(best, measure());
  return best;
}

}  // namespace

int main() {
  static VornCore::RingQueue ring;
  static MutexRing<CriticalSectionMutex> critical_section;
  static MutexRing<SrwMutex> srw;
  static MutexRing<std::mutex> standard;
  if (!ring.Init(kNodes)) return 1;

  std::printf("one thread, ns per message in and out      queue  mutex(cs)    srw  std::mutex   queue/cs\n");
  for (const std::uint32_t bytes : {30u, 200u, 1000u}) {
    const double ours = Best([&] { return OneThread(ring, bytes); });
    const double cs = Best([&] { return OneThread(critical_section, bytes); });
    const double slim = Best([&] { return OneThread(srw, bytes); });
    const double std_mutex = Best([&] { return OneThread(standard, bytes); });
    std::printf("  %4u bytes %36.1f %10.1f %6.1f %11.1f %10.2f\n", bytes, ours, cs, slim, std_mutex,
                ours / cs);
  }
  for (const int producers : {1, 2, 4}) {
    const double ours = Best([&] { return Contended(ring, producers); });
    const double cs = Best([&] { return Contended(critical_section, producers); });
    std::printf("%d producers, 1 consumer, 200 bytes %19.1f %10.1f %29.2f\n", producers, ours, cs, ours / cs);
  }

  static VornCore::MessageQueue queue;
  static EveryMessageSignals naive;
  if (!queue.InitRing(kNodes) || !queue.InitEvent()) return 1;
  const double ours = Bursts(queue), every = Bursts(naive);
  std::printf("bursts of 20, producer's ns per message %14.1f %10.1f (signals every message) %6.2f\n", ours,
              every, ours / every);
  return 0;
}
