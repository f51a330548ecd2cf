// Crashes of confined programs: the dump, the notice, the log line, and what happens where there is no dump.
//
// With VORN_KEEP_DUMPS the dumps of all crashes are kept in that folder for other readers, and beside each
// what they should find in it.
#include <windows.h>

#include <gtest/gtest.h>

#include <fstream>
#include <map>
#include <regex>
#include <set>

#include "confinement.h"
#include "vorn/crash_dump.h"

namespace vorn::test {
namespace {

namespace fs = std::filesystem;

constexpr std::int64_t kAccessViolation = 0xC0000005;

// A host whose confined programs leave dumps.
class Crashes {
 public:
  // dumps: their directory below the host's folder, none when empty; made only when make is set.
  explicit Crashes(const std::wstring& dumps = L"dumps", bool make = true)
      : host_([&](host::SectionContents& section) {
          directory_ = fs::path(section.log_directory) / dumps;
          if (!dumps.empty()) section.dump_directory = directory_.wstring();
          ids_ = fs::path(section.log_directory) / "ids";
          section.file_rules.push_back({policy::FileACL::kReadWrite, host::ToNtPath(ids_.wstring())});
        }) {
    if (make) fs::create_directories(directory_);
    fs::create_directories(ids_);
  }

  // Runs the probe once for each of the arguments, all at the same time.
  std::vector<std::int64_t> Run(const std::vector<std::wstring>& arguments) {
    std::vector<std::wstring> command_lines;
    for (const std::wstring& each : arguments) {
      const auto space = each.find(L' ');
      command_lines.push_back(Probe("crash_probe.exe", each.substr(0, space) + L' ' +
                                                           IdFile(command_lines.size()).wstring() +
                                                           (space == each.npos ? L"" : each.substr(space))));
    }
    auto codes = host_.RunTogether(command_lines);
    for (Received& message : host_.Settle())
      if (const auto* notice = message.As<policy::CrashNotice>())
        notices_.emplace(notice->thread_id, std::move(message));
    return codes;
  }

  // The threads of run n that were about to crash.
  std::vector<std::uint32_t> Threads(std::size_t n) const {
    std::ifstream file(IdFile(n));
    return {std::istream_iterator<std::uint32_t>(file), {}};
  }

  const fs::path& directory() const { return directory_; }
  // By the id of the crashing thread.
  const std::multimap<std::uint32_t, Received>& notices() const { return notices_; }

  // The dumps, by the id of the crashing thread in their user stream.
  std::multimap<std::uint32_t, fs::path> Dumps() const {
    std::multimap<std::uint32_t, fs::path> dumps;
    if (!fs::is_directory(directory_)) return dumps;
    for (const auto& entry : fs::directory_iterator(directory_)) {
      const auto dump = Parse(entry.path());
      dumps.emplace(dump.crash ? dump.crash->crashing_thread_id : 0, entry.path());
    }
    return dumps;
  }
  static host::Minidump Parse(const fs::path& path) {
    auto parsed = host::ReadMinidumpFile(path.wstring());
    if (auto* dump = std::get_if<host::Minidump>(&parsed)) return std::move(*dump);
    ADD_FAILURE() << path << ": " << std::get<std::string>(parsed);
    return {};
  }

  // The log lines with this text, of all processes, without their prefixes.
  std::vector<std::string> LogLines(const std::string& text) const {
    std::vector<std::string> lines;
    for (const auto& entry : fs::directory_iterator(host_.folder())) {
      for (const std::string& line : ReadLines(entry.path()))
        if (const auto at = line.find(text); at != std::string::npos) lines.push_back(line.substr(at));
    }
    return lines;
  }

 private:
  fs::path IdFile(std::size_t n) const { return ids_ / std::to_string(n); }

