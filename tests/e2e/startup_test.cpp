// How a confined process starts, and how it ends when it cannot be confined: the library is injected into
// real processes whose section, environment or host is as good or as bad as each case says. The started
// program is this one, as "probe N": it exits with N.
#include <cstring>
#include <random>
#include <span>

#include "detours/detours.h"
#include "tests/e2e/confinement.h"
#include "tests/net_rules.h"
#include "tests/test_process.h"
#include "tests/unit/long_form.h"
#include "windows/nt.h"
#include "windows/unique_handle.h"

namespace {

using namespace vorn::host;
using namespace vorn::test;
using vorn::windows::UniqueHandle;

constexpr DWORD kProbeCode = 123;
constexpr DWORD kFailedManager = 1114;
constexpr wchar_t kVariable[] = L"VORN_SHARED_DATA_NAME";

// This program as a probe, injected, that has not run yet.
class InjectedProcess : public TestProcess {
 public:
  // value: of the variable that names the section; nothing leaves it out.
  explicit InjectedProcess(const std::optional<std::wstring>& value)
      : TestProcess(ProbeCommand(value), CREATE_SUSPENDED) {
    SetEnvironmentVariableW(kVariable, nullptr);
    const std::string library = BuildPath("vorn_core.dll").string();
    const char* libraries[] = {library.c_str()};
    if (!DetourUpdateProcessWithDll(handle(), libraries, 1)) ADD_FAILURE() << "not injected";
  }

  // Writes over the beginning of a function of ntdll, which lies at the same address in every process.
  void Overwrite(const char* function, std::span<const unsigned char> code) {
    auto* const at = reinterpret_cast<void*>(GetProcAddress(GetModuleHandleW(L"ntdll.dll"), function));
    DWORD old = 0;
    VirtualProtectEx(handle(), at, code.size(), PAGE_EXECUTE_READWRITE, &old);
    if (!WriteProcessMemory(handle(), at, code.data(), code.size(), nullptr))
      ADD_FAILURE() << "not overwritten";
  }

 private:
  static std::wstring ProbeCommand(const std::optional<std::wstring>& value) {
    SetEnvironmentVariableW(kVariable, value ? value->c_str() : nullptr);
    return Probe(ThisProgram().filename().string().c_str(), L"probe " + std::to_wstring(kProbeCode));
  }
};

class StartUp : public testing::Test, protected E2eConfinement {
 protected:
  DWORD CodeWith(const SharedSection& given) { return InjectedProcess(given.name()).RunToEnd(); }
  DWORD CodeWith(const SectionContents& given) { return CodeWith(SharedSection(given)); }
  DWORD CodeWithValue(const std::optional<std::wstring>& value) { return InjectedProcess(value).RunToEnd(); }

  static vorn::policy::SharedDataHeader& HeaderOf(const SharedSection& section) {
    return *reinterpret_cast<vorn::policy::SharedDataHeader*>(section.bytes().data());
  }

  // The messages of the only log, without their prefixes; removes the log.
  std::vector<std::string> TakeLog() {
    std::vector<std::string> messages;
    const std::vector<std::filesystem::path> files(std::filesystem::directory_iterator{folder()}, {});
    EXPECT_EQ(files.size(), 1u);
    for (const auto& path : files) {
      messages = ReadLines(path);
      for (std::string& line : messages) line.erase(0, line.find("] ") + 2);
      std::filesystem::remove(path);
    }
    return messages;
  }
  // Removes the log of a process, also from the folders above: a log directory may have been cut short.
  void RemoveLogs(DWORD pid) {
    const auto name =
        L"vorn_core_" + ThisProgram().filename().wstring() + L"_" + std::to_wstring(pid) + L"_0.log";
    std::error_code ignored;
    for (auto at = folder() / name; at.has_relative_path(); at = at.parent_path())
      std::filesystem::remove(at.parent_path() / name, ignored);
  }
  bool NothingLogged() { return std::filesystem::is_empty(folder()); }
  // How the end of a start reads to the host.
  static void ExpectFailure(DWORD exit_code, LaunchStage stage, DWORD code, const std::string& part) {
    const LaunchFailure failure = DescribeStartUpExit(exit_code);
    EXPECT_EQ(failure.stage, stage) << std::hex << exit_code << ' ' << failure.text;
    EXPECT_EQ(failure.code, code) << failure.text;
    EXPECT_NE(failure.text.find(part), std::string::npos) << failure.text;
  }

