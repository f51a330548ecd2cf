// Every decision about opening a file, in a really confined process: what the caller gets, which step the log
// names, and which audit arrives; each beside a run in which nothing is refused.
#include <set>

#include "tests/e2e/folder_link.h"
#include "tests/unit/long_form.h"

namespace vorn::test {
namespace {

constexpr char kOk[] = "0", kRefused[] = "C0000022", kNotFound[] = "C0000034";

struct OpenCase {
  std::string command;
  std::string answer;  // under the rules; "*": whatever the system says
  int step;            // 0: no canonical path (131), of which the log tells the reason only
  std::optional<Audit> audit = {};
  std::string control = kOk;  // where everything may be written
};

Audit Refusal(AuditType type, FileACL access, const std::string& path) {
  return {type, ERROR_ACCESS_DENIED, access, FileACL::kUnknown, path, ""};
}

TEST(FileOpenE2E, EveryDecisionAndStep) {
  FileScript script;
  const std::string deny = script.Nt("deny\\f.txt"), read = script.Nt("read\\f.txt"),
                    write = script.Nt("write\\f.txt");
  const auto created = [&](FileACL access, const char* name) {
    return Refusal(AuditType::kCreate, access, script.Dos(name));
  };
  std::filesystem::create_directory(script.path() / "bad");
  script.Write("bad\\f.txt", "old");
  const auto link = [&] {
    return CreateHardLinkW((script.path() / "write/both.txt").c_str(), (script.path() / "read/f.txt").c_str(),
                           nullptr);
  };
  ASSERT_TRUE(link());

  const std::string new_file = script.Nt("read\\new.txt"), both = script.Nt("write\\both.txt");
  const auto overwritten = created(FileACL::kRead, "read\\f.txt");
  const std::vector<OpenCase> cases = {
      {"create 0 C0000000 1 20 \\??\\pipe\\vorn_no_such_pipe", kNotFound, 123, {}, kNotFound},
      {"create 0 80000000 1 20 \\??\\Q:\\x", "*", 0, {}, "*"},
      {"create 0 80100000 1 20 \\??\\NUL", kOk, 160},
      {"create 0 80000000 1 20 " + deny, kRefused, 165, created(FileACL::kDeny, "deny\\f.txt")},
      {"openfile 0 80100000 20 " + deny, kRefused, 165, created(FileACL::kDeny, "deny\\f.txt")},
      {"create 0 40000000 2 0 " + script.Nt("deny\\new.txt"), kRefused, 165,
       created(FileACL::kDeny, "deny\\new.txt")},
      {"create 0 10000 1 1000 " + read, kRefused, 175,
       Refusal(AuditType::kDelete, FileACL::kRead, script.Dos("read\\f.txt"))},
      {"create 0 C0000000 0 0 " + read, kRefused, 194, overwritten},
      {"create 0 C0000000 4 0 " + read, kRefused, 194, overwritten},
      {"create 0 C0000000 5 0 " + read, kRefused, 194, overwritten},
      {"create 0 C0000000 2 0 " + new_file, kRefused, 216, created(FileACL::kRead, "read\\new.txt")},
      // Only with the option the refusal of a creation is one.
      WithOptions() ? OpenCase{"create 0 C0000000 3 0 " + script.Nt("read\\new2.txt"), kRefused, 216,
                               created(FileACL::kRead, "read\\new2.txt")}
                    : OpenCase{"create 0 C0000000 3 0 " + script.Nt("read\\new2.txt"), kNotFound, 216},
      {"create 0 C0000000 3 0 " + read, kOk, 216},
      {"create 0 80000000 1 0 " + read, kOk, 216},
      {"create 0 C0000000 5 0 " + write, kOk, 216},
      {"create 0 10000 1 1000 " + both, kOk, 216},
      {"create 0 C0000000 1 0 " + script.Nt("bad\\f.txt"), kOk, 160},  // its rule is invalid
      {"create 0 80000000 1 0 " + script.Nt("none\\none\\f.txt"), "C000003A", 160, {}, "C000003A"},
  };
  for (const OpenCase& c : cases) script.Add(c.command).Add("close 0");
  auto rules = script.Rules();
  rules.push_back(script.Rule(static_cast<FileACL>(7), "bad"));
  const ScriptRun run = script.Run(rules);
  ASSERT_EQ(run.answers.size(), 2 * cases.size());
  std::vector<Audit> expected;
  for (std::size_t i = 0; i < cases.size(); ++i) {
    const OpenCase& c = cases[i];
    EXPECT_TRUE(c.answer == "*" || run.answers[2 * i] == c.answer) << c.command << ": " << run.answers[2 * i];
    const std::string line = c.step ? "step:" + std::to_string(c.step) + "," : "GetDriveForLetter Error:Q";
    EXPECT_FALSE(run.LogLines(line).empty()) << c.command << ": " << line;
    if (c.audit) expected.push_back(*c.audit);
  }
  std::vector<Audit> arrived;
  for (const Audit& audit : run.audits)
    if (audit.type != AuditType::kDeleteToRecycle) arrived.push_back(audit);
  EXPECT_EQ(arrived, expected);
  EXPECT_EQ(script.Read("deny\\f.txt"), "old");
  EXPECT_EQ(script.Read("read\\f.txt"), "old");
  EXPECT_EQ(script.Read("read\\new.txt"), "(none)");
  EXPECT_EQ(script.Read("deny\\new.txt"), "(none)");
  EXPECT_EQ(script.Read("write\\f.txt"), "");

  ASSERT_TRUE(link()) << "the first one is in the recycle bin";
  const ScriptRun control = script.Run(script.NoRefusals());
  ASSERT_EQ(control.answers.size(), 2 * cases.size());
  for (std::size_t i = 0; i < cases.size(); ++i)
    EXPECT_TRUE(cases[i].control == "*" || control.answers[2 * i] == cases[i].control)
        << cases[i].command << ": " << control.answers[2 * i];
}

TEST(FileOpenE2E, PathsArriveAsUtf8) {
  FileScript script;
  const std::filesystem::path folder = script.path() / L"deny\u00FC\u4E2D";
  std::filesystem::create_directory(folder);
  const auto utf8 = host::ToUtf8((folder / L"f.txt").wstring());
  script.Add("create 0 80000000 1 20 \\??\\" + utf8);
  const ScriptRun run = script.Run({{FileACL::kDeny, host::ToNtPath(folder.wstring())}}, 0);
  EXPECT_EQ(run.audits, std::vector{Refusal(AuditType::kCreate, FileACL::kDeny, utf8)});
}

TEST(FileOpenE2E, NoSpellingGetsAroundARule) {
  FileScript script;
  const auto spellings = [&](const std::string& name) {
    const std::string file = script.Dos(name), unix_name = UnixName(script.Path(name));
    std::string upper = file, doubled = file, backslashed = unix_name;
    std::ranges::transform(file, upper.begin(), [](char c) { return static_cast<char>(toupper(c)); });
    std::ranges::replace(backslashed, '/', '\\');
    doubled.replace(2, 1, "\\\\");
    std::vector<std::string> all = {
        "\\??\\" + file,       "\\??\\" + upper,
        "\\??\\" + doubled,    "\\DosDevices\\" + file,
        "\\GLOBAL??\\" + file, host::ToUtf8(host::ToNtPath(script.path().wstring())) + "\\" + name};
    if (!unix_name.empty())
      for (const std::string& other : {"\\??\\unix" + unix_name, "\\??\\UNIX" + backslashed,
                                       "\\DosDevices\\unix" + unix_name, "\\??\\Z:" + backslashed})
        all.push_back(other);
    return all;
  };
  const auto denied = spellings("deny\\f.txt"), open = spellings("write\\f.txt");
  for (const std::string& name : denied) script.Add("create 0 80000000 1 20 " + name);
  for (const std::string& name : open) script.Add("create 0 80000000 1 20 " + name);
  script.Add("create 0 100001 1 21 " + script.Nt("")).Add("below 1 80000000 0 deny\\f.txt");
  script.Add("create 2 100001 1 21 " + script.Nt("write")).Add("below 3 80000000 2 f.txt");
  const ScriptRun run = script.Run(script.Rules());
  const std::size_t count = denied.size();
  ASSERT_EQ(run.answers.size(), 2 * count + 4);
  for (std::size_t i = 0; i < count; ++i) {
    const std::string& control = run.answers[count + i];  // what the system itself does with this spelling
    EXPECT_TRUE(run.answers[i] == kRefused || control != kOk) << denied[i] << ": " << run.answers[i];
    EXPECT_NE(run.answers[i], kOk) << denied[i];
  }
  EXPECT_EQ(run.answers[2 * count + 1], kRefused);
  EXPECT_EQ(run.answers[2 * count + 3], kOk) << "the control: a folder below which files may be opened";
}

TEST(FileOpenE2E, FileOpenedByIdIsJudgedByItsPath) {
  FileScript script;
  script.Add("create 0 100001 1 21 " + script.Nt("deny"))
      .Add("create 1 80100000 1 20 " + script.Nt("deny\\f.txt"));
  script.Add("openid 2 80100000 0 1");
  script.Add("create 3 100001 1 21 " + script.Nt("write"))
      .Add("create 4 80100000 1 20 " + script.Nt("write\\f.txt"));
  script.Add("openid 5 80100000 3 4");
  // The folder may be opened, and the file whose id is asked for; opening it by id is what the rule refuses.
  const ScriptRun control = script.Run(script.NoRefusals());
  EXPECT_EQ(control.answers[2], kOk);
  EXPECT_EQ(control.answers[5], kOk);
  const ScriptRun run = script.Run(script.Rules());
  EXPECT_EQ(run.answers[5], kOk);
  EXPECT_FALSE(run.LogLines("CreateOptions[2020->20]").empty()) << "by name from there on";
}

// What is decided is what is opened, wherever links lead by then.
TEST(FileOpenE2E, ALinkGainsNothing) {
  constexpr int kOpens = 3000;
  FileScript script;
  script.Write("deny\\f.txt", "denied");
  script.Write("swap.sh",
               "cd \"$1\"; until [ -e stop ]; do ln -sfn deny link; ln -sfn write link; done; rm link");
  RunUnix(L"ln -s ../deny/new.txt", {script.Path("write\\dangling")});
  RunUnix(L"sh", {script.Path("swap.sh"), script.Path("")});
  const std::string dangling = script.Nt("write\\dangling");
  for (const char* disposition : {"2", "3", "5"})
    script.Add("create 0 40000000 " + std::string(disposition) + " 20 " + dangling).Add("close 0");
  script.Add("race " + std::to_string(kOpens) + " " + script.Nt("link\\f.txt"));
  const ScriptRun run = script.Run(script.Rules(), 0, host::kRunOptions);
  EXPECT_EQ(run.answers.back(), "0");
  EXPECT_EQ(script.Read("deny\\new.txt"), "(none)");
  const ScriptRun control = script.Run(script.NoRefusals(), 0, host::kRunOptions);
  EXPECT_GT(std::stoi(control.answers.back()), kOpens / 10);
  EXPECT_NE(script.Read("deny\\new.txt"), "(none)");
  script.Write("stop", "");
  for (int i = 0; i < 500 && std::filesystem::exists(script.Path("link")); ++i) Sleep(10);
}

TEST(FileOpenE2E, CheckOffLetsEverythingPassAndLogsFailures) {
  FileScript script;
  script.Add("create 0 C0000000 1 20 " + script.Nt("deny\\f.txt")).Add("close 0");
  script.Add("create 0 C0000000 1 20 " + script.Nt("deny\\none.txt"));
  const ScriptRun run =
      script.Run(script.Rules(), FileScript::kEverythingLogged | policy::kFlagFileCreateCheckOff);
  EXPECT_EQ(run.answers, (std::vector<std::string>{kOk, kOk, kNotFound}));
  EXPECT_TRUE(run.audits.empty());
  EXPECT_FALSE(
      run.LogLines("NtCreateFile Test status:C0000034, CreateOptions 20, DesiredAccess C0000000").empty());
}

// The audit of every refusal arrives, and once, but for those that the library says it dropped. VORN_STORM
// sets how often each thread opens and is refused: 20000 keep the process busy for about a minute.
TEST(FileOpenE2E, EveryRefusalIsReported) {
  constexpr std::uint32_t kLogInfoAlone = 0x08;
  constexpr int kThreads = 8;
  FileScript script;
  std::filesystem::create_directory(script.path() / "denied");
  std::filesystem::create_directory(script.path() / "open");
  const int count = LongForm("VORN_STORM", 300);
  script.Add("storm " + std::to_string(kThreads) + " " + std::to_string(count) + " " + script.Nt(""));
  const ScriptRun run = script.Run(
      {script.Rule(FileACL::kDeny, "denied"), script.Rule(FileACL::kReadWrite, "open")}, kLogInfoAlone);
  const auto refusals = static_cast<std::size_t>(kThreads * count);
  ASSERT_EQ(run.answers.size(), 2u);
  EXPECT_EQ(run.answers[0], std::to_string(refusals) + " refused, 0 failed");
  EXPECT_LT(std::stoi(run.answers[1]), kThreads) << "handles; the log takes two on the way";
  EXPECT_EQ(run.exit_code, 0);

  std::set<std::string> missing;
  for (int t = 0; t < kThreads; ++t)
    for (int i = 0; i < count; ++i)
      missing.insert(script.Dos("denied\\" + std::to_string(t) + "_" + std::to_string(i)));
  for (const Audit& audit : run.audits)
    EXPECT_EQ(missing.erase(audit.source), 1u) << audit.source << " twice, or never refused";
  std::size_t dropped = 0;
  for (const char* how : {"drop spam msg", "drop unlucky msg"})
    for (const std::string& line : run.LogLines(how)) dropped += line.ends_with("type 3, subtype 0");
  EXPECT_EQ(missing.size(), dropped) << testing::PrintToString(missing);
}

}  // namespace
}  // namespace vorn::test
