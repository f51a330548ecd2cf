#include <gtest/gtest.h>

#include <regex>
#include <thread>

#include "VornCore/Base/thread_state.h"
#include "base_environment.h"

namespace VornCore {
namespace {

using test::ProcessLog;

constexpr std::uintmax_t kSlotBytes = 52'428'800;

class Log : public testing::Test {
 protected:
  void SetUp() override {
    ASSERT_EQ(log.start_error(), 0u);
    log.SetFlags(0xF);
    log.NewText();
  }
  ProcessLog& log = ProcessLog::Get();
};

TEST_F(Log, LineCarriesTimeProcessThreadTagFileAndLine) {
  const auto now = [] {
    SYSTEMTIME t;
    GetLocalTime(&t);
    char text[32];
    std::snprintf(text, sizeof text, "%04u-%02u-%02uT%02u:%02u:%02u.%03u", t.wYear, t.wMonth, t.wDay, t.wHour,
                  t.wMinute, t.wSecond, t.wMilliseconds);
    return std::string(text);
  };
  const std::string before = now();
  LogPrint("D:\\sources\\room\\file.cpp", kLogError, 77, "E", "value %d of %s", 5, "seven");
  LogPrint("Room/file.cpp", kLogInfo, 4'000'000, "I", "%s", "100%");
  const std::string after = now();
  const auto lines = log.NewLines();
  ASSERT_EQ(lines.size(), 2u);
  const std::string written = lines[0].substr(1, 23);
  EXPECT_TRUE(before <= written && written <= after) << before << ' ' << written << ' ' << after;
  EXPECT_TRUE(std::regex_match(lines[0].substr(24), std::regex(R"([+-]\d\d:\d\d\].*)"))) << lines[0];
  EXPECT_EQ(lines[0].substr(30), "](" + std::to_string(GetCurrentProcessId()) + "|" +
                                     std::to_string(GetCurrentThreadId()) +
                                     ")[E][file.cpp:77] value 5 of seven");
  EXPECT_TRUE(lines[1].ends_with("[I][Room/file.cpp:4000000] 100%")) << lines[1];
}

TEST_F(Log, LongLinesAreCutTo1023Bytes) {
  for (const std::size_t size : {900u, 1022u, 1023u, 1024u, 9000u}) {
    LogPrint("f", kLogNormal, 1, "N", "%s", std::string(size, 'x').c_str());
    const std::string text = log.NewText();
    const std::size_t prefix = text.find("] ") + 2;
    EXPECT_EQ(text.size(), std::min(prefix + size, std::size_t{1022}) + 1) << size;
    EXPECT_EQ(text.find('\n'), text.size() - 1);
  }
}

TEST_F(Log, MaskDecidesAtOnceWhichLevelsAreWritten) {
  const auto log_all = [] {
    VORN_LOG_N("normal");
    VORN_LOG_E("error");
    VORN_LOG_W("warning");
    VORN_LOG_I("info");
  };
  for (const auto& [mask, messages] : std::vector<std::pair<std::uint32_t, std::vector<std::string>>>{
           {0, {}}, {8, {"info"}}, {6, {"error", "warning"}}, {0xFFFFFF00u, {}}}) {
    log.SetFlags(mask);
    log_all();
    EXPECT_EQ(log.NewMessages(), messages) << mask;
  }
}

// The three zones are three entries of the test run, each with its own TZ.
TEST_F(Log, OffsetIsThatOfTheStandardTime) {
  char expected[16];
  if (!GetEnvironmentVariableA("VORN_EXPECT_ZONE", expected, sizeof expected)) GTEST_SKIP();
  VORN_LOG_N("line");
  EXPECT_EQ(log.NewText().substr(24, 6), expected);
}

// Writes to a slot that holds less than a line until it holds just enough to be left.
void Fill(const std::filesystem::path& slot) {
  const std::string text(900, 'z');
  const auto log_line = [&] { VORN_LOG_N("%s", text.c_str()); };
  const auto before = std::filesystem::file_size(slot);
  log_line();
  const auto line = std::filesystem::file_size(slot) - before;
  for (auto size = before + line; size <= kSlotBytes; size += line) log_line();
}

TEST_F(Log, SlotThatCannotBeOpenedIsReportedToTheDebuggerAlone) {
  const auto in_child = [] {
    static std::string reported;
    std::filesystem::create_directory(ProcessLog::Get().Slot(1));
    AddVectoredExceptionHandler(1, [](PEXCEPTION_POINTERS info) -> LONG {
      const auto& record = *info->ExceptionRecord;
      if (record.ExceptionCode == 0x40010006)  // OutputDebugStringA
        reported.assign(reinterpret_cast<const char*>(record.ExceptionInformation[1]));
      return record.ExceptionCode == 0x40010006 ? EXCEPTION_CONTINUE_EXECUTION : EXCEPTION_CONTINUE_SEARCH;
    });
    Fill(ProcessLog::Get().Slot(0));
    const auto size = std::filesystem::file_size(ProcessLog::Get().Slot(0));
    VORN_LOG_N("lost");
    const bool ok = size > kSlotBytes && size == std::filesystem::file_size(ProcessLog::Get().Slot(0)) &&
                    reported == "NtWriteFile failed, status is :C0000008\n";
    std::filesystem::resize_file(ProcessLog::Get().Slot(0), 0);
    ExitProcess(ok ? 0 : 1);
  };
  EXPECT_EXIT(in_child(), testing::ExitedWithCode(0), "");
}

// Last, for it leaves the log in another slot.
TEST_F(Log, RotatesOverThreeFilesAndEmptiesTheOldest) {
  for (int n = 0; n < 3; ++n) {
    Fill(log.Slot(n));
    const auto size = std::filesystem::file_size(log.Slot(n));
    EXPECT_GT(size, kSlotBytes);
    EXPECT_LE(size, kSlotBytes + 1023);
    EXPECT_EQ(std::filesystem::exists(log.Slot(n + 1)), false);
    VORN_LOG_N("opens the next");
    EXPECT_EQ(std::filesystem::file_size(log.Slot(n)), size);
    std::string line;
    std::getline(std::ifstream(log.Slot((n + 1) % 3), std::ios::binary) >> std::ws, line);
    EXPECT_TRUE(line.ends_with("opens the next")) << line;
  }
  EXPECT_LT(std::filesystem::file_size(log.Slot(0)), 1023u) << "emptied and taken again";
  for (int n = 0; n < 3; ++n) std::filesystem::resize_file(log.Slot(n), 0);
}

}  // namespace
}  // namespace VornCore
