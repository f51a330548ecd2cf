#include <gtest/gtest.h>

#include <cstring>
#include <set>
#include <thread>

#include "VornCore/Base/thread_state.h"

namespace VornCore {
namespace {

class ThreadStateTest : public testing::Test {
 protected:
  void SetUp() override { ASSERT_EQ(InitThreadState(), 0u); }
  void TearDown() override { FreeThreadState(); }
};

TEST_F(ThreadStateTest, GettingTheBlockKeepsTheLastError) {
  std::thread([] {
    SetLastError(5);
    EXPECT_FALSE(HasThreadState());
    EXPECT_EQ(GetLastError(), 5u);
    DWORD seen = 0;
    ThreadState* state = GetThreadState(&seen);  // allocates
    EXPECT_EQ(GetLastError(), 5u);
    ASSERT_NE(state, nullptr);
    EXPECT_EQ(seen, 5u);
    SetLastError(6);
    EXPECT_EQ(GetThreadState(&seen), state);
    EXPECT_EQ(seen, 6u);
    EXPECT_TRUE(HasThreadState());
    EXPECT_EQ(GetLastError(), 6u);
    FreeThreadState();
    EXPECT_FALSE(HasThreadState());
  }).join();
}

TEST_F(ThreadStateTest, EachScratchLevelHasItsOwnBuffers) {
  ThreadState* state = GetThreadState();
  std::set<void*> buffers;
  void* first_dynamic = nullptr;
  for (int depth = 1; depth < kScratchLevels; ++depth) {
    EnterScratchLevel(state);
    for (int slot = 0; slot < kFirstDynamicSlot; ++slot) buffers.insert(GetScratchBuffer(state, slot, 10));
    for (int n = 0; n < 3; ++n) {
      void* dynamic = GetScratchBuffer(state, kFirstDynamicSlot, 10);
      if (!first_dynamic) first_dynamic = dynamic;
      buffers.insert(dynamic);
    }
  }
  EXPECT_EQ(buffers.size(), static_cast<std::size_t>(kScratchSlots * (kScratchLevels - 1)));
  for (int depth = 1; depth < kScratchLevels; ++depth) LeaveScratchLevel(state);
  ScratchLevel again(state);
  EXPECT_EQ(GetScratchBuffer(state, 7, 10), first_dynamic) << "a level that is entered again starts over";
}

TEST_F(ThreadStateTest, MisuseOfScratchLevelsEndsTheProcess) {
  const auto exits = [](UINT code) { return testing::ExitedWithCode(static_cast<int>(code)); };
  EXPECT_EXIT(
      {
        ScratchLevel level(GetThreadState());
        for (int i = 0; i < 4; ++i) GetScratchBuffer(GetThreadState(), 5, 1);
      },
      exits(0xEED00A4C), "");
  EXPECT_EXIT(GetScratchBuffer(GetThreadState(), -1, 1), exits(0xEED00A4C), "");
  EXPECT_EXIT(
      {
        for (int i = 0; i < 16; ++i) EnterScratchLevel(GetThreadState());
      },
      exits(0xEED00A4D), "");
  EXPECT_EXIT(LeaveScratchLevel(GetThreadState()), exits(0xEED00A4E), "");
}

}  // namespace
}  // namespace VornCore
