// Attaching, detaching and committing on generated machine code. (The hook tables do it to real functions.)
#include <windows.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cstdint>
#include <cstring>
#include <memory>
#include <thread>
#include <vector>

#include "detours/detours.h"

namespace {

using Byte = std::uint8_t;
using Function = int (*)(int);

// A page of code with a page of data behind it.
class Code {
 public:
  Code() { memset(base_, 0xCC, kPage); }
  ~Code() { VirtualFree(base_, 0, MEM_RELEASE); }
  Code(const Code&) = delete;
  Code& operator=(const Code&) = delete;

  Byte* Put(std::size_t offset, const std::vector<Byte>& bytes) {
    DWORD old = 0;
    VirtualProtect(base_, kPage, PAGE_READWRITE, &old);
    std::copy(bytes.begin(), bytes.end(), base_ + offset);
    VirtualProtect(base_, kPage, PAGE_EXECUTE_READ, &old);
    FlushInstructionCache(GetCurrentProcess(), base_, kPage);
    return base_ + offset;
  }

  Byte* data() { return base_ + kPage; }

  static constexpr std::size_t kPage = 4096;

 private:
  Byte* const base_ =
      static_cast<Byte*>(VirtualAlloc(nullptr, 2 * kPage, MEM_RESERVE | MEM_COMMIT, PAGE_READWRITE));
};

#define RETURNS(n) 0xB8, n, 0, 0, 0, 0xC3 /* mov eax, n; ret */

int Call(void* function, int argument = 0) { return reinterpret_cast<Function>(function)(argument); }

void* real = nullptr;  // what the detours call on
int PlusHundred(int argument) { return Call(real, argument) + 100; }

template <class F>
void* Address(F* function) {
  return reinterpret_cast<void*>(function);
}

using Change = LONG(WINAPI*)(void**, void*);

LONG Apply(Change change, void*& pointer) {
  DetourTransactionBegin();
  change(&pointer, Address(PlusHundred));
  return DetourTransactionCommit();
}
LONG Attach(void*& pointer) { return Apply(DetourAttach, pointer); }
LONG Detach(void*& pointer) { return Apply(DetourDetach, pointer); }

std::vector<Byte> Bytes(const void* address, std::size_t size = 64) {
  const auto* bytes = static_cast<const Byte*>(address);
  return {bytes, bytes + size};
}

DWORD Protection(const void* address) {
  MEMORY_BASIC_INFORMATION info{};
  VirtualQuery(address, &info, sizeof(info));
  return info.Protect;
}

TEST(Interception, CodeAndTrampolineStayExecutableAndReadOnly) {
  Code code;
  Byte* target = code.Put(0, {RETURNS(7)});
  real = target;
  ASSERT_EQ(Attach(real), NO_ERROR);
  EXPECT_EQ(Call(target), 107);
  EXPECT_EQ(Call(real), 7);
  EXPECT_EQ(Protection(target), DWORD{PAGE_EXECUTE_READ});
  EXPECT_EQ(Protection(real), DWORD{PAGE_EXECUTE_READ});
  ASSERT_EQ(Detach(real), NO_ERROR);
  EXPECT_EQ(Protection(target), DWORD{PAGE_EXECUTE_READ});
}

TEST(Interception, RefusedOrAbortedTransactionChangesNothing) {
  Code code;
  Byte* const good = code.Put(0, {RETURNS(7)});
  Byte* const short_function = code.Put(16, {0xC3, RETURNS(1)});
  const auto before = Bytes(good);
  void* first = good;
  void* second = short_function;
  for (const bool abort : {false, true}) {
    DetourTransactionBegin();
    EXPECT_EQ(DetourAttach(&first, Address(PlusHundred)), NO_ERROR);
    EXPECT_EQ(Bytes(good), before) << "before the commit";
    const LONG refused = abort ? NO_ERROR : DetourAttach(&second, Address(PlusHundred));
    EXPECT_EQ(abort ? DetourTransactionAbort() : DetourTransactionCommit(), refused);
    EXPECT_EQ(refused, abort ? NO_ERROR : ERROR_INVALID_BLOCK);
    EXPECT_EQ(first, good);
    EXPECT_EQ(second, short_function);
    EXPECT_EQ(Bytes(good), before);
  }
}

TEST(Interception, StubsAreFollowedToTheFunction) {
  Code module;
  Code other;
  void* function = other.Put(0, {RETURNS(5)});
  memcpy(module.data(), &function, sizeof(function));
  // lea rsp, [rsp+0]; jmp [rip → data]
  void* import_stub = module.Put(0, {0x48, 0x8D, 0xA4, 0x24, 0, 0, 0, 0, 0xFF, 0x25, 0xF2, 0x0F, 0, 0});
  void* thunk = module.Put(32, {0xE9, 0xDB, 0xFF, 0xFF, 0xFF});  // jmp import_stub
  void* hop = module.Put(64, {0xEB, 0xDE});                      // jmp thunk
  const auto stub_before = Bytes(import_stub, 128);

  real = hop;
  ASSERT_EQ(Attach(real), NO_ERROR);
  EXPECT_EQ(Bytes(import_stub, 128), stub_before);
  EXPECT_EQ(Call(function), 105) << "callers that do not go through the stub are reached too";
  EXPECT_EQ(Call(thunk), 105);
  EXPECT_EQ(Call(real), 5);
  ASSERT_EQ(Detach(real), NO_ERROR);
  EXPECT_EQ(real, hop) << "the caller's own address comes back";
  EXPECT_EQ(Call(hop), 5);
}

TEST(Interception, PatchOfSomebodyElseStaysBelowOurs) {
  Code code;
  Code theirs;
  Byte* target = code.Put(0, {RETURNS(7)});
  Byte* their_detour = theirs.Put(0, {RETURNS(9)});
  const auto distance = static_cast<std::int32_t>(their_detour - (target + 5));
  const auto put = [&](std::vector<Byte> jump, auto operand) {
    const auto bytes = Bytes(&operand, sizeof operand);
    jump.insert(jump.end(), bytes.begin(), bytes.end());
    code.Put(0, jump);
  };
  const auto their_code = Bytes(their_detour);
  const auto expect_ours_above = [&] {
    const auto before = Bytes(target);
    real = target;
    ASSERT_EQ(Attach(real), NO_ERROR);
    EXPECT_EQ(Call(target), 109);
    EXPECT_EQ(Bytes(their_detour), their_code);
    ASSERT_EQ(Detach(real), NO_ERROR);
    EXPECT_EQ(Bytes(target), before);
  };
  put({0xE9}, distance);
  expect_ours_above();
  // The same with an address behind the jump: jmp [rip+0]; address. That is no import stub to follow.
  put({0xFF, 0x25, 0, 0, 0, 0}, their_detour);
  expect_ours_above();

  // And the other way round: what lies over ours is not taken away.
  code.Put(0, {RETURNS(7)});
  real = target;
  ASSERT_EQ(Attach(real), NO_ERROR);
  const auto ours = Bytes(target, 5);
  put({0xE9}, distance);
  void* const trampoline = real;
  EXPECT_EQ(Detach(real), ERROR_INVALID_BLOCK);
  EXPECT_EQ(real, trampoline);
  EXPECT_EQ(Call(target), 9);
  code.Put(0, ours);
  EXPECT_EQ(Detach(real), NO_ERROR);
}

// A thread that runs through a function all the time. It gives its number of calls, and 0 when one of them
// returned something else than 7 or 107.
class Caller {
 public:
  explicit Caller(void* target)
      : thread_([this, target] {
          for (bool right = true; !stop_; calls_ = right ? calls_ + 1 : 0) {
            const int result = Call(target, 3);
            right = right && (result == 7 || result == 107);
          }
        }) {}
  unsigned Stop() {
    stop_ = true;
    thread_.join();
    return calls_;
  }
  unsigned calls() const { return calls_; }