  fs::path directory_;
  fs::path ids_;
  std::multimap<std::uint32_t, Received> notices_;
  E2eConfinement host_;
};

// One dump, named and filled as it should be; returns the exception.
host::MinidumpException CheckDump(const fs::path& path, std::uint32_t process, std::uint32_t code,
                                  std::uint32_t flag, std::uint32_t thread) {
  const host::Minidump dump = Crashes::Parse(path);
  const auto crash = dump.crash.value_or(policy::DumpUserStream{});
  const auto exception = dump.exception.value_or(host::MinidumpException{});
  char name[64];
  std::snprintf(name, sizeof name, "%08x-%08x-[0-9a-f]{8}\\.vrn\\.dmp", process, crash.dump_thread_id);
  EXPECT_TRUE(std::regex_match(path.filename().string(), std::regex(name))) << path;
  EXPECT_NE(crash.dump_thread_id, thread);
  EXPECT_EQ(crash.crashing_thread_id, thread);
  EXPECT_EQ(crash.flag, flag);
  EXPECT_EQ(exception.thread_id, thread);
  EXPECT_EQ(exception.code, code);
  return exception;
}

void Keep(const fs::path& dump, const host::MinidumpException& exception, std::uint32_t flag) {
  wchar_t folder[MAX_PATH] = {};
  if (!GetEnvironmentVariableW(L"VORN_KEEP_DUMPS", folder, MAX_PATH)) return;
  fs::create_directories(folder);
  const fs::path kept = fs::path(folder) / dump.filename();
  fs::copy_file(dump, kept, fs::copy_options::overwrite_existing);
  std::ofstream(kept.string() + ".txt", std::ios::binary)
      << std::hex << exception.thread_id << ' ' << exception.code << ' ' << exception.address << ' ' << flag
      << '\n';
}

TEST(CrashE2E, EachCrashLeavesADumpANoticeAndALine) {
  Crashes crashes;
  const struct {
    std::wstring arguments;
    std::uint32_t code;
    std::uint32_t flag;
    std::size_t threads;
  } cases[] = {
      {L"write", 0xC0000005, 0, 1},
      {L"thread", 0xC0000005, 0, 1},
      {L"handler", 0xC0000005, 1, 1},
      {L"overflow", 0xC00000FD, 0, 1},
      {L"raise C0FFEE00", 0xC0FFEE00, 0, 1},
      {L"together", 0xC0000005, 0, 2},
      {L"meanwhile " + crashes.directory().wstring(), 0xC0000005, 0, 2},
  };
  std::vector<std::wstring> arguments;
  for (const auto& each : cases) arguments.push_back(each.arguments);
  const auto codes = crashes.Run(arguments);
  const auto dumps = crashes.Dumps();
  const auto lines = crashes.LogLines("[Crash]");
  std::size_t expected = 0;
  for (std::size_t n = 0; n < std::size(cases); ++n) {
    const auto& each = cases[n];
    SCOPED_TRACE(testing::Message() << fs::path(each.arguments));
    EXPECT_EQ(codes[n], each.code);
    const auto threads = crashes.Threads(n);
    EXPECT_EQ(threads.size(), each.threads);
    expected += each.threads;
    for (const std::uint32_t thread : threads) {
      ASSERT_EQ(dumps.count(thread), 1u);
      ASSERT_EQ(crashes.notices().count(thread), 1u);
      const fs::path& path = dumps.find(thread)->second;
      const Received& notice = crashes.notices().find(thread)->second;
      EXPECT_EQ(notice.bytes.size(), 50u);
      EXPECT_EQ(notice.As<policy::CrashNotice>()->code, each.code);
      EXPECT_EQ(notice.As<policy::CrashNotice>()->hook_depth, each.flag);
      const auto exception = CheckDump(path, notice.sender(), each.code, each.flag, thread);
      char line[1024];
      std::snprintf(line, sizeof line,
                    "[Crash] ExceptionCode:0x%08X, ExceptionAddress:0x%016llX Flag:0x%x path:%s", each.code,
                    static_cast<unsigned long long>(exception.address), each.flag, path.string().c_str());
      EXPECT_EQ(std::ranges::count(lines, line), 1) << line;
      Keep(path, exception, each.flag);
    }
  }
  EXPECT_EQ(dumps.size(), expected);
  EXPECT_EQ(crashes.notices().size(), expected);
  EXPECT_EQ(lines.size(), expected);
}

TEST(CrashE2E, OtherExceptionsAreLeftToTheSystem) {
  Crashes crashes;
  EXPECT_EQ(crashes.Run({L"raise 80000003", L"raise 80000004", L"raise 40010006", L"raise 4001000A"}),
            (std::vector<std::int64_t>{0x80000003, 0x80000004, 0x40010006, 0x4001000A}));
  EXPECT_TRUE(crashes.Dumps().empty());
  EXPECT_TRUE(crashes.notices().empty());
  EXPECT_TRUE(crashes.LogLines("[Crash]").empty());
}

// Each address once in a row; the program's own run-time library installs the first. Taking its filter away,
// as run-time libraries do before they end a process, takes nothing of ours.
TEST(CrashE2E, TheProgramsOwnFilterIsNeverCalled) {
  Crashes crashes;
  EXPECT_EQ(crashes.Run({L"filters"}), std::vector{kAccessViolation});
  EXPECT_EQ(crashes.notices().size(), 1u);
  const auto lines = crashes.LogLines("[UEF]");
  EXPECT_EQ(lines.size(), 4u);
  EXPECT_EQ(std::set(lines.begin(), lines.end()).size(), 4u);
  for (const std::string& line : lines)
    EXPECT_TRUE(std::regex_match(line, std::regex("\\[UEF\\], pTopLevelExceptionFilter:[0-9A-F]+"))) << line;
}

TEST(CrashE2E, WithoutADumpTheNoticeStillArrives) {
  for (const bool taken : {false, true}) {
    SCOPED_TRACE(taken ? "a file stands in the directory's place" : "no directory");
    Crashes crashes(L"none", false);
    if (taken) std::ofstream(crashes.directory()) << "kept";
    EXPECT_EQ(crashes.Run({L"write"}), std::vector{kAccessViolation});
    EXPECT_EQ(crashes.notices().size(), 1u);
    const auto lines = crashes.LogLines("[Crash]");
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_NE(lines[0].find("path:" + (crashes.directory() / "").string()), std::string::npos) << lines[0];
    EXPECT_EQ(fs::exists(crashes.directory()), taken);
    EXPECT_FALSE(taken && fs::file_size(crashes.directory()) != 4);
  }
}

TEST(CrashE2E, WithoutADumpDirectoryTheSystemEndsTheProcess) {
  Crashes crashes(L"");
  EXPECT_EQ(crashes.Run({L"write", L"filters"}), (std::vector{kAccessViolation, kAccessViolation}));
  EXPECT_TRUE(crashes.notices().empty());
  EXPECT_TRUE(crashes.LogLines("[Crash]").empty());
  EXPECT_FALSE(crashes.LogLines("[UEF]").empty());
}

}  // namespace
}  // namespace vorn::test
