// The crash writer: what goes into a dump, and that nobody waits for ever when none can be written. The
// writer is installed once per process, so what it does there runs in processes of its own.
#include <gtest/gtest.h>

#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "Debug/crash_dump.h"
#include "Debug/exception_handler_dump.h"
#include "Platform/native.h"

namespace VornCore {
namespace {

namespace fs = std::filesystem;

constexpr int kAccessViolation = static_cast<int>(0xC0000005);

// What a fault leaves in the hands of the filter.
struct Fault {
  explicit Fault(DWORD code = EXCEPTION_ACCESS_VIOLATION) {
    RtlCaptureContext(&context);
    record.ExceptionCode = code;
  }
  EXCEPTION_RECORD record{};
  CONTEXT context{};
  EXCEPTION_POINTERS pointers{&record, &context};
};

// Stands in the dump function's place.
BOOL (*on_dump)() = nullptr;
BOOL WINAPI DumpDouble(HANDLE, DWORD, HANDLE, MINIDUMP_TYPE, const PMINIDUMP_EXCEPTION_INFORMATION,
                       const PMINIDUMP_USER_STREAM_INFORMATION, const PMINIDUMP_CALLBACK_INFORMATION) {
  return on_dump();
}
void UseDumpFunction(BOOL (*dump)()) {
  on_dump = dump;
  platform::Native().LoadMiniDumpWriteDump = []() noexcept -> platform::MiniDumpWriteDumpFn {
    return on_dump ? DumpDouble : nullptr;
  };
}

[[noreturn]] void Crash() {
  *reinterpret_cast<volatile int*>(16) = 1;
  __builtin_unreachable();
}

TEST(CrashDump, MemoryAroundTheFaultIsCutToItsRegion) {
  constexpr int kPage = 4096;
  auto* const pages = static_cast<char*>(VirtualAlloc(nullptr, 3 * kPage, MEM_RESERVE, PAGE_NOACCESS));
  ASSERT_TRUE(VirtualAlloc(pages + kPage, kPage, MEM_COMMIT, PAGE_READWRITE));
  Fault fault;
  const struct {
    int at, start, end;  // offsets; start == end: no range
  } cases[] = {{kPage + 2000, kPage + 1872, kPage + 2128},
               {kPage + 5, kPage, kPage + 133},
               {2 * kPage - 5, 2 * kPage - 133, 2 * kPage},
               {kPage - 1, 0, 0},
               {2 * kPage, 0, 0}};
  for (const auto& [at, start, end] : cases) {
    fault.context.Rip = reinterpret_cast<DWORD64>(pages + at);
    const ExtraMemory memory = MemoryAroundFault(&fault.pointers);
    ASSERT_EQ(memory.count, start != end) << at;
    if (!memory.count) continue;
    EXPECT_EQ(static_cast<char*>(memory.base) - pages, start) << at;
    EXPECT_EQ(memory.size, static_cast<std::uint32_t>(end - start)) << at;
  }
  fault.context.Rip = 0;
  EXPECT_EQ(MemoryAroundFault(&fault.pointers).count, 0);
  EXPECT_EQ(MemoryAroundFault(nullptr).count, 0);
  VirtualFree(pages, 0, MEM_RELEASE);
}

// Runs the writer in a process of its own, which then crashes or ends by itself; what it leaves in its folder
// is looked at here.
class Writer : public testing::Test {
 protected:
  void SetUp() override { fs::create_directories(folder_); }
  void TearDown() override {
    // The process that runs the writer sees the same folder and leaves it alone.
    std::error_code ignored;
    if (!testing::internal::InDeathTestChild()) fs::remove_all(folder_, ignored);
  }

  DumpConfig Config() const {
    return {.dumpDirectory = folder_.c_str(),
            .dumpType = MiniDumpNormal,
            .fileTag = L"vrn",
            .context = const_cast<fs::path*>(&folder_),
            .pfnOnDumped = Note,
            .pfnThreadStart = nullptr,
            .pfnThreadEnd = nullptr,
            .pfnGetFlag = [] { return 7u; }};
  }
  // Appends a line of what the writer reported to the folder's notes.
  static void Note(const wchar_t* path, void* context, EXCEPTION_POINTERS*, std::uint32_t flag,
                   std::uint32_t thread_id, bool written) {
    std::ofstream notes(*static_cast<const fs::path*>(context) / "notes", std::ios::app);
    notes << (written ? "written " : "failed ") << fs::path(path).parent_path().filename().string() << ' '
          << flag << ' ' << (thread_id != GetCurrentThreadId()) << '\n';
  }
  std::vector<std::string> Notes() const {
    std::ifstream file(folder_ / "notes");
    std::vector<std::string> lines;
    for (std::string line; std::getline(file, line);) lines.push_back(line);
    return lines;
  }
  std::string Noted(const char* what, int flag = 7) const {
    return what + (' ' + folder_.filename().string()) + ' ' + std::to_string(flag) + " 1";
  }
  std::size_t Dumps() const {
    std::size_t dumps = 0;
    for (const auto& file : fs::directory_iterator(folder_)) dumps += file.path().extension() == ".dmp";
    return dumps;
  }

