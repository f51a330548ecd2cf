// Renaming, deleting, writing, closing and moving in a really confined process: what is on disk and in the
// recycle bin afterwards, which audit arrived, and which status the caller saw; each beside a run in which
// nothing is refused.
#include "tests/e2e/file_script.h"
#include "vorn/recycle_bin.h"

namespace vorn::test {
namespace {

constexpr char kOk[] = "0", kRefused[] = "C0000022";
constexpr FileACL kNone = FileACL::kUnknown, kDeny = FileACL::kDeny, kRead = FileACL::kRead,
                  kReadWrite = FileACL::kReadWrite;

using Answers = std::vector<std::string>;
using Audits = std::vector<Audit>;

std::string Quoted(const std::wstring& path) { return host::ToUtf8(path); }

class FileChangeE2E : public testing::Test {
 protected:
  // How often the file lies in the recycle bin under this origin.
  int InRecycleBin(const std::string& name) const {
    int found = 0;
    for (const host::RecycledFile& file : host::ListRecycleBin())
      found += _stricmp(Quoted(file.original_path).c_str(), script.Dos(name).c_str()) == 0;
    return found;
  }
  Audit Recycled(const char* name) const {
    return {AuditType::kDeleteToRecycle, 0, kReadWrite, kNone, script.Dos(name), ""};
  }
  Audit Refused(AuditType type, FileACL access, const char* name) const {
    return {type, ERROR_ACCESS_DENIED, access, kNone, script.Dos(name), ""};
  }
  Audit RenameRefused(FileACL source_access, const char* source, FileACL target_access,
                      const char* target) const {
    return {AuditType::kRename, ERROR_ACCESS_DENIED, source_access,
            target_access,      script.Dos(source),  script.Dos(target)};
  }
  std::string Open(const char* name, const char* access, const char* options = "20") const {
    return std::string("create 0 ") + access + " 1 " + options + " " + script.Nt(name);
  }

