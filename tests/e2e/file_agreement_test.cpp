// What a policy says of a path, and what the library does with it in a confined process, are the same
// decision: access, rule and reason. Generated trees, policies and questions; the seed is printed.
#include <random>

#include "tests/e2e/file_script.h"
#include "vorn/compiled_policy.h"

namespace vorn::test {
namespace {

namespace fs = std::filesystem;
using policy::SectionOption;

constexpr std::uint32_t kReportEverything = static_cast<std::uint32_t>(SectionOption::kDecisionInAudit) |
                                            static_cast<std::uint32_t>(SectionOption::kAuditAllowed);

host::CompiledPolicy Compile(const std::string& text) {
  auto document = host::ParsePolicy(text, [](auto) { return std::nullopt; });
  auto compiled = host::CompiledPolicy::Make(std::get<host::PolicyDocument>(std::move(document)));
  return std::get<host::CompiledPolicy>(std::move(compiled));
}

std::vector<host::FileRule> RulesOf(const host::CompiledPolicy& policy) {
  host::SectionContents contents;
  policy.BuildSectionContents(contents);
  return contents.file_rules;
}

// A folder link where the system lets a program make one; on a Unix file system, one of its own.
bool MakeFolderLink(const fs::path& link, const fs::path& target) {
  std::error_code error;
  fs::create_directory_symlink(target, link, error);
  if (!error) return true;
  const auto unix_name = reinterpret_cast<char*(CDECL*)(const wchar_t*)>(
      GetProcAddress(GetModuleHandleW(L"kernel32.dll"), "wine_get_unix_file_name"));
  if (!unix_name) return false;
  std::wstring command = L"ln -s " + host::ToWide(unix_name(target.c_str())) + L" " +
                         host::ToWide(unix_name(link.parent_path().c_str())) + L"/" +
                         link.filename().wstring();
  STARTUPINFOW startup{};
  startup.cb = sizeof startup;
  PROCESS_INFORMATION process{};
  if (!CreateProcessW(L"\\\\?\\unix\\bin\\ln", command.data(), nullptr, nullptr, FALSE, 0, nullptr, nullptr,
                      &startup, &process))
    return false;
  for (int i = 0; i < 500 && !fs::exists(link, error); ++i) Sleep(10);
  return fs::exists(link, error);
}

// A tree of folders with files, some with a second name in another folder, and links to folders.
class Tree {
 public:
  Tree(const FileScript& top, std::mt19937& random) : top_(top), random_(random) {
    for (const char* a : {"a", "b", "c"})
      for (const char* b : {"", "\\x", "\\y", "\\x\\z"}) {
        folders_.push_back(std::string(a) + b);
        fs::create_directories(top.Path(folders_.back()));
      }
    for (const std::string& folder : folders_)
      for (const char* name : {"\\f.txt", "\\g.txt"}) {
        files_.push_back(folder + name);
        top.Write(files_.back(), "old");
      }
    for (int i = 0; i < 8; ++i) {
      const std::string name = Any(folders_) + "\\twin" + std::to_string(i) + ".txt";
      if (CreateHardLinkW(top.Path(name).c_str(), top.Path(Any(files_)).c_str(), nullptr))
        files_.push_back(name);
    }
    for (int i = 0; i < 3; ++i) {
      const std::string link = Any(folders_) + "\\link" + std::to_string(i);
      EXPECT_TRUE(MakeFolderLink(top.Path(link), top.Path(folders_[random_() % 12])));
      links_.push_back(link);
    }
  }

  std::string Policy() {
    std::map<std::string, std::string> places;  // one access a place
    for (int i = 0; i < 14; ++i)
      places[top_.Dos(random_() % 3 ? Any(folders_) : Any(files_))] =
          std::array{"deny", "read", "write"}[random_() % 3];
    std::map<std::string, std::string> lists;
    for (const auto& [place, access] : places) lists[access] += "'" + place + "', ";
    std::string text = "[files]\n";
    for (const auto& [access, list] : lists) text += access + " = [" + list + "]\n";
    return text;
  }

  // A path, and whether something may be there.
  std::pair<std::string, bool> Question() {
    const std::string unique = "new" + std::to_string(++count_);
    switch (random_() % 9) {
      case 0:
        return {top_.Dos(Any(folders_) + "\\" + unique), false};
      case 1:
        return {top_.Dos(Any(files_) + ":" + unique), false};
      case 2:
        return {top_.Dos(Any(links_) + "\\" + unique), false};
      case 3:
        return {top_.Dos(Any(links_) + "\\f.txt"), true};
      case 4:
        return {top_.Dos(Any(folders_) + "\\no such folder\\" + unique), false};
      case 5:
        return {host::ToUtf8((fs::temp_directory_path() / unique).wstring()), false};
      case 6:
        return {top_.Dos(Any(folders_)), true};
      default:
        return {top_.Dos(Any(files_)), true};
    }
  }