  const fs::path folder_ =
      fs::temp_directory_path() /
      (std::string("vorn_") + testing::UnitTest::GetInstance()->current_test_info()->name());
};

const auto kEndedByTheFault = testing::ExitedWithCode(kAccessViolation);

TEST_F(Writer, NeverOverwritesAFile) {
  const fs::path path = folder_ / "taken.dmp";
  std::ofstream(path) << "kept";
  static int calls = 0;
  on_dump = [] { return static_cast<BOOL>(++calls); };
  Fault fault;
  EXPECT_FALSE(WriteDump(1, 0, &fault.pointers, path.c_str(), MiniDumpNormal, DumpDouble));
  EXPECT_EQ(calls, 0);
  EXPECT_EQ(fs::file_size(path), 4u);
  EXPECT_TRUE(WriteDump(1, 0, &fault.pointers, (folder_ / "new.dmp").c_str(), MiniDumpNormal, DumpDouble));
  EXPECT_FALSE(WriteDump(1, 0, &fault.pointers, (folder_ / "none.dmp").c_str(), MiniDumpNormal, nullptr));
  EXPECT_FALSE(fs::exists(folder_ / "none.dmp"));
}

TEST_F(Writer, DumpThatFailsEndsTheProcessInTime) {
  using Start = std::uintptr_t (*)();
  const struct {
    const char* what;
    Start thread_start;  // of the dump thread
    BOOL (*dump)();
    std::size_t notes;  // and dumps: the file of a failed dump stays
  } cases[] = {
      {"no dump function", nullptr, nullptr, 0},
      {"a dump function that fails", nullptr, [] { return FALSE; }, 1},
      {"a dump function that crashes", nullptr, []() -> BOOL { Crash(); }, 1},
      {"a dump thread that cannot start", []() -> std::uintptr_t { return Sleep(INFINITE), 0; },
       [] { return TRUE; }, 0},
      {"a dump thread that crashes", []() -> std::uintptr_t { Crash(); }, [] { return TRUE; }, 0},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    const auto crash = [&] {
      UseDumpFunction(c.dump);
      DumpConfig config = Config();
      config.pfnThreadStart = c.thread_start;
      (void)ExceptionHandlerDump::Install(config);
      Crash();
    };
    const DWORD start = GetTickCount();
    EXPECT_EXIT(crash(), kEndedByTheFault, "");
    EXPECT_TRUE(c.thread_start || GetTickCount() - start < 8000u);
    EXPECT_EQ(Notes(), std::vector(c.notes, Noted("failed")));
    EXPECT_EQ(Dumps(), c.notes);
    for (const auto& file : fs::directory_iterator(folder_)) fs::remove(file);
  }
}

TEST_F(Writer, FaultInTheReportDoesNotStopLaterDumps) {
  const auto crash = [&] {
    UseDumpFunction([] {
      Sleep(50);  // a dump takes longer than a tick, which names the next one
      return TRUE;
    });
    DumpConfig config = Config();
    config.pfnOnDumped = [](const wchar_t* path, void* context, EXCEPTION_POINTERS* pointers,
                            std::uint32_t flag, std::uint32_t thread_id, bool written) {
      Note(path, context, pointers, flag, thread_id, written);
      Crash();
    };
    (void)ExceptionHandlerDump::Install(config);
    Fault first, second(0x646A6236);  // the code for which no flag is asked
    if (!ExceptionHandlerDump::RequestDump(&first.pointers)) std::exit(1);
    if (!ExceptionHandlerDump::RequestDump(&second.pointers)) std::exit(2);
    if (!ExceptionHandlerDump::RequestDump(nullptr)) std::exit(3);
    std::exit(0);
  };
  EXPECT_EXIT(crash(), testing::ExitedWithCode(0), "");
  EXPECT_EQ(Notes(), (std::vector{Noted("written"), Noted("written", 0), Noted("written")}));
}

}  // namespace
}  // namespace VornCore
