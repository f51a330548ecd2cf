// Many threads at once: nothing that a call takes is left behind.
#include <atomic>
#include <barrier>
#include <thread>

#include "file_fixture.h"
#include "tests/unit/long_form.h"
#include "tests/unit/open_handles.h"

namespace {
std::atomic<long> live_blocks = 0;
}
// The linker leads every allocation of this program here.
extern "C" {
void* __real_malloc(std::size_t bytes);
void* __real_calloc(std::size_t count, std::size_t bytes);
void __real_free(void* block);
void* __wrap_malloc(std::size_t bytes) {
  void* block = __real_malloc(bytes);
  if (block) ++live_blocks;
  return block;
}
void* __wrap_calloc(std::size_t count, std::size_t bytes) {
  void* block = __real_calloc(count, bytes);
  if (block) ++live_blocks;
  return block;
}
void __wrap_free(void* block) {
  if (block) --live_blocks;
  __real_free(block);
}
}

namespace VornCore {
namespace {

constexpr int kThreads = 8;
const int kRounds = vorn::test::LongForm("VORN_STORM", 300);  // of each thread

class FileStress : public FileFixture {
 protected:
  // One thread's calls, on files of its own: allowed, narrowed, refused, deferred and faulting ones.
  void Work(int number) {
    const std::wstring own = L"\\write\\" + std::to_wstring(number), moved = own + L"m";
    const struct {
      const wchar_t* name;
      ACCESS_MASK access;
      ULONG disposition, options;
    } calls[] = {{L"\\deny\\f.txt", GENERIC_READ, FILE_OPEN, 0},
                 {L"\\read\\f.txt", GENERIC_WRITE, FILE_OPEN, 0},
                 {L"\\read\\f.txt", GENERIC_READ, FILE_OVERWRITE, 0},
                 {own.c_str(), GENERIC_WRITE, FILE_OPEN_IF, 0},
                 {L"\\write\\both.txt", GENERIC_WRITE, FILE_OPEN, 0},
                 {own.c_str(), DELETE, FILE_OPEN, 0},  // and renamed
                 {moved.c_str(), DELETE, FILE_OPEN, FILE_DELETE_ON_CLOSE}};
    for (int i = 0; i < kRounds; ++i) {
      const auto& call = calls[i % std::size(calls)];
      if (call.options && i % 20) continue;  // a deletion takes long
      const Opened opened = Create(call.name, call.access, call.disposition, call.options);
      auto info = RenameBuffer(L"\\??\\" + Dos(moved), nt::kRenameReplaceIfExists);
      IO_STATUS_BLOCK io;
      if (call.access == DELETE)
        NtSetInformationFile(opened.handle, &io, info.data(), static_cast<ULONG>(info.size()),
                             static_cast<FILE_INFORMATION_CLASS>(nt::kFileRenameInformation));
      if (opened.handle) NtClose(opened.handle);
      HANDLE file;
      NtCreateFile(&file, GENERIC_READ, reinterpret_cast<OBJECT_ATTRIBUTES*>(16), &io, nullptr, 0, 7,
                   FILE_OPEN, 0, nullptr, 0);
    }
  }

  void RunThreads() {
    std::vector<std::thread> threads;
    std::barrier all(kThreads);  // what the threads themselves take depends on how many there are at once
    for (int t = 0; t < kThreads; ++t)
      threads.emplace_back([&, t] {
        all.arrive_and_wait();
        Work(t);
        const ThreadNesting clean{};
        unclean_ += memcmp(static_cast<ThreadNesting*>(GetThreadState()), &clean, sizeof clean) != 0;
        FreeThreadState();  // the library does so when a thread detaches
        all.arrive_and_wait();
      });
    for (std::thread& thread : threads) thread.join();
  }

  std::atomic<int> unclean_ = 0;
};

TEST_F(FileStress, NoHandleRecordOrBlockIsLeftBehind) {
  Unconfined([&] {
    ASSERT_TRUE(CreateHardLinkW(Dos(L"\\write\\both.txt").c_str(), Dos(L"\\read\\f.txt").c_str(), nullptr));
  });
  RunThreads();  // one-time allocations
  const auto free_retired = [] { (void)MakeHandleRecord({}, L""); };
  free_retired();
  const int handles = vorn::test::OpenHandles();
  const long blocks = live_blocks;
  RunThreads();
  EXPECT_LT(vorn::test::OpenHandles() - handles, kThreads);
  free_retired();
  EXPECT_EQ(live_blocks, blocks);
  EXPECT_EQ(unclean_, 0);
  EXPECT_EQ(GetFileMgr().model().handles().count(), 0);
  EXPECT_EQ(Text(L"\\read\\f.txt"), "old");
}

// Garbage collectors, hook engines and crash dumps suspend threads wherever they are, and close handles then.
TEST_F(FileStress, AThreadThatIsSuspendedInACloseStopsNoOther) {
  constexpr int kSuspensions = 100;
  std::atomic<bool> done = false;
  std::atomic<HANDLE> handles[kThreads] = {};
  std::vector<std::thread> workers;
  for (int t = 0; t < kThreads; ++t)
    workers.emplace_back([&, t] {
      handles[t] = OpenThread(THREAD_SUSPEND_RESUME | THREAD_GET_CONTEXT, FALSE, GetCurrentThreadId());
      while (!done)
        NtClose(Create((L"\\write\\" + std::to_wstring(t)).c_str(), GENERIC_WRITE, FILE_OPEN_IF, 0).handle);
      FreeThreadState();
    });
  HANDLE events[3];
  for (HANDLE& event : events) event = CreateEventW(nullptr, FALSE, FALSE, nullptr);
  const auto [opened, asked, closed] = events;
  std::thread closer([&] {
    for (int i = 0; i < kSuspensions; ++i) {
      HANDLE file = Create(L"\\write\\closer", GENERIC_WRITE, FILE_OPEN_IF, 0).handle;
      SignalObjectAndWait(opened, asked, INFINITE, FALSE);
      NtClose(file);
      SetEvent(closed);
    }
    FreeThreadState();
  });
  bool stopped = false;
  for (int i = 0; i < kSuspensions && !stopped; ++i) {
    WaitForSingleObject(opened, INFINITE);
    for (auto& handle : handles) {
      while (!handle) Sleep(1);
      CONTEXT context = {};
      context.ContextFlags = CONTEXT_CONTROL;
      SuspendThread(handle);
      GetThreadContext(handle, &context);  // waits until the thread stands
    }
    stopped = SignalObjectAndWait(asked, closed, 2000, FALSE) != WAIT_OBJECT_0;
    for (auto& handle : handles) ResumeThread(handle);
  }
  closer.join();
  done = true;
  for (std::thread& worker : workers) worker.join();
  for (auto& handle : handles) CloseHandle(handle);
  for (HANDLE event : events) CloseHandle(event);
  EXPECT_FALSE(stopped);
}

}  // namespace
}  // namespace VornCore
