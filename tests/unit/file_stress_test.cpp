// Many threads at once: nothing that a call takes is left behind.
#include <atomic>
#include <barrier>
#include <functional>
#include <random>
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
  // One thread's calls, on files of its own: allowed, narrowed, refused, faulting and deferred ones.
  void Work(int number) {
    std::mt19937 random(static_cast<unsigned>(number));
    const std::wstring own = L"\\write\\" + std::to_wstring(number), moved = own + L"m";
    const auto close = [](const Opened& opened) {
      if (opened.handle) NtClose(opened.handle);
    };
    const auto rename = [&] {
      const Opened opened = Create(own.c_str(), DELETE, FILE_OPEN_IF);
      auto info = RenameBuffer(L"\\??\\" + Dos(moved), 0);
      IO_STATUS_BLOCK io;
      NtSetInformationFile(opened.handle, &io, info.data(), static_cast<ULONG>(info.size()),
                           static_cast<FILE_INFORMATION_CLASS>(nt::kFileRenameInformation));
      close(opened);
    };
    const auto fault = [] {
      HANDLE file;
      IO_STATUS_BLOCK io;
      NtCreateFile(&file, GENERIC_READ, reinterpret_cast<OBJECT_ATTRIBUTES*>(16), &io, nullptr, 0, 7,
                   FILE_OPEN, 0, nullptr, 0);
    };
    const std::function<void()> calls[] = {
        [&] { close(Create(L"\\deny\\f.txt", GENERIC_READ)); },
        [&] { close(Create(L"\\read\\f.txt", GENERIC_WRITE)); },
        [&] { close(Create(L"\\read\\f.txt", GENERIC_READ, FILE_OVERWRITE)); },
        [&] { close(Create(own.c_str(), GENERIC_WRITE, FILE_OPEN_IF)); },
        [&] { close(Create(L"\\write\\both.txt", GENERIC_WRITE)); },
        [&] {
          if (random() % 20 == 0) close(Create(moved.c_str(), DELETE, FILE_OPEN, FILE_DELETE_ON_CLOSE));
        },
        rename,
        fault,
    };
    for (int i = 0; i < kRounds; ++i) calls[random() % std::size(calls)]();
  }

  void RunThreads() {
    std::vector<std::thread> threads;
    std::barrier all(kThreads);  // what the threads themselves take depends on how many there are at once
    for (int t = 0; t < kThreads; ++t)
      threads.emplace_back([&, t] {
        all.arrive_and_wait();
        Work(t);
        ThreadState* state = GetThreadState();
        if (state->hookDepth || state->scratchLevel || state->bInCreateFile || state->bInWriteFile ||
            state->bOwnCall)
          ++unclean_;
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
  const int handles = vorn::test::OpenHandles();
  const long blocks = live_blocks;
  RunThreads();
  EXPECT_LT(vorn::test::OpenHandles() - handles, kThreads);
  EXPECT_EQ(live_blocks, blocks);
  EXPECT_EQ(unclean_, 0);
  EXPECT_EQ(GetFileMgr().model().handles().count(), 0);
  EXPECT_EQ(Text(L"\\read\\f.txt"), "old");
}

}  // namespace
}  // namespace VornCore
