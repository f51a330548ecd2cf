// vorn.exe as a person meets it: real programs, real policies, and what it prints.
#include <fstream>
#include <iterator>
#include <nlohmann/json.hpp>
#include <regex>
#include <sstream>

#include "confinement.h"
#include "folder_link.h"
#include "tests/test_process.h"

namespace vorn::test {
namespace {

namespace fs = std::filesystem;

struct Session {
  std::uint32_t exit_code = 0;
  std::string text;  // both output streams

  bool Says(const std::string& part) const { return text.find(part) != std::string::npos; }
};

class VornExe : public testing::Test, public TestFolder {
 protected:
  VornExe() {
    for (const char* name : {"denied", "protected", "work"}) {
      fs::create_directory(Path(name));
      Write(std::string(name) + "\\f.txt", std::string("old ") + name);
    }
    Write("policy.toml", "[files]\ndeny = ['" + Dos("denied") + "']\nwrite = ['" + Dos("work") + "']\n");
  }

  // meanwhile: called while vorn runs, with its process.
  Session Vorn(const std::string& arguments, const fs::path& program = BuildPath("vorn.exe"),
               const std::function<void(HANDLE)>& meanwhile = {}) const {
    const windows::UniqueHandle output = OutputFile(Path("output.txt"));
    const TestProcess process(L"\"" + program.wstring() + L"\" " + host::ToWide(arguments), 0, output.get());
    if (meanwhile) meanwhile(process.handle());
    const DWORD code = process.RunToEnd();
    return {code, Read("output.txt")};
  }
  Session Run(const std::string& program, const std::string& options = "",
              const std::function<void(HANDLE)>& meanwhile = {}) const {
    return Vorn("run " + options + " --policy \"" + Dos("policy.toml") + "\" -- " + program,
                BuildPath("vorn.exe"), meanwhile);
  }
  // The id of a program that the run has shown as started; 0 with a test failure when it is not shown.
  DWORD WaitForStart(const std::string& program) const {
    const std::regex started(R"(\[(\d+)\] started )" + program);
    for (const ULONGLONG begin = GetTickCount64(); GetTickCount64() - begin < 30'000; Sleep(20)) {
      const std::string text = Read("output.txt");
      std::smatch match;
      if (std::regex_search(text, match, started)) return std::stoul(match.str(1));
    }
    ADD_FAILURE() << program << " was not started";
    return 0;
  }
};

TEST_F(VornExe, ShowsEachRefusalWithItsRule) {
  Write("try.bat", "@type \"" + Dos("denied\\f.txt") + "\"\r\n@type \"" + Dos("protected\\f.txt") +
                       "\"\r\n@echo new> \"" + Dos("protected\\f.txt") + "\"\r\n@echo new> \"" +
                       Dos("work\\f.txt") + "\"\r\n@cmd /c rem\r\n@exit 23\r\n");
  const Session session =
      Run("cmd /c \"" + Dos("try.bat") + "\"", "--events \"" + Dos("events.jsonl") + "\"");
  EXPECT_EQ(session.exit_code, 23u);
  EXPECT_TRUE(session.Says("refused create " + Dos("denied\\f.txt") + " (deny)")) << session.text;
  EXPECT_TRUE(session.Says("<- deny " + Dos("denied") + " (line 2)")) << session.text;
  EXPECT_TRUE(session.Says("<- no rule: read only")) << session.text;
  EXPECT_TRUE(session.Says("2 refused")) << session.text;
  EXPECT_FALSE(session.Says("old denied"));
  EXPECT_TRUE(session.Says("old protected"));
  EXPECT_EQ(Read("protected\\f.txt"), "old protected");
  EXPECT_EQ(Read("work\\f.txt"), "new\r\n");

  std::istringstream events(Read("events.jsonl"));
  int refusals = 0;
  for (std::string line; std::getline(events, line);) {
    const auto json = nlohmann::json::parse(line, nullptr, false);
    ASSERT_TRUE(json.is_object()) << line;
    refusals += json["event"] == "file" && json["error"] == ERROR_ACCESS_DENIED;
  }
  EXPECT_EQ(refusals, 2);

  // The control run: the same batch file, nothing forbidden.
  Write("policy.toml", "[files]\nwrite = ['" + host::ToUtf8(path().wstring()) + "']\n");
  const Session control = Run("cmd /c \"" + Dos("try.bat") + "\"");
  EXPECT_TRUE(control.Says("old denied"));
  EXPECT_TRUE(control.Says("0 refused")) << control.text;
  EXPECT_EQ(Read("protected\\f.txt"), "new\r\n");
}

TEST_F(VornExe, StartsBatchFilesAndNoProgramOfAForeignKind) {
  Write("work\\s.bat", "@echo ran %1\r\n");
  EXPECT_TRUE(Run("\"" + Dos("work\\s.bat") + "\" well").Says("ran well"));
  EXPECT_TRUE(Run("cmd /c " + Dos("work\\s.bat") + " well").Says("ran well"));
  if (UnixName(path()).empty()) GTEST_SKIP() << "no such programs";
  const std::string touch = "Z:\\bin\\touch " + UnixName(path()) + "/touched";
  const Session refused = Run(touch);
  EXPECT_EQ(refused.exit_code, 125u);
  EXPECT_TRUE(refused.Says("vorn: not run: Z:\\bin\\touch is no program of Windows")) << refused.text;
  const Session inside = Run('"' + BuildPath("process_probe.exe").string() + "\" spawn " + touch);
  EXPECT_TRUE(inside.Says("refused create Z:\\bin\\touch (deny)")) << inside.text;
  EXPECT_TRUE(inside.Says("<- no program of Windows")) << inside.text;
  EXPECT_FALSE(inside.Says("NOT CONFINED")) << inside.text;
  EXPECT_FALSE(fs::exists(Path("touched")));
  RunUnix(L"touch", {Path("touched")});
  for (int i = 0; i < 500 && !fs::exists(Path("touched")); ++i) Sleep(10);
  EXPECT_TRUE(fs::exists(Path("touched"))) << "the control";
}

TEST_F(VornExe, ShowsWhichNetworkRuleRefused) {
  Write("policy.toml", "[network]\ndefault = \"deny\"\nallow = [\"127.0.0.1:9\"]\n");
  const Session session =
      Run('"' + BuildPath("net_probe.exe").string() + "\" sendto 127.0.0.1 9 / sendto 127.0.0.1 10");
  EXPECT_TRUE(session.Says("sendto 0\r\n") && session.Says("sendto 10051\r\n")) << session.text;
  EXPECT_TRUE(session.Says("refused send udp 127.0.0.1:10 (deny): Access denied  <- default: deny"))
      << session.text;
}

TEST_F(VornExe, FollowsATreeOfProgramsAndRestoresItsDeletions) {
  Write("top.bat", "@cscript.exe //nologo \"" + Dos("middle.js") + "\"\r\n");
  std::string script = "var shell = new ActiveXObject('WScript.Shell');\n";
  for (const std::string& command :
       {"xcopy /y \"" + Dos("denied\\f.txt") + "\" \"" + Dos("work") + "\\stolen\\\" /i",
        "xcopy /y \"" + Dos("protected\\f.txt") + "\" \"" + Dos("work") + "\\copy\\\" /i",
        "attrib +r \"" + Dos("protected\\f.txt") + "\"", "cmd /c del \"" + Dos("work\\f.txt") + "\""})
    script += "shell.Run('" + std::regex_replace(command, std::regex(R"(\\)"), R"(\\)") + "', 0, true);\n";
  Write("middle.js", script);
  const Session session = Run("cmd /c \"" + Dos("top.bat") + "\"");
  for (const char* program : {"cmd.exe", "cscript.exe", "xcopy.exe", "attrib.exe"})
    EXPECT_TRUE(std::regex_search(session.text, std::regex(std::string(program) + R"( \(\d+\)  confined)")))
        << program << "\n"
        << session.text;
  EXPECT_FALSE(session.Says("NOT CONFINED")) << session.text;
  EXPECT_FALSE(fs::exists(Path("work\\stolen\\f.txt")));
  EXPECT_EQ(Read("work\\copy\\f.txt"), "old protected");
  EXPECT_FALSE(fs::exists(Path("work\\f.txt")));

  std::smatch run;
  ASSERT_TRUE(std::regex_search(session.text, run, std::regex(R"(vorn restore (\S+))"))) << session.text;
  const Session listed = Vorn("restore --list " + run.str(1));
  EXPECT_TRUE(listed.Says("in recycle bin  " + Dos("work\\f.txt"))) << listed.text;
  EXPECT_EQ(Vorn("restore " + run.str(1) + " \"" + Dos("work\\g.txt") + '"').exit_code, 1u);
  Write("work\\f.txt", "in the way");
  EXPECT_EQ(Vorn("restore " + run.str(1)).exit_code, 1u);
  EXPECT_EQ(Read("work\\f.txt"), "in the way");
  fs::remove(Path("work\\f.txt"));
  fs::rename(Path("work"), Path("moved"));
  {
    const FolderLink elsewhere(Path("work"), Path("denied"));
    fs::rename(Path("denied\\f.txt"), Path("denied\\g.txt"));
    EXPECT_TRUE(Vorn("restore " + run.str(1)).Says("left in the bin " + Dos("work\\f.txt") + " (a link"));
    EXPECT_EQ(Read("denied\\f.txt"), "(none)");
  }
  // Alone: what else the programs deleted is back already.
  EXPECT_EQ(Vorn("restore " + run.str(1) + " \"" + Dos("work\\f.txt") + '"').exit_code, 0u);
  EXPECT_EQ(Read("work\\f.txt"), "old work");
  Run("cmd /c del \"" + Dos("work\\f.txt") + '"');
  EXPECT_EQ(Vorn("restore " + run.str(1)).exit_code, 1u)
      << "a second time: what another run deleted is not its";
  EXPECT_EQ(Read("work\\f.txt"), "(none)");
  EXPECT_EQ(Vorn("restore no-such-run").exit_code, 1u);
}

TEST_F(VornExe, CtrlCEndsTheWholeTreeAndTheSummaryStillComes) {
  DWORD deepest = 0;
  const Session session = Run("cmd /c \"ping -n 60 127.0.0.1 & echo went on\"", "", [&](HANDLE vorn) {
    deepest = WaitForStart("ping");
    // What a console does to its programs, also where the tests have no console.
    const auto routine = reinterpret_cast<LPTHREAD_START_ROUTINE>(
        GetProcAddress(GetModuleHandleW(L"kernelbase.dll"), "CtrlRoutine"));
    ASSERT_TRUE(routine);
    const HANDLE thread = CreateRemoteThread(vorn, nullptr, 0, routine, CTRL_C_EVENT, 0, nullptr);
    EXPECT_TRUE(thread);
    CloseHandle(thread);
  });
  EXPECT_EQ(session.exit_code, 0xC000013A) << session.text;
  EXPECT_TRUE(session.Says("---- ended by Ctrl-C ----")) << session.text;
  EXPECT_TRUE(session.Says("vorn: 2 processes")) << session.text;
  EXPECT_FALSE(session.Says("\nwent on")) << session.text;
  const HANDLE left = OpenProcess(SYNCHRONIZE, FALSE, deepest);
  EXPECT_TRUE(!left || WaitForSingleObject(left, 0) == WAIT_OBJECT_0) << "ping still runs";
  if (left) CloseHandle(left);
}

TEST_F(VornExe, WaitsForWhatTheProgramLeavesRunning) {
  const Session session = Run("cmd /c \"start /b ping -n 60 127.0.0.1 & exit 9\"", "", [&](HANDLE vorn) {
    const DWORD ping = WaitForStart("ping");
    EXPECT_EQ(WaitForSingleObject(vorn, 300), WAIT_TIMEOUT);
    const HANDLE process = OpenProcess(PROCESS_TERMINATE, FALSE, ping);
    EXPECT_TRUE(TerminateProcess(process, 1));  // without a farewell to the host
    CloseHandle(process);
  });
  EXPECT_EQ(session.exit_code, 9u);
  EXPECT_TRUE(std::regex_search(session.text, std::regex(R"(ping\.exe \(\d+\)  confined)"))) << session.text;
}

TEST_F(VornExe, ShowsACrashAndProtectsItsDump) {
  const std::string crash =
      "\"" + host::ToUtf8(BuildPath("crash_probe.exe").wstring()) + "\" write \"" + Dos("work\\id") + "\"";
  const std::string files = "[files]\nwrite = ['" + Dos("work") + "']\n[dump]\n";
  Write("policy.toml", files + "directory = '" + Dos("made\\dumps") + "'\n");
  fs::create_directories(Path("made\\dumps"));
  for (const char* old : {"made\\dumps\\old.vrn.dmp", "made\\dumps\\old.txt"}) {
    Write(old, "old");
    fs::last_write_time(Path(old), fs::file_time_type::clock::now() - std::chrono::days(31));
  }
  const Session session = Run(crash, "--events \"" + Dos("events.jsonl") + "\"");
  EXPECT_EQ(session.exit_code, 0xC0000005);
  EXPECT_TRUE(session.Says("---- exit code 0xc0000005 ----")) << session.text;
  std::smatch line;
  const std::regex crashed(
      R"(\[(\d+)\] crashed with exception 0xc0000005 \(access violation writing 0x10\) in crash_probe\.exe\+0x([0-9a-f]+) )"
      R"(on thread \d+, dump (.+\.vrn\.dmp))");
  ASSERT_TRUE(std::regex_search(session.text, line, crashed)) << session.text;
  EXPECT_TRUE(session.Says("vorn: 1 crash:") && session.Says("vorn:   crash_probe.exe " + line.str()))
      << session.text;
  const std::string dump = line.str(3);
  EXPECT_TRUE(dump.starts_with(Dos("made\\dumps\\")) && fs::exists(host::ToWide(dump))) << dump;
  EXPECT_FALSE(fs::exists(Path("made\\dumps\\old.vrn.dmp"))) << "what is older than a month is removed";
  EXPECT_EQ(Read("made\\dumps\\old.txt"), "old");

  nlohmann::json event;
  std::istringstream events(Read("events.jsonl"));
  for (std::string text; std::getline(events, text);)
    if (auto json = nlohmann::json::parse(text, nullptr, false); json["event"] == "crash") event = json;
  EXPECT_EQ(event["dump"], dump);
  EXPECT_EQ(event["module"], "crash_probe.exe");
  EXPECT_EQ(event["offset"], std::stoull(line.str(2), nullptr, 16));

  EXPECT_TRUE(Vorn("dump \"" + dump + "\"").Says("crash_probe.exe+0x" + line.str(2)));
  EXPECT_EQ(Vorn("dump \"" + Dos("policy.toml") + "\"").exit_code, 1u);
  Run("cmd /c del /f \"" + dump + "\"");
  EXPECT_TRUE(fs::exists(host::ToWide(dump)));

  Write("policy.toml", files + "enabled = false\ndirectory = '" + Dos("unwanted") + "'\n");
  const Session without = Run(crash);
  EXPECT_EQ(without.exit_code, 0xC0000005);
  EXPECT_FALSE(without.Says("crashed") || fs::exists(Path("unwanted"))) << without.text;
}

TEST_F(VornExe, GivesTheProgramItsCommandLineAsTyped) {
  const Session session = Run("cmd /c \"echo one  \"two three\" & echo four\"");
  EXPECT_TRUE(session.Says("one  \"two three\"")) << session.text;
  EXPECT_TRUE(session.Says("\nfour")) << session.text;
}

TEST_F(VornExe, CheckTellsWhatARuleDoesNotDo) {
  Write("policy.toml", "[files]\nenforce = false\ndeny = ['" + Dos("mistyped") + "']\nwrite = ['" + Dos("") +
                           "', '" + Dos("policy.toml") + "']\n");
  const Session check = Vorn("check \"" + Dos("policy.toml") + "\"");
  EXPECT_EQ(check.exit_code, 0u);
  for (const std::string& line : {std::string("files are NOT CONFINED: enforce = false"),
                                  "policy.toml:3:9: warning: \"" + Dos("mistyped"),
                                  "policy.toml:4:" + std::to_string(14 + Dos("").size()) + ": warning: \"" +
                                      Dos("policy.toml") + "\" does not open the policy for writing"})
    EXPECT_TRUE(check.Says(line)) << line << "\n" << check.text;
  const Session run = Run("cmd /c echo ran", "--events \"" + Dos("events.jsonl") + "\"");
  EXPECT_TRUE(Read("events.jsonl").starts_with(R"({"event":"run","files_confined":false)"));
  EXPECT_LT(run.text.find("files are NOT CONFINED"), run.text.find("ran"));
  EXPECT_LT(run.text.find("---- exit"), run.text.rfind("files are NOT CONFINED"));
  Write("policy.toml", "[files]\nwrite = ['" + Dos("") + "']\n");
  const Session explain = Vorn("explain -p \"" + Dos("policy.toml") + "\" \"" + Dos("policy.toml") + "\"");
  EXPECT_TRUE(explain.Says("read        " + Dos("policy.toml") + "  (read ") && explain.Says("(the policy)"))
      << explain.text;
}

TEST_F(VornExe, SaysWhatIsWrongAndRunsNothing) {
  Write("bad.toml", "[files]\ndeny = ['relative']\nrite = []\n");
  const Session bad = Vorn("run -p \"" + Dos("bad.toml") + "\" -- cmd /c echo ran");
  EXPECT_EQ(bad.exit_code, 125u);
  EXPECT_TRUE(bad.Says("bad.toml:2:9: error: \"relative\" is not a full path")) << bad.text;
  EXPECT_TRUE(bad.Says("bad.toml:3:1: error: unknown key \"rite\"")) << bad.text;
  EXPECT_FALSE(bad.Says("ran"));
  EXPECT_EQ(Vorn("check \"" + Dos("bad.toml") + "\"").exit_code, 1u);
  EXPECT_EQ(Vorn("check \"" + Dos("policy.toml") + "\"").exit_code, 0u);
  EXPECT_EQ(Vorn("run -p \"" + Dos("none.toml") + "\" -- cmd").exit_code, 125u);
  EXPECT_EQ(Vorn("run -p \"" + Dos("policy.toml") + "\"").exit_code, 125u);
  EXPECT_EQ(Run("no-such-program.exe").exit_code, 127u);
  Write("bad.toml", "[dump]\ndirectory = '" + Dos("policy.toml\\x") + "'\n");
  const Session no_directory = Vorn("run -p \"" + Dos("bad.toml") + "\" -- cmd /c echo ran");
  EXPECT_EQ(no_directory.exit_code, 125u);
  EXPECT_TRUE(no_directory.Says("of [dump] cannot be made: ")) << no_directory.text;

  Write("bad.toml", "[files]\ndeny = ['" + Dos("work") + "']\nwrite = ['" + Dos("work") + ".']\n");
  EXPECT_TRUE(Vorn("check \"" + Dos("bad.toml") + "\"").Says("bad.toml:3:10: error: "))
      << "one place, two accesses";
  const Session lost = Run("cmd /c echo ran", "--events \"" + Dos("policy.toml") + "\"");
  EXPECT_TRUE(lost.exit_code == 125u && lost.Says("overwrite the policy")) << lost.text;
  EXPECT_NE(Read("policy.toml"), "");
  EXPECT_TRUE(Vorn("frobnicate").Says("not understood: frobnicate"));

  // Without the library beside it nothing can be confined, so nothing runs.
  fs::copy_file(BuildPath("vorn.exe"), Path("vorn.exe"));
  const Session alone = Vorn("run -p \"" + Dos("policy.toml") + "\" -- cmd /c echo ran", Path("vorn.exe"));
  EXPECT_EQ(alone.exit_code, 125u);
  EXPECT_TRUE(alone.Says("not run: ")) << alone.text;
  EXPECT_FALSE(alone.Says("\nran"));
}

TEST_F(VornExe, ConfinesChildrenFromAFolderWithAnyName) {
  const fs::path folder = Path("") / L"\u0416\u4e2d\u00fc";
  fs::create_directory(folder);
  for (const char* file : {"vorn.exe", "vorn_core.dll", "vorn_ipc.dll"})
    fs::copy_file(BuildPath(file), folder / file);
  const Session session =
      Vorn("run -p \"" + Dos("policy.toml") + "\" -- cmd /c cmd /c echo ran", folder / "vorn.exe");
  EXPECT_TRUE(session.Says("ran\r\n") && session.Says("2 processes\r\n")) << session.text;
}

TEST_F(VornExe, ExplainsPathsAndDestinations) {
  Write("policy.toml", "[files]\ndeny = ['" + Dos("denied") +
                           "']\n[network]\nallow = ['*.example.com:443', '10.0.0.0/8']\n");
  const Session session =
      Vorn("explain -p \"" + Dos("policy.toml") + "\" \"" + Dos("denied\\x\\y") + "\" \"" + Dos("other") +
           "\" www.example.com:443 www.example.com:80 10.1.2.3 [::1]:80");
  EXPECT_EQ(session.exit_code, 0u);
  std::istringstream lines(session.text);
  std::vector<std::string> verdicts;
  for (std::string line; std::getline(lines, line);) verdicts.push_back(line.substr(0, line.find(' ')));
  EXPECT_EQ(verdicts, (std::vector<std::string>{"deny", "read", "allow", "deny", "allow", "deny"}))
      << session.text;
  EXPECT_TRUE(session.Says("(allow *.example.com:443 (line 4))")) << session.text;
  for (const char* nothing_to_decide : {"\"a b\"", "a.example.com:443,80", "10.0.0.0/7", "*.example.com"})
    EXPECT_EQ(Vorn("explain -p \"" + Dos("policy.toml") + "\" " + nothing_to_decide).exit_code, 1u);
  EXPECT_TRUE(Vorn("explain -p \"" + Dos("policy.toml") + "\" -- \"" + Dos("denied") + '"').Says("deny  "));
}

// Also where enough rules name the folder for it to be read at one time.
TEST_F(VornExe, ARuleForALinkCoversWhereItLeads) {
  std::string deny;
  for (const char* name : {"a", "b", "c", "d", "link"})
    deny += "'" + Dos(std::string("work\\") + name) + "', ";
  Write("policy.toml", "[files]\ndeny = [" + deny + "]\n");
  std::error_code error;
  fs::create_symlink(Path("protected\\f.txt"), Path("work\\link"), error);
  if (error) RunUnix(L"ln -s", {Path("protected\\f.txt"), Path("work\\link")});
  for (int i = 0; i < 500 && !fs::exists(Path("work\\link")); ++i) Sleep(10);
  EXPECT_FALSE(Run("cmd /c type \"" + Dos("protected\\f.txt") + '"').Says("old protected"));
}

// Neither the program nor the starts of its children.
TEST_F(VornExe, AReaderThatStandsStillHoldsNobodyUp) {
  constexpr int kRefusals = 1500;
  Write("work\\try.bat", "@for /L %%i in (1,1," + std::to_string(kRefusals) + ") do @type \"" +
                             Dos("denied\\f.txt") + "\" >nul 2>nul\r\n@cmd /c rem && echo x> \"" +
                             Dos("work\\done.txt") + "\"\r\n@exit 7\r\n");
  SECURITY_ATTRIBUTES inherit{sizeof inherit, nullptr, TRUE};
  windows::UniqueHandle read, write;
  ASSERT_TRUE(CreatePipe(read.put(), write.put(), &inherit, 4096));
  const TestProcess vorn(Probe("vorn.exe", L"run -p \"" + Path("policy.toml").wstring() + L"\" -- cmd /c \"" +
                                               Path("work\\try.bat").wstring() + L"\""),
                         0, write.get());
  write.reset();
  const ULONGLONG begin = GetTickCount64();
  while (!fs::exists(Path("work\\done.txt")) && GetTickCount64() - begin < Scaled(60'000)) Sleep(50);
  EXPECT_TRUE(fs::exists(Path("work\\done.txt")));
  std::string text;
  char bytes[4096];
  for (DWORD count; ReadFile(read.get(), bytes, sizeof bytes, &count, nullptr) && count;)
    text.append(bytes, count);
  EXPECT_EQ(vorn.RunToEnd(), 7u);
  EXPECT_NE(text.find("vorn: 2 processes\r\n"), text.npos)
      << text.substr(text.size() - std::min<std::size_t>(text.size(), 600));
  EXPECT_NE(text.find(std::to_string(kRefusals) + " refused:"), text.npos);
}

}  // namespace
}  // namespace vorn::test
