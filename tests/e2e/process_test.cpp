// Children of confined processes, with the real library, injection and channel.
#include <fstream>
#include <set>

#include "tests/e2e/confinement.h"

namespace vorn::test {
namespace {

using policy::ProcessEvent;
using policy::ProcessEventKind;
using policy::ProcessStart;

constexpr std::uint32_t kDllNotFound = 0xC0000135;  // the loader's exit code
constexpr char kProbe[] = "process_probe.exe";

std::wstring Self(const std::wstring& arguments) { return Probe(kProbe, arguments); }

struct Counts {
  std::vector<std::uint32_t> failed, exited;  // their codes
  std::set<std::string> failed_names;
  int injected = 0, starts = 0;
};

Counts Count(const std::vector<Received>& messages) {
  Counts counts;
  for (const Received& message : messages) {
    counts.starts += message.As<ProcessStart>() != nullptr;
    const auto* event = message.As<ProcessEvent>();
    if (!event) continue;
    EXPECT_EQ(event->reporter_pid, message.sender());
    if (event->kind == ProcessEventKind::kInjectionFailed) {
      counts.failed.push_back(event->code);
      counts.failed_names.emplace(event->image_name);
      continue;
    }
    const bool injected = event->kind == ProcessEventKind::kInjected;
    EXPECT_EQ(event->image_name, injected ? kProbe : "");
    counts.injected += injected;
    if (!injected) counts.exited.push_back(event->code);
  }
  return counts;
}

TEST(Children, AreConfinedThreeLevelsDeepAndEachIsAnnouncedOnceBeforeAnythingElse) {
  for (int run = 0; run < 10; ++run) {
    E2eConfinement host;
    EXPECT_EQ(host.Run(Self(L"spawn " + Self(L"spawn " + Self(L"spawn " + Self(L"confined"))))), 0);
    const auto messages = host.Settle();
    const Counts counts = Count(messages);
    EXPECT_EQ(counts.starts, 4);
    EXPECT_EQ(counts.injected, 3);
    EXPECT_TRUE(counts.failed.empty());
    std::set<std::uint32_t> announced;
    for (const Received& message : messages)
      EXPECT_EQ(message.As<ProcessStart>() != nullptr, announced.insert(message.sender()).second)
          << "run " << run;
  }
}

// Its end overtakes the channel's threads, at any point of their start.
TEST(Process, ThatEndsAtOnceIsReported) {
  constexpr int kRuns = 12;
  E2eConfinement host;
  for (int i = 0; i < kRuns; ++i) EXPECT_EQ(host.Run(Self(L"exit 0")), 0);
  std::set<std::pair<std::uint32_t, std::uint64_t>> heard;  // process ids come back
  for (const Received& message : host.Settle())
    if (message.As<ProcessStart>()) heard.emplace(message.sender(), message.decoded.header.time_ms);
  EXPECT_EQ(heard.size(), static_cast<std::size_t>(kRuns));
}

// A caller-built environment: the section's name is added to it, unless there is one in any letter case; that
// one is the child's business, and a child that finds no section ends.
TEST(Children, EnvironmentBuiltByTheCallerNamesTheSection) {
  E2eConfinement host;
  EXPECT_EQ(host.Run(Self(L"spawn_env - " + Self(L"confined"))), 0);
  EXPECT_EQ(host.Run(Self(L"spawn_env OTHER=1 " + Self(L"confined"))), 0);
  const std::int64_t code = host.Run(Self(L"spawn_env vorn_shared_data_NAME=\\nowhere " + Self(L"confined")));
  EXPECT_EQ(code & 0xF0000000, 0x20000000) << "the section of that name cannot be opened";
  EXPECT_EQ(Count(host.Settle()).exited, std::vector<std::uint32_t>{static_cast<std::uint32_t>(code)});
}

// A suspended child is injected at each resume, also when its handle is closed or stands for another process.
TEST(Children, AreInjectedHoweverTheyAreResumed) {
  for (const auto& [how, times] :
       {std::pair(L"spawn_twice ", 2), {L"spawn_closed ", 1}, {L"spawn_reused ", 1}}) {
    E2eConfinement host;
    EXPECT_EQ(host.Run(Self(how + Self(L"confined"))), 0);
    EXPECT_EQ(Count(host.Settle()).injected, times);
  }
}

TEST(Children, InjectionThatFailsIsReportedWithItsError) {
  E2eConfinement host;
  host.header().biz_dll_path_x64.length =
      0;  // the first process has it from the launcher, its children do not
  EXPECT_EQ(host.Run(Self(L"spawn " + Self(L"confined"))), 1) << "the child runs without the library";
  const Counts counts = Count(host.Settle());
  EXPECT_EQ(counts.failed, std::vector<std::uint32_t>{ERROR_DLL_NOT_FOUND});
  EXPECT_EQ(counts.failed_names, std::set<std::string>{kProbe});
}

// A library that cannot be loaded ends the child, which so never runs unconfined.
TEST(Children, EndWhenTheLibraryCannotBeLoaded) {
  E2eConfinement host([](host::SectionContents& section) {
    section.core_x86 = L"C:\\no\\such\\library.dll";  // takes the other path's place below
  });
  host.header().biz_dll_path_x64 = host.header().biz_dll_path_x86;
  EXPECT_EQ(host.Run(Self(L"spawn " + Self(L"exit 0"))), kDllNotFound);
  EXPECT_EQ(Count(host.Settle()).exited, std::vector<std::uint32_t>{kDllNotFound});
}

TEST(Children, OfAForeignKindAreReportedAsNotFollowed) {
  if (!GetProcAddress(GetModuleHandleW(L"ntdll.dll"), "wine_get_version")) GTEST_SKIP() << "no such programs";
  E2eConfinement host;
  EXPECT_EQ(host.Run(Self(L"spawn Z:\\bin\\true")), 0);
  const Counts counts = Count(host.Settle());
  EXPECT_EQ(counts.failed, std::vector<std::uint32_t>{ERROR_NOT_SUPPORTED});
  EXPECT_EQ(counts.failed_names, std::set<std::string>{"true"});
}

TEST(Modules, LoadFromAFolderThatTheRulesDeny) {
  TestFolder folder;
  const std::filesystem::path module = folder.path() / "module.dll";
  std::filesystem::copy_file(BuildPath("vorn_ipc.dll"), module);
  E2eConfinement host([&](host::SectionContents& section) {
    section.file_rules.push_back({policy::FileACL::kDeny, host::ToNtPath(folder.path().wstring())});
  });
  EXPECT_EQ(host.Run(Self(L"load " + module.wstring())), 0);
  EXPECT_EQ(host.Run(Self(L"open " + module.wstring())), ERROR_ACCESS_DENIED) << "as data";
}

TEST(Children, TwoHundredFromEightThreadsAreAllConfined) {
  E2eConfinement host;
  EXPECT_EQ(host.Run(Self(L"storm 8 200 " + Self(L"confined"))), 0);
  const Counts counts = Count(host.Settle());
  EXPECT_EQ(counts.injected, 200);
  EXPECT_TRUE(counts.failed.empty());
}

}  // namespace
}  // namespace vorn::test