  FileScript script;
};

TEST_F(FileChangeE2E, DeletedFilesLieInTheRecycleBin) {
  script.Write("write\\by_name.txt", "by name");
  script.Write("write\\set.txt", "set");
  script.Write("write\\set_ex.txt", "set ex");
  script.Add("delete " + script.Nt("write\\by_name.txt"));
  script.Add(Open("write\\f.txt", "10000", "1000")).Add("close 0");
  script.Add(Open("write\\set.txt", "10000")).Add("disposition 0 13 1").Add("close 0");
  script.Add(Open("write\\set_ex.txt", "10000")).Add("disposition 0 64 3").Add("close 0");
  const ScriptRun run = script.Run(script.Rules());
  EXPECT_EQ(run.answers, (Answers{kOk, kOk, kOk, kOk, "0 0", kOk, kOk, "0 2", kOk}));
  EXPECT_EQ(run.audits, (Audits{Recycled("write\\by_name.txt"), Recycled("write\\f.txt"),
                                Recycled("write\\set.txt"), Recycled("write\\set_ex.txt")}));
  for (const char* name : {"write\\by_name.txt", "write\\f.txt", "write\\set.txt", "write\\set_ex.txt"}) {
    EXPECT_EQ(script.Read(name), "(none)") << name;
    EXPECT_EQ(InRecycleBin(name), 1) << name;
  }
}

TEST_F(FileChangeE2E, ForbiddenDeletionsAreRefusedAndReported) {
  script.Add("delete " + script.Nt("read\\f.txt"));
  script.Add("delete " + script.Nt("deny\\f.txt"));
  script.Add(Open("read\\f.txt", "10000")).Add("disposition 0 13 1").Add("close 0");
  const ScriptRun run = script.Run(script.Rules());
  EXPECT_EQ(run.answers, (Answers{kRefused, kRefused, kOk, "0 0", kRefused}));
  EXPECT_EQ(run.audits, (Audits{Refused(AuditType::kDelete, kRead, "read\\f.txt"),
                                Refused(AuditType::kCreate, kDeny, "deny\\f.txt"),
                                Refused(AuditType::kDelete, kRead, "read\\f.txt")}));
  EXPECT_EQ(script.Read("read\\f.txt"), "old");
  EXPECT_EQ(script.Read("deny\\f.txt"), "old");
  EXPECT_EQ(InRecycleBin("read\\f.txt"), 0);

  const ScriptRun control = script.Run(script.NoRefusals());
  EXPECT_EQ(control.answers[0], kOk);
  EXPECT_EQ(control.answers[1], kOk);
  EXPECT_EQ(script.Read("read\\f.txt"), "(none)");
}

TEST_F(FileChangeE2E, DeletionsCanBeTakenBack) {
  script.Add(Open("write\\f.txt", "10000"))
      .Add("disposition 0 13 1")
      .Add("disposition 0 13 0")
      .Add("close 0");
  script.Add(Open("write\\f.txt", "10000", "1000")).Add("disposition 0 64 8").Add("close 0");
  const ScriptRun run = script.Run(script.Rules());
  EXPECT_EQ(run.answers, (Answers{kOk, "0 0", "0 0", kOk, kOk, "0 0", kOk}));
  EXPECT_TRUE(run.audits.empty());
  EXPECT_EQ(script.Read("write\\f.txt"), "old");
}

TEST_F(FileChangeE2E, FolderWithEntriesStaysAndAnEmptyOneGoes) {
  std::filesystem::create_directories(script.path() / "write/empty");
  script.Add(Open("write", "10000", "1001")).Add("close 0");
  script.Add(Open("write\\empty", "10000", "1001")).Add("close 0");
  const ScriptRun run = script.Run(script.Rules());
  EXPECT_EQ(run.answers, (Answers{kOk, kOk, kOk, kOk}));
  EXPECT_EQ(run.audits, (Audits{Recycled("write"), Recycled("write\\empty")}));
  EXPECT_EQ(script.Read("write\\f.txt"), "old");
  EXPECT_FALSE(std::filesystem::exists(script.path() / "write/empty"));
  EXPECT_EQ(InRecycleBin("write"), 0);
}

TEST_F(FileChangeE2E, RenamesAreJudgedByBothEnds) {
  const auto rename = [&](const char* from, int number, int flags, const char* to) {
    script.Add(Open(from, "10000"));
    script.Add("rename 0 " + std::to_string(number) + " " + std::to_string(flags) + " " + script.Nt(to))
        .Add("close 0");
  };
  rename("write\\f.txt", 10, 0, "write\\g.txt");
  rename("write\\g.txt", 65, 0, "write\\h.txt");
  rename("write\\h.txt", 10, 0, "read\\h.txt");
  rename("write\\h.txt", 65, 0, "deny\\h.txt");
  rename("write\\h.txt", 10, 0, "unlisted.txt");
  rename("read\\f.txt", 10, 0, "write\\stolen.txt");
  const ScriptRun run = script.Run(script.Rules());
  EXPECT_EQ(run.answers, (Answers{kOk, kOk, kOk, kOk, kOk, kOk, kOk, kRefused, kOk, kOk, kRefused, kOk, kOk,
                                  kRefused, kOk, kOk, kRefused, kOk}));
  EXPECT_EQ(run.audits, (Audits{RenameRefused(kReadWrite, "write\\h.txt", kRead, "read\\h.txt"),
                                RenameRefused(kReadWrite, "write\\h.txt", kDeny, "deny\\h.txt"),
                                RenameRefused(kReadWrite, "write\\h.txt", kRead, "unlisted.txt"),
                                RenameRefused(kRead, "read\\f.txt", kNone, "write\\stolen.txt")}));
  EXPECT_EQ(script.Read("write\\h.txt"), "old");
  EXPECT_EQ(script.Read("read\\f.txt"), "old");
  for (const char* name : {"read\\h.txt", "deny\\h.txt", "unlisted.txt", "write\\stolen.txt"})
    EXPECT_EQ(script.Read(name), "(none)") << name;

  script.Write("write\\f.txt", "old");
  std::filesystem::remove(script.path() / "write/h.txt");
  const ScriptRun control = script.Run(script.NoRefusals());
  EXPECT_EQ(control.answers[7], kOk);
  EXPECT_TRUE(control.audits.empty());
  EXPECT_EQ(script.Read("write\\stolen.txt"), "old");
}

TEST_F(FileChangeE2E, ReplacedFileLiesInTheRecycleBin) {
  script.Write("write\\target.txt", "precious");
  script.Add(Open("write\\f.txt", "10000"))
      .Add("rename 0 10 1 " + script.Nt("write\\target.txt"))
      .Add("close 0");
  const ScriptRun run = script.Run(script.Rules());
  EXPECT_EQ(run.answers, (Answers{kOk, kOk, kOk}));
  EXPECT_EQ(run.audits, (Audits{Recycled("write\\target.txt")}));
  EXPECT_EQ(script.Read("write\\target.txt"), "old");
  EXPECT_EQ(InRecycleBin("write\\target.txt"), 1);
}

TEST_F(FileChangeE2E, RefusedWritesAndSettingsAreReported) {
  script.Add(Open("read\\f.txt", "C0000000"))
      .Add("write 0 new")
      .Add("disposition 0 13 0")
      .Add("times 0")
      .Add("size 0 1")
      .Add("close 0");
  script.Add(Open("write\\f.txt", "C0000000"))
      .Add("write 0 new")
      .Add("times 0")
      .Add("size 0 2")
      .Add("close 0");
  const ScriptRun run = script.Run(script.Rules());
  EXPECT_EQ(run.answers, (Answers{kOk, kRefused, "C0000022 0", kOk, kRefused, kOk, kOk, kOk, kOk, kOk, kOk}));
  EXPECT_EQ(run.audits, Audits(3, Refused(AuditType::kWrite, kRead, "read\\f.txt")));
  EXPECT_EQ(script.Read("read\\f.txt"), "old");
  EXPECT_EQ(script.Read("write\\f.txt"), "ne");
  EXPECT_FALSE(run.LogLines("SetInformationFile Error 13, Path:").empty());
}

TEST_F(FileChangeE2E, MovesHappenAtOnceAndUnderTheRules) {
  const auto move = [&](const char* flags, const char* from, const char* to) {
    script.Add(std::string("move ") + flags + " " + script.Dos(from) + "|" + script.Dos(to));
  };
  const bool refused = WithOptions();
  move("4", "write\\f.txt", "write\\delayed.txt");  // at the next start
  if (refused) move("0", "write\\f.txt", "write\\delayed.txt");
  move("0", "write\\delayed.txt", "read\\moved.txt");
  move("0", "deny\\f.txt", "write\\stolen.txt");
  const ScriptRun run = script.Run(script.Rules());
  EXPECT_EQ(run.answers[0], refused ? "5" : "0");
  EXPECT_EQ(run.answers[1 + refused], "5");
  EXPECT_NE(run.answers[2 + refused], "0");
  EXPECT_EQ(run.audits.front().type, AuditType::kRename);
  EXPECT_EQ(run.audits.front().source, script.Dos(refused ? "write\\f.txt" : "write\\delayed.txt"));
  EXPECT_EQ(script.Read("write\\delayed.txt"), "old");
  EXPECT_EQ(script.Read("read\\moved.txt"), "(none)");
  EXPECT_EQ(script.Read("write\\stolen.txt"), "(none)");
  EXPECT_EQ(script.Read("deny\\f.txt"), "old");
}

}  // namespace
}  // namespace vorn::test
