// The launcher with real processes, the real library and real injection. The started program is this one, as
// "probe".
#include <string>

#include "tests/e2e/confinement.h"
#include "vorn/create_process.h"
#include "windows/unique_handle.h"

namespace {

using namespace std::chrono_literals;
using namespace vorn::host;
using vorn::windows::UniqueHandle;

std::wstring ProbeCommand(const std::wstring& arguments) {
  return L"\"" + vorn::test::ThisProgram().wstring() + L"\" probe " + arguments;
}

int ProbeMain(const std::string& job, const std::string& argument) {
  if (job == "exit") return static_cast<int>(std::stoul(argument));
  if (job == "sleep") Sleep(INFINITE);
  if (job == "copy") {  // standard input to standard output and error
    char buffer[256];
    DWORD bytes = 0;
    while (ReadFile(GetStdHandle(STD_INPUT_HANDLE), buffer, sizeof buffer, &bytes, nullptr) && bytes) {
      WriteFile(GetStdHandle(STD_OUTPUT_HANDLE), buffer, bytes, &bytes, nullptr);
      WriteFile(GetStdHandle(STD_ERROR_HANDLE), buffer, bytes, &bytes, nullptr);
    }
    return 0;
  }
  if (job == "environment") {  // whether variables and folder are the given ones
    wchar_t value[8] = {}, folder[MAX_PATH];
    GetCurrentDirectoryW(MAX_PATH, folder);
    return GetEnvironmentVariableW(L"VORN_TEST_REMOVED", value, 8) == 0 &&
                   GetEnvironmentVariableW(L"VORN_TEST_SET", value, 8) && std::wstring(value) == L"two" &&
                   std::wstring(folder) == L"C:\\windows"
               ? 7
               : 0;
  }
  if (job == "handle") {  // whether a handle value of the parent is open here
    DWORD flags = 0;
    return GetHandleInformation(reinterpret_cast<HANDLE>(std::stoull(argument)), &flags) ? 1 : 0;
  }
  if (job == "spawn") {  // leaves a child behind
    STARTUPINFOW startup{};
    startup.cb = sizeof startup;
    PROCESS_INFORMATION child{};
    std::wstring command = ProbeCommand(L"sleep x");
    if (!CreateProcessWithRetry(nullptr, command.data(), FALSE, 0, nullptr, nullptr, &startup, &child))
      return 1;
    return static_cast<int>(child.dwProcessId);
  }
  return 99;
}

class HostLauncher : public testing::Test {
 protected:
  vorn::test::E2eConfinement host;
};

TEST_F(HostLauncher, OnlyTheGivenStandardStreamsAreInherited) {
  UniqueHandle in_read, in_write, out_read, out_write;
  ASSERT_TRUE(CreatePipe(in_read.put(), in_write.put(), nullptr, 0));
  ASSERT_TRUE(CreatePipe(out_read.put(), out_write.put(), nullptr, 0));
  auto result = host.launcher().Start({.command_line = ProbeCommand(L"copy x"),
                                       .standard_input = in_read.get(),
                                       .standard_output = out_write.get(),
                                       .standard_error = out_write.get()});
  ASSERT_TRUE(std::holds_alternative<ConfinedProcess>(result)) << std::get<LaunchFailure>(result).text;
  DWORD bytes = 0;
  WriteFile(in_write.get(), "hello", 5, &bytes, nullptr);
  in_write.reset();
  out_write.reset();
  std::string output;
  char buffer[64];
  while (ReadFile(out_read.get(), buffer, sizeof buffer, &bytes, nullptr) && bytes)
    output.append(buffer, bytes);
  EXPECT_EQ(output, "hellohello") << "and the end of the pipe shows that nobody else holds it";

  SECURITY_ATTRIBUTES inheritable{sizeof inheritable, nullptr, TRUE};
  const UniqueHandle mine(CreateEventW(&inheritable, TRUE, FALSE, nullptr));
  // A value that high is not a handle of a fresh process by chance.
  UniqueHandle high;
  std::vector<UniqueHandle> fill;
  while (reinterpret_cast<ULONG_PTR>(high.get()) < 0x2000) {
    ASSERT_TRUE(DuplicateHandle(GetCurrentProcess(), mine.get(), GetCurrentProcess(), high.put(), 0, TRUE,
                                DUPLICATE_SAME_ACCESS));
    if (reinterpret_cast<ULONG_PTR>(high.get()) < 0x2000) fill.push_back(std::move(high));
  }
  const auto value = std::to_wstring(reinterpret_cast<ULONG_PTR>(high.get()));
  EXPECT_EQ(host.Run(ProbeCommand(L"handle " + value)), 0);
}

TEST_F(HostLauncher, ProgramGetsItsEnvironmentAndFolder) {
  SetEnvironmentVariableW(L"VORN_TEST_REMOVED", L"here");
  SetEnvironmentVariableW(L"VORN_TEST_SET", L"one");
  EXPECT_EQ(host.Run(ProbeCommand(L"environment x"),
                     {.working_directory = L"C:\\windows",
                      .environment = {{L"vorn_test_removed", std::nullopt}, {L"VORN_TEST_SET", L"two"}}}),
            7);
}

TEST_F(HostLauncher, FailedStartNamesItsStage) {
  const auto expect = [&](void (*spoil)(SectionContents&), LaunchOptions options, LaunchStage stage,
                          std::uint32_t code, std::string_view part) {
    SectionContents contents = host.section().contents();
    spoil(contents);
    if (options.command_line.empty()) options.command_line = ProbeCommand(L"sleep x");
    const SharedSection spoiled(contents);
    if (options.start_timeout == 500ms)  // the library has no event to set
      reinterpret_cast<vorn::policy::SharedDataHeader*>(spoiled.bytes().data())
          ->create_process_event_prefix = {};
    Launcher other(spoiled);
    const auto result = other.Start(options);
    ASSERT_TRUE(std::holds_alternative<LaunchFailure>(result)) << part;
    const auto& failure = std::get<LaunchFailure>(result);
    EXPECT_TRUE(other.WaitForAll(0ms));
    EXPECT_EQ(failure.stage, stage) << failure.text;
    EXPECT_EQ(failure.code, code) << failure.text;
    EXPECT_NE(failure.text.find(part), std::string::npos) << failure.text;
  };
  const auto nothing = [](SectionContents&) {};
  expect(nothing, {.command_line = L"C:\\windows\\no_such_program.exe --flag"}, LaunchStage::kCreate,
         ERROR_FILE_NOT_FOUND, "program.exe");
  expect([](SectionContents& c) { c.core_x64 = L"C:\\no\\such\\vorn_core.dll"; }, {}, LaunchStage::kInject,
         ERROR_MOD_NOT_FOUND, "vorn_core.dll");
  expect([](SectionContents& c) { c.server_port = L"vorn_no_such_port"; }, {}, LaunchStage::kManagers,
         ERROR_DLL_INIT_FAILED, "hooks");
  expect(nothing, {.start_timeout = 500ms}, LaunchStage::kTimeout, 0, "500 ms");
}

TEST_F(HostLauncher, TreeBelongsToTheLauncherAndEndsWithIt) {
  UniqueHandle child;
  {
    Launcher scoped(host.section());
    auto result = scoped.Start({.command_line = ProbeCommand(L"spawn x")});
    ASSERT_TRUE(std::holds_alternative<ConfinedProcess>(result)) << std::get<LaunchFailure>(result).text;
    const auto child_pid = std::get<ConfinedProcess>(result).Wait(30s);
    ASSERT_TRUE(child_pid);
    child.reset(OpenProcess(SYNCHRONIZE, FALSE, *child_pid));
    ASSERT_TRUE(child);
    EXPECT_TRUE(scoped.Owns(*child_pid));
    EXPECT_FALSE(host.launcher().Owns(*child_pid));
    EXPECT_FALSE(scoped.Owns(GetCurrentProcessId()));
    EXPECT_FALSE(scoped.WaitForAll(50ms)) << "the child runs";
    const std::vector<LaunchedProcess> processes = scoped.Processes();
    ASSERT_EQ(processes.size(), 2u);
    EXPECT_EQ(processes[0].pid, std::get<ConfinedProcess>(result).pid());
    EXPECT_EQ(processes[1].pid, *child_pid);
    EXPECT_EQ(processes[1].parent_pid, processes[0].pid);
    EXPECT_EQ(processes[1].image, vorn::test::ThisProgram().wstring());
    EXPECT_TRUE(host.launcher().Processes().empty());
  }
  EXPECT_EQ(WaitForSingleObject(child.get(), 20'000), WAIT_OBJECT_0);
}

}  // namespace

int main(int argc, char** argv) {
  if (argc == 4 && std::string(argv[1]) == "probe") return ProbeMain(argv[2], argv[3]);
  testing::InitGoogleTest(&argc, argv);
  return RUN_ALL_TESTS();
}