 private:
  const std::string& Any(const std::vector<std::string>& from) { return from[random_() % from.size()]; }

  const FileScript& top_;
  std::mt19937& random_;
  std::vector<std::string> folders_, files_, links_;
  int count_ = 0;
};

std::string Text(const policy::FileVerdict& verdict) {
  return std::string(policy::ACLName(verdict.access)) + ", " + policy::DecidingFactText(verdict.fact) +
         ", rule " + std::to_string(static_cast<std::int32_t>(verdict.rule));
}

// The rounds, each with a tree and a policy of its own, and a process that answers this many questions.
constexpr int kRounds = 7, kQuestions = 1000;

TEST(Agreement, ExplainAndTheLibraryDecideAlike) {
  const auto seed = std::random_device{}();
  for (int round = 0; round < kRounds; ++round) {
    SCOPED_TRACE("seed " + std::to_string(seed) + " round " + std::to_string(round));
    std::mt19937 random(seed + static_cast<unsigned>(round));
    FileScript script;
    Tree tree(script, random);
    const std::string text = tree.Policy();
    const host::CompiledPolicy policy = Compile(text);
    std::vector<std::string> asked;
    std::vector<policy::FileVerdict> expected;
    for (int i = 0; i < kQuestions; ++i) {
      const auto [path, exists] = tree.Question();
      const host::PathDecision decision = policy.DecidePath(host::ToWide(path));
      script.Add((exists ? "ask 1 \\??\\" : "ask 2 \\??\\") + path);
      if (!decision.path.folder_exists) continue;  // the system says so, nothing is decided
      asked.push_back(path);
      expected.push_back(decision.verdict.file);
    }
    const ScriptRun run = script.Run(RulesOf(policy), 0, kReportEverything);
    ASSERT_EQ(run.exit_code, 0);
    for (std::size_t i = 0; i < asked.size() && i < run.audits.size(); ++i)
      ASSERT_EQ(fs::path(run.audits[i].source).filename(), fs::path(asked[i]).filename()) << asked[i] << "\n"
                                                                                          << text;
    ASSERT_EQ(run.audits.size(), asked.size()) << text;
    for (std::size_t i = 0; i < asked.size(); ++i)
      ASSERT_EQ(Text(run.verdicts[i]), Text(expected[i]))
          << asked[i] << " (reported for " << run.audits[i].source << ")\n"
          << text;
  }
}

// Once explained otherwise than decided: a stream below a writable folder whose file is read only, and a
// writable name of a file whose other name is read only.
TEST(Agreement, AStreamAndAnotherNameAreExplainedAsTheyAreDecided) {
  FileScript script;
  ASSERT_TRUE(
      CreateHardLinkW(script.Path("write\\twin.txt").c_str(), script.Path("read\\f.txt").c_str(), nullptr));
  const host::CompiledPolicy policy =
      Compile("[files]\nread = ['" + script.Dos("write\\f.txt") + "', '" + script.Dos("read") +
              "']\nwrite = ['" + script.Dos("write") + "']\n");
  const auto explain = [&](const std::string& name) {
    return policy.Describe(policy.DecidePath(host::ToWide(script.Dos(name))).verdict.file);
  };
  EXPECT_EQ(explain("write\\f.txt:notes"),
            "the stream's file: read " + script.Dos("write\\f.txt") + " (line 2)");
  EXPECT_EQ(explain("write\\twin.txt"),
            "another name of this file: read " + script.Dos("read") + " (line 2)");
  const ScriptRun run =
      script.Add("create 0 40000000 2 0 " + script.Nt("write\\f.txt:notes"))
          .Add("create 0 40000000 5 0 " + script.Nt("write\\twin.txt"))
          .Run(RulesOf(policy), 0, static_cast<std::uint32_t>(SectionOption::kDecisionInAudit));
  EXPECT_EQ(run.answers, (std::vector<std::string>{"C0000022", "C0000022"}));
  ASSERT_EQ(run.verdicts.size(), 2u);
  EXPECT_EQ(Text(run.verdicts[0]), "R, the stream's file, rule 0");
  EXPECT_EQ(Text(run.verdicts[1]), "R, another name of this file, rule 1");
}

}  // namespace
}  // namespace vorn::test