 private:
  std::atomic<bool> stop_{false};
  std::atomic<unsigned> calls_{0};
  std::thread thread_;
};

// Where the entry lies within the pieces that processors write and fetch: inside a word, across two words of
// one cache line, and across two cache lines.
TEST(Interception, CallersDuringAttachSeeTheOldOrTheNewFunction) {
  for (const std::size_t entry : {0, 6, 15, 61, 62}) {
    Code code;
    Byte* target = code.Put(entry, {RETURNS(7)});
    real = target;
    Caller one(target), two(target);
    while (one.calls() == 0 || two.calls() == 0) SwitchToThread();
    for (int i = 0; i < 300; ++i) {
      ASSERT_EQ(Attach(real), NO_ERROR);
      if (i % 16 == 0) SwitchToThread();
      ASSERT_EQ(Detach(real), NO_ERROR);
    }
    EXPECT_TRUE(one.Stop() && two.Stop()) << entry;
  }
}

TEST(Interception, ThreadInsidePatchedBytesIsMovedToTheTrampoline) {
  Code code;
  // pushfq; nop; nop; nop; inc dword [rip → data]; popfq; ret
  Byte* target = code.Put(0, {0x9C, 0x90, 0x90, 0x90, 0xFF, 0x05, 0xF6, 0x0F, 0, 0, 0x9D, 0xC3});
  auto* counter = reinterpret_cast<volatile LONG*>(code.data());
  std::atomic<bool> stop{false};
  std::atomic<bool> spinning_now{false};
  std::thread spinner([&] {
    spinning_now = true;
    while (!stop) YieldProcessor();
  });
  while (!spinning_now) SwitchToThread();
  const HANDLE thread = reinterpret_cast<HANDLE>(pthread_gethandle(spinner.native_handle()));
  ASSERT_NE(SuspendThread(thread), static_cast<DWORD>(-1));

  CONTEXT context{};
  context.ContextFlags = CONTEXT_CONTROL;
  ASSERT_TRUE(GetThreadContext(thread, &context));
  // As if the spinner had called the function and run its first two instructions.
  auto* stack = reinterpret_cast<DWORD64*>(context.Rsp);
  *--stack = context.Rip;
  *--stack = context.EFlags;
  context.Rsp = reinterpret_cast<DWORD64>(stack);
  context.Rip = reinterpret_cast<DWORD64>(target + 2);
  ASSERT_TRUE(SetThreadContext(thread, &context));
  const auto update = [&](Change how) {
    DetourTransactionBegin();
    ASSERT_EQ(DetourUpdateThread(thread), NO_ERROR);
    ASSERT_EQ(how(&real, Address(PlusHundred)), NO_ERROR);
    ASSERT_EQ(DetourTransactionCommit(), NO_ERROR);
  };
  real = target;
  update(DetourAttach);

  ASSERT_TRUE(GetThreadContext(thread, &context));
  EXPECT_EQ(context.Rip, reinterpret_cast<DWORD64>(real) + 2);
  update(DetourDetach);  // what was replaced is back; the thread is not
  ResumeThread(thread);
  while (*counter == 0) SwitchToThread();
  stop = true;
  spinner.join();
  EXPECT_EQ(*counter, 1);
}

}  // namespace
