// Which dump belongs to a crash notice; and a dump of the system's own making, read back.
#include "vorn/crash_dump.h"

#include <windows.h>

#include <dbghelp.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <fstream>

#include "minidump_builder.h"
#include "vorn/text.h"

namespace vorn::host {
namespace {

namespace fs = std::filesystem;

constexpr std::uint32_t kPid = 4711, kThread = 12;

class CrashDumps : public testing::Test {
 protected:
  CrashDumps() { fs::create_directories(folder_); }
  ~CrashDumps() override {
    std::error_code ignored;
    fs::remove_all(folder_, ignored);
  }

  // now_ is when the notice is sent.
  std::wstring Write(std::uint32_t pid, std::uint32_t tick, test::DumpParts parts,
                     std::size_t cut = 0) const {
    if (parts.time < 1000) parts.time = static_cast<std::uint32_t>(now_ / 1000) - parts.time;
    auto bytes = test::BuildMinidump(parts);
    bytes.resize(bytes.size() - cut);
    const auto name = policy::DumpFileName(pid, 13, tick);
    const fs::path path = folder_ / std::u16string(name.begin(), name.end());
    std::ofstream(path, std::ios::binary)
        .write(reinterpret_cast<const char*>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
    return path.wstring();
  }
  // Names are "…\NAME" or "…\NAME?" when it could not be read.
  std::wstring Found(std::uint64_t started_at_ms = 0) const {
    const auto found = FindCrashDump(folder_.wstring(), {kPid, kThread, now_, started_at_ms});
    if (!found) return {};
    return found->path + (std::holds_alternative<Minidump>(found->contents) ? L"" : L"?");
  }

  const fs::path folder_ = fs::temp_directory_path() / RandomName(L"vorn_dumps");
  const std::uint64_t now_ = static_cast<std::uint64_t>(std::time(nullptr)) * 1000 + 300;
};

// A dump's time below is its age in seconds.
TEST_F(CrashDumps, ANoticeGetsTheNewestDumpOfItsProcessAndThread) {
  EXPECT_EQ(Found(), L"");
  Write(kPid + 1, 1, {.time = 0});
  Write(kPid, 2, {.time = 0, .crash = {kThread + 1, 13, 0}});
  Write(kPid, 3, {.time = 900});
  EXPECT_EQ(Found(), L"");
  const std::wstring older = Write(kPid, 4, {.time = 500});
  EXPECT_EQ(Found(), older);
  EXPECT_EQ(Found(now_ - 60'000), L"") << "an earlier process with the same id";
  const std::wstring partial = Write(kPid, 5, {.time = 0}, 1);
  EXPECT_EQ(Found(), older) << "another thread's, perhaps";
  EXPECT_EQ(Found(now_ - 60'000), partial + L"?");
  const std::wstring newest = Write(kPid, 6, {.time = 0});
  EXPECT_EQ(Found(), newest);
}

TEST_F(CrashDumps, TheEventOfACrashIsCompletedOrSaysWhyNot) {
  const auto line = [&](const std::wstring& directory) {
    Event event;
    event.pid = event.stated_pid = kPid;
    event.time_ms = now_;
    event.body = CrashEvent{.code = 0xC0000005, .thread_id = kThread};
    AddCrashDump(event, directory);
    return EventLine(event);
  };
  const std::string start = "[4711] crashed with exception 0xc0000005 (access violation";
  EXPECT_EQ(line(L"C:\\no\\such\\directory"), start + ") on thread 12, no dump was written");
  const std::string partial = ToUtf8(Write(kPid, 1, {.time = 0}, 1));
  EXPECT_TRUE(line(folder_.wstring())
                  .starts_with(start + ") on thread 12, dump " + partial + " cannot be read: memory range 0"))
      << line(folder_.wstring());
  const std::string whole = ToUtf8(Write(kPid, 2, {.time = 0}));
  EXPECT_EQ(line(folder_.wstring() + L"\\"),
            start + " reading 0x10) in app.exe+0x1a2b on thread 12, dump " + whole);
}

// The system writes a dump of this process, as a handler of its access violation asks it to.
struct SystemDump {
  std::wstring path;
  char* page = nullptr;  // reserved; the handler commits it, so that the program goes on
  bool written = false;
};
SystemDump g_dump;

LONG CALLBACK WriteSystemDump(EXCEPTION_POINTERS* pointers) {
  if (pointers->ExceptionRecord->ExceptionCode != EXCEPTION_ACCESS_VIOLATION)
    return EXCEPTION_CONTINUE_SEARCH;
  const auto write = reinterpret_cast<decltype(&MiniDumpWriteDump)>(
      GetProcAddress(LoadLibraryW(L"dbghelp.dll"), "MiniDumpWriteDump"));
  const HANDLE file = CreateFileW(g_dump.path.c_str(), GENERIC_WRITE, 0, nullptr, CREATE_NEW, 0, nullptr);
  MINIDUMP_EXCEPTION_INFORMATION exception{GetCurrentThreadId(), pointers, FALSE};
  policy::DumpUserStream crash{GetCurrentThreadId(), 99, 1};
  MINIDUMP_USER_STREAM stream{policy::kDumpUserStream, sizeof crash, &crash};
  MINIDUMP_USER_STREAM_INFORMATION streams{1, &stream};
  g_dump.written = write(GetCurrentProcess(), GetCurrentProcessId(), file, static_cast<MINIDUMP_TYPE>(0x1975),
                         &exception, &streams, nullptr);
  CloseHandle(file);
  VirtualAlloc(g_dump.page, 1, MEM_COMMIT, PAGE_READWRITE);
  return EXCEPTION_CONTINUE_EXECUTION;
}

TEST_F(CrashDumps, ADumpOfTheSystemsMakingIsReadBack) {
  const auto name = policy::DumpFileName(GetCurrentProcessId(), 99, 1);
  g_dump.path = (folder_ / std::u16string(name.begin(), name.end())).wstring();
  g_dump.page = static_cast<char*>(VirtualAlloc(nullptr, 1, MEM_RESERVE, PAGE_NOACCESS));
  void* handler = AddVectoredExceptionHandler(1, WriteSystemDump);
  *static_cast<volatile char*>(g_dump.page) = 1;
  RemoveVectoredExceptionHandler(handler);
  ASSERT_TRUE(g_dump.written);

  const std::uint64_t before = GetTickCount64();
  const auto found =
      FindCrashDump(folder_.wstring(), {GetCurrentProcessId(), GetCurrentThreadId(), now_ + 5000});
  RecordProperty("find_ms", static_cast<int>(GetTickCount64() - before));
  ASSERT_TRUE(found && std::holds_alternative<Minidump>(found->contents));
  const auto& dump = std::get<Minidump>(found->contents);
  ASSERT_TRUE(dump.exception && dump.crash);
  EXPECT_TRUE(PlaceText(dump, dump.exception->address).starts_with("host_crash_dump_test.exe+0x"));
  char writing[40];
  std::snprintf(writing, sizeof writing, "writing 0x%llx", reinterpret_cast<unsigned long long>(g_dump.page));
  EXPECT_EQ(FaultText(*dump.exception), writing);
  EXPECT_EQ(dump.exception->thread_id, GetCurrentThreadId());
  EXPECT_EQ(dump.crash->flag, 1u);
  EXPECT_EQ(std::ranges::count(dump.thread_ids, GetCurrentThreadId()), 1);
  const auto here =
      reinterpret_cast<std::uint64_t>(GetProcAddress(GetModuleHandleW(L"ntdll.dll"), "NtClose"));
  EXPECT_TRUE(PlaceText(dump, here).starts_with("ntdll.dll+0x"));
}

}  // namespace
}  // namespace vorn::host