  SectionContents contents = [this] {
    SectionContents all = section().contents();
    all.flags = 0xF;
    return all;
  }();
};

// Whether these texts come one after another, with anything between them.
testing::AssertionResult InOrder(const std::vector<std::string>& lines,
                                 const std::vector<std::string>& texts) {
  auto line = lines.begin();
  for (const auto& text : texts) {
    line = std::find_if(line, lines.end(), [&](const auto& l) { return l.find(text) != std::string::npos; });
    if (line == lines.end())
      return testing::AssertionFailure()
             << '"' << text << "\" is missing in " << testing::PrintToString(lines);
    ++line;
  }
  return testing::AssertionSuccess();
}

TEST_F(StartUp, ConfinedProcessRunsAndReportsItsStart) {
  SharedSection shared(contents);
  InjectedProcess process(shared.name());
  const std::wstring event_name = shared.contents().init_event_prefix + std::to_wstring(process.id());
  UNICODE_STRING name = nt::CountedString(event_name.data(), event_name.size() * 2);
  OBJECT_ATTRIBUTES attributes = nt::NamedObject(&name);
  HANDLE raw = nullptr;
  ASSERT_TRUE(nt::Success(NtCreateEvent(&raw, EVENT_ALL_ACCESS, &attributes, 0, FALSE)));
  UniqueHandle event(raw);

  EXPECT_EQ(process.RunToEnd(), kProbeCode);
  EXPECT_EQ(WaitForSingleObject(event.get(), 0), WAIT_OBJECT_0) << "the init event is set";
  const auto log = TakeLog();
  const std::string pid = std::to_string(process.id());
  EXPECT_TRUE(InOrder(log, {"InitBaseLib success!", "InitLowLevel success!",
                            "Init gs_rqGameToHost: ", "Init gs_rqHostToGame: ", "InitBiz success!",
                            "Process Start:1, path:", "Process End, pid:" + pid}));
  EXPECT_TRUE(InOrder(log, {"Process Start:1, path:" + ThisProgram().string() + ", cmdline:\"" +
                            ThisProgram().string() + "\" probe 123, IL:0x"}));
  EXPECT_FALSE(InOrder(log, {"init event"}));

  // Calls of the program's own threads may be told before it, when the send thread starts late.
  auto messages = Settle();
  std::erase_if(messages, [](const Received& each) { return !each.As<vorn::policy::ProcessStart>(); });
  ASSERT_FALSE(messages.empty()) << "also of a program that ends at once";
  const auto* start = messages.front().As<vorn::policy::ProcessStart>();
  EXPECT_EQ(messages.front().sender(), process.id());
  EXPECT_EQ(messages.front().decoded.header.flag, 1);
  EXPECT_EQ(start->parent_pid, GetCurrentProcessId());
  EXPECT_EQ(start->image_name, ThisProgram().filename().string());
  EXPECT_TRUE(start->command_line.ends_with("\" probe 123")) << start->command_line;
}

TEST_F(StartUp, EnvironmentWithoutAUsableNameEndsTheProcess) {
  const DWORD missing = CodeWithValue(std::nullopt);
  EXPECT_EQ(missing, 0x100000CBu);
  ExpectFailure(missing, LaunchStage::kSectionName, ERROR_ENVVAR_NOT_FOUND,
                "variable is missing (exit code 0x100000cb)");
  ExpectFailure(CodeWithValue(std::wstring(256, L'x')), LaunchStage::kSectionName, ERROR_BAD_ENVIRONMENT,
                "too long");
  // 255 characters are a name, of a section that does not exist.
  ExpectFailure(CodeWithValue(L"\\BaseNamedObjects\\" + std::wstring(255 - 18, L'x')), LaunchStage::kSection,
                ERROR_FILE_NOT_FOUND, Win32ErrorText(ERROR_FILE_NOT_FOUND));
  EXPECT_TRUE(NothingLogged());
}

TEST_F(StartUp, SectionOfAnotherMagicOrVersionEndsTheProcess) {
  SharedSection section(contents);
  HeaderOf(section).version = 1;
  ExpectFailure(CodeWith(section), LaunchStage::kSection, ERROR_PRODUCT_VERSION, "magic number or version");
  HeaderOf(section).version = 2;
  HeaderOf(section).magic = 0x566F726F;
  EXPECT_EQ(CodeWith(section), 0x20000666u);
  EXPECT_TRUE(NothingLogged());
  HeaderOf(section).magic = vorn::policy::kSharedDataMagic;
  EXPECT_EQ(CodeWith(section), kProbeCode) << "the control run";
}

TEST_F(StartUp, LogThatCannotBeOpenedEndsTheProcess) {
  contents.options &= ~vorn::policy::OptionBits(vorn::policy::SectionOption::kOnDemand);  // opened at once
  contents.log_directory = (folder() / L"missing").wstring();
  EXPECT_EQ(CodeWith(contents), 0x80000003u);
  contents.log_directory.clear();
  EXPECT_EQ(CodeWith(contents), 0x80000057u);
  contents.log_directory = folder().wstring() + L"\\" + std::wstring(520, L'd');
  EXPECT_EQ(CodeWith(contents), 0x800000CEu);
}

// A manager that fails: here the last one, the channel, in each of the ways that a host can be wrong.
TEST_F(StartUp, FailingManagerRemovesTheHooksAndEndsTheProcess) {
  const struct {
    std::wstring SectionContents::*field;
    const wchar_t* value;
    const char* log;
  } cases[] = {
      {&SectionContents::server_port, L"vorn_no_such_port", "IPC::Init() Failed"},
      {&SectionContents::server_port, L"", "InitIPC: invalid parameter(s)"},
      {&SectionContents::ipc_x64, L"", "GetIPCxxFullPath returned NULL"},
      {&SectionContents::ipc_x64, L"C:\\no such folder\\vorn_ipc.dll",
       "Load vorn_ipc.dll Failed, ErrorCode is "},
      {&SectionContents::ipc_x64, L"C:\\windows\\system32\\version.dll",
       "GetProcAddress CreateIPCInterface2 or DestroyIPCInterface Failed, ErrorCode is 127"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.log);
    SectionContents spoiled = contents;
    spoiled.*c.field = c.value;
    EXPECT_EQ(CodeWith(spoiled), kFailedManager);
    const auto log = TakeLog();
    EXPECT_TRUE(InOrder(log, {c.log, "Init IPC Failed", "channel::Init failed!", "UnInitLowLevel success!",
                              "Process Start:0, path:"}));
    EXPECT_FALSE(InOrder(log, {"InitBiz success!"}) || InOrder(log, {"Process End"}));
  }
}

// A function that is too short to be patched keeps the whole table out of force. Without the option the
// program runs all the same.
TEST_F(StartUp, FunctionThatCannotBeInterceptedEndsTheProcessAndIsNamed) {
  constexpr unsigned char kReturnsAtOnce[] = {0xC3, 0xC3, 0xC3, 0xC3, 0xC3, 0xC3, 0xC3, 0xC3};
  const auto code = [&](std::uint32_t options, bool spoil) {
    contents.options = options;
    const SharedSection section(contents);
    InjectedProcess process(section.name());
    if (spoil) process.Overwrite("NtDeleteFile", kReturnsAtOnce);
    return process.RunToEnd();
  };
  constexpr auto kProve = vorn::policy::OptionBits(vorn::policy::SectionOption::kProveHooks);
  EXPECT_EQ(code(kProve, false), kProbeCode);
  EXPECT_EQ(code(0, true), kProbeCode);
  ExpectFailure(code(kProve, true), LaunchStage::kHooks, ERROR_INVALID_BLOCK, "NtDeleteFile");
}

TEST_F(StartUp, InitEventThatCannotBeOpenedOrNamedIsLeftAlone) {
  SharedSection section(contents);
  EXPECT_EQ(CodeWith(section), kProbeCode);
  EXPECT_TRUE(InOrder(TakeLog(), {"open init event failed, status 0xC0000034"}));
  // Longer than a prefix may be, and so long that the process id has no room behind it: no line either.
  auto& prefix = HeaderOf(section).create_process_event_prefix;
  const std::uint32_t offset = sizeof(vorn::policy::SharedDataHeader);
  for (const std::uint32_t bytes : {0u, 2 * 259u, 2 * 260u, 2 * 400u}) {
    prefix = {bytes, offset};
    EXPECT_EQ(CodeWith(section), kProbeCode);
    EXPECT_FALSE(InOrder(TakeLog(), {"init event"})) << bytes;
  }
}

// Whatever the section says, a start ends with a code of the library or the program runs; it never faults,
// and never hangs. VORN_RANDOM_SECTIONS sets the number of sections; the seed is fixed.
TEST_F(StartUp, RandomSectionsNeverFault) {
  const int sections = LongForm("VORN_RANDOM_SECTIONS", 1000);
  contents.file_rules = {{vorn::policy::FileACL::kDeny, L"\\Device\\HarddiskVolume1\\a"},
                         {vorn::policy::FileACL::kRead, L"\\Device\\HarddiskVolume1\\b\\c"}};
  contents.net_rules = {AddressRule(1, {127, 0, 0, 1}, {80, 443}), DomainRule(0, L"*.example.com")};
  std::mt19937 random(20'251'212);
  const auto below = [&](std::uint32_t n) { return static_cast<std::uint32_t>(random() % n); };
  constexpr std::uint32_t kSpan = 1'024;  // bytes of the section that are in use, and some more
  int ran = 0;
  for (int n = 0; n < sections && !HasFailure(); ++n) {
    SharedSection section(contents);
    const auto bytes = section.bytes();
    if (below(4) == 0)  // noise behind the first two words
      for (std::size_t i = 8; i < bytes.size(); ++i) bytes[i] = static_cast<std::byte>(random());
    // Fields of the header, and of the records behind it, become any number.
    for (std::uint32_t count = 1 + below(6); count > 0; --count) {
      const std::uint32_t values[] = {below(kSpan), 4096 - below(64), below(64), UINT32_MAX - below(64),
                                      static_cast<std::uint32_t>(random())};
      const std::uint32_t value = values[below(5)];
      const std::uint32_t word = below(3) ? 2 + below(23) : 2 + below(kSpan / 4 - 2);
      std::memcpy(bytes.data() + word * 4, &value, sizeof value);
    }
    InjectedProcess process(section.name());
    const DWORD code = process.RunToEnd();
    RemoveLogs(process.id());
    // What the library composes, what it answers for a failing manager, or what the program says. A fault
    // would show as its status, 0xC….
    const bool composed = (code >> 28) == 0x8 && (code & 0x0FFF0000) == 0;
    EXPECT_TRUE(composed || code == kFailedManager || code == kProbeCode)
        << std::hex << code << " for section " << std::dec << n;
    ran += code == kProbeCode;
  }
  RecordProperty("programs_that_ran", ran);
  EXPECT_GT(ran, 0) << "some sections are good enough";
}

}  // namespace

int main(int argc, char** argv) {
  if (argc == 3 && std::string(argv[1]) == "probe") return std::stoi(argv[2]);
  testing::InitGoogleTest(&argc, argv);
  return RUN_ALL_TESTS();
}
