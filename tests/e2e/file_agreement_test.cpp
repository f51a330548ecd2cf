// What a policy says of a path, and what the library does with it in a confined process, are the same
// decision: access, rule and reason. Generated trees, policies and questions; the seed is printed.
#include <memory>
#include <random>

#include "tests/e2e/file_script.h"
#include "tests/e2e/folder_link.h"
#include "vorn/compiled_policy.h"

namespace vorn::test {
namespace {

namespace fs = std::filesystem;
using policy::SectionOption;

constexpr auto kAuditAllowed = static_cast<std::uint32_t>(SectionOption::kAuditAllowed);

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
      const std::string first = Any(folders_) + "\\first" + std::to_string(i) + ".txt";
      top.Write(first, "old");
      EXPECT_TRUE(CreateHardLinkW(top.Path(name).c_str(), top.Path(first).c_str(), nullptr));
      linked_.push_back(name);
      linked_.push_back(first);
    }
    for (const fs::path& folder : free_) fs::create_directories(folder);
    for (unsigned i = 0; i < 3; ++i) {
      const std::string link = Any(folders_) + "\\link" + std::to_string(i);
      folder_links_.push_back(std::make_unique<FolderLink>(top.Path(link), top.Path(folders_[i * 4])));
      links_.push_back(link);
    }
  }

  ~Tree() {
    std::error_code ignored;
    for (const fs::path& folder : free_) fs::remove_all(folder, ignored);
  }
  Tree(const Tree&) = delete;
  Tree& operator=(const Tree&) = delete;

  std::string Policy() {
    std::map<std::string, std::string> places;  // one access a place
    for (int i = 0; i < 16; ++i)
      places[i == 1 ? Free()
                    : top_.Dos(Any(i % 4   ? folders_
                                   : i % 8 ? files_
                                           : linked_))] = std::array{"deny", "read", "write"}[random_() % 3];
    std::map<std::string, std::string> lists;
    for (const auto& [place, access] : places) lists[access] += "'" + place + "', ";
    std::string text = "[files]\n";
    for (const auto& [access, list] : lists) text += access + " = [" + list + "]\n";
    return text;
  }

  // A path, and whether something may be there.
  std::pair<std::string, bool> Question() {
    const std::string unique = "new" + std::to_string(++count_);
    if (count_ % 32 == 0)
      return {top_.Dos(Any(linked_)), true};  // looking for the other names takes its time
    const std::pair<std::string, bool> kinds[] = {{Any(folders_) + "\\" + unique, false},
                                                  {Any(files_) + ":" + unique, false},
                                                  {Any(links_) + "\\" + unique, false},
                                                  {Any(links_) + "\\f.txt", true},
                                                  {Any(folders_) + "\\no such folder\\" + unique, false},
                                                  {Any(folders_), true},
                                                  {Any(files_), true},
                                                  {Any(files_), true}};
    const std::size_t kind = random_() % (std::size(kinds) + 1);
    if (kind == std::size(kinds)) return {Free() + "\\" + unique, false};
    return {top_.Dos(kinds[kind].first), kinds[kind].second};
  }

 private:
  const std::string& Any(const std::vector<std::string>& from) { return from[random_() % from.size()]; }
  std::string Free() { return host::ToUtf8(free_[random_() % 2].wstring()); }

  const FileScript& top_;
  std::mt19937& random_;
  std::vector<std::string> folders_, files_, linked_, links_;
  std::vector<std::unique_ptr<FolderLink>> folder_links_;
  // Below the temp folder and the recycle bin, which are open.
  const fs::path free_[2] = {fs::temp_directory_path() / host::RandomName(L"vorn_e2e"),
                             fs::path(L"C:\\$Recycle.Bin") / host::RandomName(L"vorn_e2e")};
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
    const host::SectionContents contents = ContentsOf(policy);
    ScriptRun run = script.Run(contents.file_rules, 0, contents.options | kAuditAllowed);
    ASSERT_EQ(run.exit_code, 0);
    ASSERT_FALSE(run.audits.empty());
    EXPECT_EQ(fs::path(run.audits.front().source).filename(), "script.txt") << "the probe's own";
    run.audits.erase(run.audits.begin());
    run.verdicts.erase(run.verdicts.begin());
    for (std::size_t i = 0; i < asked.size() && i < run.audits.size(); ++i)
      ASSERT_EQ(fs::path(run.audits[i].source).filename(), fs::path(asked[i]).filename()) << asked[i] << "\n"
                                                                                          << text;
    ASSERT_GE(run.audits.size(), asked.size()) << text;  // the probe asks for more at its end
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
  // A name where no rule is, which may not even be found, cannot be written through either.
  fs::create_directory(script.Path("elsewhere"));
  script.Write("write\\far.txt", "old");
  ASSERT_TRUE(CreateHardLinkW(script.Path("elsewhere\\far.txt").c_str(),
                              script.Path("write\\far.txt").c_str(), nullptr));
  for (const char* open : {"2 0 write\\f.txt:notes", "5 0 write\\twin.txt", "5 0 write\\far.txt"})
    script.Add(std::string("create 0 40000000 ").append(open, 4) + script.Nt(open + 4));
  const ScriptRun run = script.Run(ContentsOf(policy).file_rules, 0, ContentsOf(policy).options);
  EXPECT_EQ(run.answers, std::vector<std::string>(3, "C0000022"));
  ASSERT_EQ(run.verdicts.size(), 3u);
  EXPECT_EQ(Text(run.verdicts[0]), "R, the stream's file, rule 0");
  EXPECT_EQ(Text(run.verdicts[1]), "R, another name of this file, rule 1");
}

}  // namespace
}  // namespace vorn::test
