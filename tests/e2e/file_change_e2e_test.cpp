// Renaming, deleting, writing, closing and moving in a really confined process: what is on disk and in the
// recycle bin afterwards, which audit arrived, and which status the caller saw; each beside a run in which
// nothing is refused.
#include "tests/e2e/file_script.h"
#include "vorn/recycle_bin.h"

namespace vorn::test {
namespace {

constexpr FileACL kNone = FileACL::kUnknown, kDeny = FileACL::kDeny, kRead = FileACL::kRead,
                  kReadWrite = FileACL::kReadWrite;

// Calls in a row, in which @ is the folder of the test.
struct Change {
  std::vector<std::string> commands;
  std::vector<std::string> answers;
  std::vector<Audit> audits = {};
};

std::vector<Change> Changes(const FileScript& script) {
  const auto recycled = [&](const char* name) {
    return Audit{AuditType::kDeleteToRecycle, 0, kReadWrite, kNone, script.Dos(name), ""};
  };
  const auto refused = [&](AuditType type, FileACL access, const char* name) {
    return Audit{type, ERROR_ACCESS_DENIED, access, kNone, script.Dos(name), ""};
  };
  const auto rename = [&](const char* number, FileACL from_access, const char* from, FileACL to_access,
                          const char* to) {
    const bool allowed = from_access == kReadWrite && to_access == kReadWrite;
    Change change{{std::string("create 0 10000 1 20 @") + from,
                   std::string("rename 0 ") + number + " 0 @" + to, "close 0"},
                  {"0", allowed ? "0" : "C0000022", "0"}};
    if (!allowed)
      change.audits = {{AuditType::kRename, ERROR_ACCESS_DENIED, from_access, to_access, script.Dos(from),
                        script.Dos(to)}};
    return change;
  };
  return {
      {{"delete @write\\by_name.txt"}, {"0"}, {recycled("write\\by_name.txt")}},
      {{"create 0 10000 1 1000 @write\\on_close.txt", "close 0"},
       {"0", "0"},
       {recycled("write\\on_close.txt")}},
      {{"create 0 10000 1 20 @write\\set.txt", "disposition 0 13 1", "close 0"},
       {"0", "0 0", "0"},
       {recycled("write\\set.txt")}},
      {{"create 0 10000 1 20 @write\\set_ex.txt", "disposition 0 64 3", "close 0"},
       {"0", "0 2", "0"},
       {recycled("write\\set_ex.txt")}},
      {{"delete @read\\by_name.txt"},
       {"C0000022"},
       {refused(AuditType::kDelete, kRead, "read\\by_name.txt")}},
      {{"delete @deny\\by_name.txt"},
       {"C0000022"},
       {refused(AuditType::kCreate, kDeny, "deny\\by_name.txt")}},
      {{"create 0 10000 1 20 @read\\set.txt", "disposition 0 13 1", "close 0"},
       {"0", "0 0", "C0000022"},
       {refused(AuditType::kDelete, kRead, "read\\set.txt")}},
      // Taken back.
      {{"create 0 10000 1 20 @write\\kept.txt", "disposition 0 13 1", "disposition 0 13 0", "close 0"},
       {"0", "0 0", "0 0", "0"}},
      {{"create 0 10000 1 1000 @write\\kept.txt", "disposition 0 64 8", "close 0"}, {"0", "0 0", "0"}},
      // Folders: one with entries stays.
      {{"create 0 10000 1 1001 @write", "close 0"}, {"0", "0"}, {recycled("write")}},
      {{"create 0 10000 1 1001 @write\\empty", "close 0"}, {"0", "0"}, {recycled("write\\empty")}},
      rename("10", kReadWrite, "write\\f.txt", kReadWrite, "write\\g.txt"),
      rename("65", kReadWrite, "write\\g.txt", kReadWrite, "write\\h.txt"),
      rename("10", kReadWrite, "write\\h.txt", kRead, "read\\h.txt"),
      rename("65", kReadWrite, "write\\kept.txt", kDeny, "deny\\h.txt"),
      rename("10", kReadWrite, "write\\also.txt", kRead, "unlisted.txt"),
      rename("10", kRead, "read\\stolen.txt", kNone, "write\\stolen.txt"),
      {{"create 0 10000 1 20 @write\\new.txt", "rename 0 10 1 @write\\target.txt", "close 0"},
       {"0", "0", "0"},
       {recycled("write\\target.txt")}},
      {{"create 0 C0000000 1 20 @read\\f.txt", "write 0 new", "disposition 0 13 0", "times 0", "size 0 1",
        "close 0"},
       {"0", "C0000022", "C0000022 0", "0", "C0000022", "0"},
       std::vector(3, refused(AuditType::kWrite, kRead, "read\\f.txt"))},
      {{"create 0 C0000000 1 20 @write\\written.txt", "write 0 new", "times 0", "size 0 2", "close 0"},
       {"0", "0", "0", "0", "0"}},
  };
}

TEST(FileChangeE2E, EachChangeIsMadeOrRefusedAndReported) {
  FileScript script, control;
  for (FileScript* each : {&script, &control}) {
    for (const char* name :
         {"write\\by_name.txt", "write\\on_close.txt", "write\\set.txt", "write\\set_ex.txt",
          "write\\kept.txt", "write\\also.txt", "write\\new.txt", "write\\target.txt", "write\\written.txt",
          "read\\by_name.txt", "read\\set.txt", "read\\stolen.txt", "deny\\by_name.txt"})
      each->Write(name, "old");
    std::filesystem::create_directory(each->Path("write\\empty"));
    for (const Change& change : Changes(*each))
      for (std::string command : change.commands) {
        if (const auto at = command.find('@'); at != command.npos) command.replace(at, 1, each->Nt(""));
        each->Add(command);
      }
  }
  const ScriptRun run = script.Run(script.Rules());
  std::vector<std::string> answers;
  std::vector<Audit> audits;
  for (const Change& change : Changes(script)) {
    answers.insert(answers.end(), change.answers.begin(), change.answers.end());
    audits.insert(audits.end(), change.audits.begin(), change.audits.end());
  }
  EXPECT_EQ(run.answers, answers);
  EXPECT_EQ(run.audits, audits);
  EXPECT_FALSE(run.LogLines("SetInformationFile Error 13, Path:").empty());

  const std::vector<host::RecycledFile> bin = host::ListRecycleBin();
  for (const Audit& audit : audits) {
    const auto lies = std::ranges::count_if(bin, [&](const host::RecycledFile& file) {
      return _stricmp(host::ToUtf8(file.original_path).c_str(), audit.source.c_str()) == 0;
    });
    EXPECT_EQ(lies, audit.type == AuditType::kDeleteToRecycle && audit.source != script.Dos("write"))
        << audit.source;
    EXPECT_EQ(std::filesystem::exists(host::ToWide(audit.source)),
              !lies || audit.source == script.Dos("write\\target.txt"))
        << audit.source;
  }
  for (const auto& [name, text] : std::map<std::string, std::string>{{"write\\kept.txt", "old"},
                                                                     {"write\\h.txt", "old"},
                                                                     {"write\\target.txt", "old"},
                                                                     {"read\\f.txt", "old"},
                                                                     {"write\\written.txt", "ne"},
                                                                     {"read\\h.txt", "(none)"},
                                                                     {"deny\\h.txt", "(none)"},
                                                                     {"unlisted.txt", "(none)"},
                                                                     {"write\\stolen.txt", "(none)"}})
    EXPECT_EQ(script.Read(name), text) << name;

  const ScriptRun permitted = control.Run(control.NoRefusals());
  ASSERT_EQ(permitted.answers.size(), answers.size());
  for (std::size_t i = 0; i < answers.size(); ++i)
    EXPECT_TRUE(answers[i] != "C0000022" || permitted.answers[i].starts_with("0"))
        << i << ": " << permitted.answers[i];
  for (const Audit& audit : permitted.audits) EXPECT_EQ(audit.error, 0u) << audit.source;
}

TEST(FileChangeE2E, MovesHappenAtOnceAndUnderTheRules) {
  FileScript script;
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
