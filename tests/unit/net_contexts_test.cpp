// The list of overlapped receives in flight.
#include "Net/net_mgr_contexts.h"

#include <map>
#include <random>
#include <thread>

#include "net_confinement.h"

namespace VornCore::test {
namespace {

TEST(OverlappedContexts, AnswersLikeAMapOfWhatIsInFlight) {
  OverlappedContexts contexts;
  std::vector<OVERLAPPED> overlapped(60);
  std::map<OVERLAPPED*, SOCKET> in_flight;
  std::mt19937 random(5);
  for (int step = 0; step < 5000; ++step) {
    OVERLAPPED* const o = &overlapped[random() % overlapped.size()];
    const SOCKET s = 1 + random() % 5;
    const auto what = random() % 20;
    if (what < 12) {
      OverlappedContext* context = contexts.AcquireContext(o, s);
      ASSERT_TRUE(context && !context->caller_source) << "a context starts empty";
      context->caller_source = reinterpret_cast<sockaddr*>(o);
      in_flight[o] = s;
    } else if (what < 19) {
      contexts.ReleaseContext(o);
      in_flight.erase(o);
    } else {
      contexts.ReleaseSocketContexts(s);
      contexts.ReleaseSocketContexts(INVALID_SOCKET);
      std::erase_if(in_flight, [&](const auto& each) { return each.second == s; });
    }
    const OverlappedContext* found = contexts.FindContext(o);
    ASSERT_EQ(found != nullptr, in_flight.contains(o)) << step;
    ASSERT_TRUE(!found || found->caller_source == reinterpret_cast<sockaddr*>(o));
    if (found) contexts.LeaveContext(o);
    ASSERT_EQ(contexts.live_count(), static_cast<int>(in_flight.size()));
  }
  EXPECT_LE(contexts.element_count(), 60) << "released elements are used again";
  EXPECT_EQ(contexts.AcquireContext(nullptr, 7), nullptr);
}

TEST(OverlappedContexts, OneThreadAtATimeFinishesAnOperation) {
  OverlappedContexts contexts;
  OVERLAPPED overlapped{};
  const std::uint64_t first = contexts.AcquireContext(&overlapped, 1)->ticket;
  ASSERT_TRUE(contexts.FindContext(&overlapped));
  std::atomic<bool> started = false, found_another = true;
  std::thread second([&] {
    started = true;
    found_another = contexts.FindContext(&overlapped, first) != nullptr;
  });
  while (!started) Sleep(0);
  contexts.ReleaseContext(&overlapped);
  second.join();
  EXPECT_FALSE(found_another);

  // The caller of an operation that another thread has finished does not take the next one for its own.
  EXPECT_NE(contexts.AcquireContext(&overlapped, 1)->ticket, first);
  EXPECT_FALSE(contexts.FindContext(&overlapped, first));
  EXPECT_TRUE(contexts.FindContext(&overlapped));
}

TEST(OverlappedContexts, AMessageIsHandedBackOnce) {
  OverlappedContexts contexts;
  OVERLAPPED overlapped{};
  Address name{};
  WSAMSG message{};
  const auto start = [&] {
    OverlappedContext* context = contexts.AcquireContext(&overlapped, 1);
    context->caller_source = &name.any;
    context->caller_name_length = 28;
    context->caller_message = &message;
    message.name = context->source.get();
    message.namelen = 16;  // as Winsock leaves it
    return context;
  };
  OverlappedContext* context = start();
  HandBackMessage(context);
  EXPECT_EQ(context->source_length, 16);
  EXPECT_EQ(message.name, &name.any);
  EXPECT_EQ(message.namelen, 28);
  message.namelen = 5;
  HandBackMessage(context);
  contexts.ReleaseContext(&overlapped);
  EXPECT_EQ(message.namelen, 5);

  for (auto end : {+[](OverlappedContexts&c, OVERLAPPED*o) { c.ReleaseContext(o); },
                   +[](OverlappedContexts&c, OVERLAPPED*) { c.ReleaseSocketContexts(1); },
                   +[](OverlappedContexts&c, OVERLAPPED*o) { (void)c.AcquireContext(o, 1); },
                   +[](OverlappedContexts&c, OVERLAPPED*) { c.HandBackMessages(); }}) {
    start();
    end(contexts, &overlapped);
    EXPECT_EQ(message.name, &name.any);
  }
  context = start();
  context->caller_message = reinterpret_cast<WSAMSG*>(16);  // freed by its owner
  contexts.ReleaseContext(&overlapped);
}

TEST(OverlappedContexts, TheListHasAnEnd) {
  OverlappedContexts contexts;
  std::vector<OVERLAPPED> overlapped(OverlappedContexts::kMaxElements + 1);
  for (std::int32_t i = 0; i < OverlappedContexts::kMaxElements; ++i)
    ASSERT_TRUE(contexts.AcquireContext(&overlapped[static_cast<std::size_t>(i)], 1));
  EXPECT_FALSE(contexts.AcquireContext(&overlapped.back(), 1));
  EXPECT_TRUE(contexts.AcquireContext(&overlapped.front(), 1)) << "one that is in the list already";
  contexts.ReleaseContext(&overlapped[5]);
  EXPECT_TRUE(contexts.AcquireContext(&overlapped.back(), 1));
}

TEST(ReceiveBuffers, AreWipedAsTheyWereDescribed) {
  for (const std::size_t count : {1u, 4u, 5u, 100u}) {
    std::vector<std::string> data(count, "secret");
    std::vector<WSABUF> description;
    for (std::string& text : data) description.push_back({static_cast<ULONG>(text.size()), text.data()});
    description.push_back({100, reinterpret_cast<char*>(16)});  // cannot be written
    ReceiveBuffers buffers;
    ASSERT_TRUE(buffers.Capture(description.data(), static_cast<std::uint32_t>(description.size())));
    description.clear();
    description.shrink_to_fit();
    buffers.Wipe();
    for (const std::string& text : data) EXPECT_EQ(text, std::string(6, '\0'));
  }
  ReceiveBuffers buffers;
  EXPECT_FALSE(buffers.Capture(reinterpret_cast<WSABUF*>(16), 1));
  buffers.Wipe();
}

}  // namespace
}  // namespace VornCore::test
