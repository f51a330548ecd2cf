// Which dump belongs to a crash notice. (tests/e2e/crash_test.cpp reads dumps of the system's making.)
#include "vorn/crash_dump.h"

#include <gtest/gtest.h>

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
TEST_F(CrashDumps, NoticeGetsTheNewestDumpOfItsThread) {
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

TEST_F(CrashDumps, CrashEventNamesItsDumpOrSaysWhyNot) {
  const auto line = [&](const std::wstring& directory) {
    Event event;
    event.pid = event.stated_pid = kPid;
    event.time_ms = now_;
    event.body = CrashEvent{{.code = 0xC0000005, .thread_id = kThread}};
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

}  // namespace
}  // namespace vorn::host
