#include <gtest/gtest.h>

#include <thread>

#include "VornCore/Base/flood_rule.h"
#include "VornCore/Base/message_queue.h"
#include "base_environment.h"

namespace VornCore {
namespace {

using test::ProcessLog;

class Ring : public testing::Test {
 protected:
  void SetUp() override {
    ASSERT_EQ(log.start_error(), 0u);
    log.SetFlags(0xF);
    log.NewText();
  }
  void TearDown() override { queue.Destroy(); }

  bool PushNumber(int value) { return queue.Push(&value, sizeof value); }
  int PopNumber() {
    const RingNode* node = nullptr;
    return queue.Pop(&node) == PopResult::kNode ? *static_cast<const int*>(node->data) : -1;
  }

  ProcessLog& log = ProcessLog::Get();
  RingQueue queue;
};

TEST_F(Ring, WarnsWhenFourFifthsFullAndRefusesWhenFull) {
  ASSERT_TRUE(queue.Init(1000));
  for (int i = 0; i < 799; ++i) ASSERT_TRUE(PushNumber(i));
  EXPECT_EQ(log.NewText(), "");
  EXPECT_TRUE(PushNumber(799));
  EXPECT_TRUE(log.NewText().ends_with(" usage exceeds 80%, nSize 800, nMaxSize 1000\n"));
  for (int i = 800; i < 999; ++i) ASSERT_TRUE(PushNumber(i));
  EXPECT_EQ(log.NewLines().size(), 199u);
  EXPECT_TRUE(queue.IsFull());
  EXPECT_FALSE(PushNumber(999));
  EXPECT_TRUE(log.NewText().ends_with(" is full\n"));
  for (int i = 0; i < 999; ++i) ASSERT_EQ(PopNumber(), i);
  EXPECT_TRUE(queue.IsEmpty());
  EXPECT_EQ(PopNumber(), -1);
}

// Messages are not lost, doubled or torn, and each producer's come in its order, however threads meet.
TEST_F(Ring, ManyProducersOneConsumer) {
  ASSERT_TRUE(queue.Init(16));
  log.SetFlags(0);
  constexpr int kProducers = 4, kMessages = 20'000;
  struct Message {
    int producer, number, copy[30];
  };
  std::vector<std::thread> producers;
  for (int p = 0; p < kProducers; ++p)
    producers.emplace_back([&, p] {
      for (int n = 0; n < kMessages; ++n) {
        Message message{p, n, {}};
        std::fill(std::begin(message.copy), std::end(message.copy), p ^ n);
        // Sizes differ, so that a node's buffer is too small for one and too large for another.
        const auto bytes = static_cast<std::uint32_t>(sizeof message - 4 * (n % 29));
        while (!queue.Push(&message, bytes)) std::this_thread::yield();
      }
    });
  int next[kProducers] = {}, torn = 0, disordered = 0;
  for (int taken = 0; taken < kProducers * kMessages;) {
    const RingNode* node = nullptr;
    if (queue.Pop(&node) != PopResult::kNode) {
      std::this_thread::yield();
      continue;
    }
    ++taken;
    const auto& message = *static_cast<const Message*>(node->data);
    for (std::uint32_t at = 0; at < (node->length - 8) / 4; ++at)
      torn += message.copy[at] != (message.producer ^ message.number);
    torn += node->length != sizeof message - 4 * (message.number % 29);
    disordered += message.number != next[message.producer]++;
  }
  for (auto& producer : producers) producer.join();
  EXPECT_EQ(torn, 0);
  EXPECT_EQ(disordered, 0);
}

// ---- The queue with its sleeping consumer ----

// A thread that takes the messages of a queue.
template <class Take>
class Consumer {
 public:
  Consumer(std::uint32_t room, Take) {
    EXPECT_TRUE(queue.InitRing(room) && queue.InitEvent());
    const auto run = [](void*) -> DWORD { return queue.Consume(Take{}), 0; };
    thread_ = CreateThread(nullptr, 0, run, nullptr, 0, nullptr);
  }
  ~Consumer() { queue.Destroy(); }
  void End() {
    TerminateThread(thread_, 0);
    EXPECT_EQ(WaitForSingleObject(thread_, 30'000), WAIT_OBJECT_0);
    CloseHandle(thread_);
  }
  static inline MessageQueue queue;

 private:
  HANDLE thread_;
};

// The consumer falls asleep between almost any two messages here: one missed wake-up and the next message,
// sent only after the last was answered, never comes.
TEST(SleepingConsumer, MissesNoMessage) {
  static std::atomic<int> taken;
  Consumer consumer(64, [](const void*, std::uint32_t) { ++taken; });
  const ULONGLONG deadline = GetTickCount64() + 60'000;
  int sent = 0;
  for (int round = 0; round < 3'000 && GetTickCount64() < deadline; ++round) {
    for (int spin = round % 400; spin > 0; --spin) YieldProcessor();
    for (int burst = round % 3; burst >= 0; --burst) sent += consumer.queue.Push("m", 1);
    while (taken != sent && GetTickCount64() < deadline) SwitchToThread();
    ASSERT_EQ(taken, sent) << "after round " << round;
  }
  consumer.End();
}

// A process ends while its consumer waits for the host: the last thread goes on with that message.
TEST(EndedConsumer, LeavesNothingUncounted) {
  static std::string taken;
  static const HANDLE standing = CreateEventW(nullptr, TRUE, FALSE, nullptr);
  Consumer consumer(8, [](const void*, std::uint32_t) {
    SetEvent(standing);
    Sleep(INFINITE);
  });
  for (const char* message : {"1", "2", "3", "4", "5"}) ASSERT_TRUE(consumer.queue.Push(message, 1));
  ASSERT_EQ(WaitForSingleObject(standing, 30'000), WAIT_OBJECT_0);
  consumer.End();

  EXPECT_FALSE(consumer.queue.IsAbandoned());
  const auto take = [](const void* data, std::uint32_t) {
    taken += *static_cast<const char*>(data);
    return true;
  };
  const auto take_two = [](const void* data, std::uint32_t) {
    if (taken.size() < 2) taken += *static_cast<const char*>(data);
    return *static_cast<const char*>(data) < '3';
  };
  EXPECT_EQ(consumer.queue.Drain(take_two), 3u);
  EXPECT_EQ(taken, "12");
  EXPECT_EQ(consumer.queue.Drain(take), 0u) << "beginning with the one that was refused";
  EXPECT_EQ(taken, "12345");
}

TEST(Flood, OnlyAFastRunIsDroppedFrom) {
  FloodRule fast, rule;
  for (unsigned n = 0; n < 20; ++n) EXPECT_EQ(fast.Drops(3, 0, 1'000'000 + n), n >= 5) << n;
  EXPECT_FALSE(fast.Drops(2, 0, 1'000'021)) << "another type";
  for (unsigned n = 0; n < 6; ++n) EXPECT_FALSE(rule.Drops(3, 0, 1'000'000 + n * 200));
  for (unsigned n = 0; n < 50; ++n) EXPECT_FALSE(rule.Drops(3, 0, 1'001'001 + n));
}

}  // namespace
}  // namespace VornCore
