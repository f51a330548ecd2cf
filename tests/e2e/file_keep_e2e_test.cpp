// Deletions and replacements that are the system's own, in a really confined process: what the program is
// told is what the same calls answer without us, and what it deleted can be put back.
#include <atomic>
#include <map>
#include <random>
#include <thread>

#include "tests/e2e/file_script.h"
#include "vorn/recycle_bin.h"

namespace vorn::test {
namespace {

constexpr char kOk[] = "0", kRefused[] = "C0000022", kNotEmpty[] = "C0000101", kCannotDelete[] = "C0000121";
constexpr std::uint32_t kForReal = static_cast<std::uint32_t>(policy::SectionOption::kKeepByLink);

using Answers = std::vector<std::string>;

class FileKeepE2E : public testing::Test {
 protected:
  std::string Open(const std::string& name, const char* access, const char* options = "20") const {
    return "create 0 " + std::string(access) + " 1 " + options + " " + script.Nt(name);
  }
  void Rename(const std::string& from, const std::string& to, const char* number = "10") {
    script.Add(Open(from, "10000"));
    script.Add("rename 0 " + std::string(number) + " 1 " + script.Nt(to));
  }
  // Under rules that permit everything.
  ScriptRun RunPermitted() {
    const ScriptRun run = script.Run(script.NoRefusals(), FileScript::kEverythingLogged, kForReal);
    EXPECT_EQ(run.exit_code, 0);
    run_ = run.name;
    return run;
  }
  // What lies in the bin under this origin, by its text.
  std::vector<std::string> Kept(const std::string& name) const {
    std::vector<std::string> texts;
    for (const host::RecycledFile& file : host::ListRecycleBin(run_)) {
      if (_stricmp(host::ToUtf8(file.original_path).c_str(), script.Dos(name).c_str()) != 0) continue;
      std::ifstream stored(std::filesystem::path(file.stored_path), std::ios::binary);
      texts.emplace_back(std::istreambuf_iterator<char>(stored), std::istreambuf_iterator<char>());
    }
    return texts;
  }
  static std::vector<std::string> Deleted(const ScriptRun& run) {
    std::vector<std::string> names;
    for (const Audit& audit : run.audits)
      if (audit.type == AuditType::kDeleteToRecycle) names.push_back(audit.source);
    return names;
  }

  FileScript script;
  std::string run_;
  const std::vector<std::string> kNothing, kOld{"old"};
};

TEST_F(FileKeepE2E, EveryWayOfDeletingKeepsTheFile) {
  const std::vector<std::pair<std::string, std::vector<std::string>>> ways = {
      {"by_name", {"delete "}},
      {"on_close", {"create 0 10000 1 1000 ", "close 0"}},
      {"set", {"create 0 10000 1 20 ", "disposition 0 13 1", "close 0"}},
      {"set_ex", {"create 0 10000 1 20 ", "disposition 0 64 3", "close 0"}},
      {"at_the_end", {"create 1 10000 1 1000 "}},  // the process ends without closing
  };
  std::vector<std::string> reported;
  for (const auto& [name, commands] : ways) {
    script.Write("write\\" + name + ".txt", name);
    for (const std::string& command : commands)
      script.Add(command.ends_with(' ') ? command + script.Nt("write\\" + name + ".txt") : command);
    if (name != "at_the_end") reported.push_back(script.Dos("write\\" + name + ".txt"));
  }
  const ScriptRun run = RunPermitted();
  for (const auto& [name, commands] : ways) {
    EXPECT_EQ(script.Read("write\\" + name + ".txt"), "(none)") << name;
    EXPECT_EQ(Kept("write\\" + name + ".txt"), std::vector<std::string>{name});
  }
  EXPECT_EQ(Deleted(run), reported);
}

TEST_F(FileKeepE2E, WhatTheSystemRefusesStaysAndLeavesNothingBehind) {
  std::filesystem::permissions(script.path() / "read/f.txt", std::filesystem::perms::owner_write,
                               std::filesystem::perm_options::remove);
  script.Add(Open("write", "10000", "1")).Add("disposition 0 13 1").Add("close 0");   // with entries
  script.Add(Open("read\\f.txt", "10000")).Add("disposition 0 13 1").Add("close 0");  // read-only
  script.Add("create 1 80000000 1 20 " + script.Nt("deny\\f.txt"));                   // held open
  Rename("write\\f.txt", "deny\\f.txt");
  script.Add("close 0").Add("close 1");
  // A module that runs.
  std::filesystem::copy_file(BuildPath("vorn_ipc.dll"), script.Path("write\\run.dll"));
  HMODULE module =
      LoadLibraryExW(script.Path("write\\run.dll").c_str(), nullptr, DONT_RESOLVE_DLL_REFERENCES);
  ASSERT_NE(module, nullptr);
  script.Add(Open("write\\run.dll", "10000")).Add("disposition 0 13 1").Add("close 0");
  Rename("write\\f.txt", "write\\run.dll");
  script.Add("close 0");
  Rename("write\\f.txt", "deny");  // a folder
  script.Add("close 0");
  const ScriptRun run = RunPermitted();
  FreeLibrary(module);
  EXPECT_EQ(run.answers, (Answers{kOk,
                                  std::string(kNotEmpty) + " 1",
                                  kOk,
                                  kOk,
                                  std::string(kCannotDelete) + " 1",
                                  kOk,
                                  kOk,
                                  kOk,
                                  kRefused,
                                  kOk,
                                  kOk,
                                  kOk,
                                  std::string(kCannotDelete) + " 1",
                                  kOk,
                                  kOk,
                                  kRefused,
                                  kOk,
                                  kOk,
                                  kRefused,
                                  kOk}));
  EXPECT_TRUE(std::filesystem::exists(script.Path("write\\run.dll")));
  EXPECT_EQ(Kept("write\\run.dll"), kNothing);
  for (const char* name : {"write\\f.txt", "read\\f.txt", "deny\\f.txt"}) {
    EXPECT_EQ(script.Read(name), "old") << name;
    EXPECT_EQ(Kept(name), kNothing) << name;
  }
  EXPECT_EQ(Deleted(run), kNothing);
  std::filesystem::permissions(script.path() / "read/f.txt", std::filesystem::perms::owner_write,
                               std::filesystem::perm_options::add);
}

TEST_F(FileKeepE2E, DeletionsFollowTheHandleAndNotItsOldName) {
  Rename("write\\f.txt", "write\\g.txt");
  script.Add("create 1 40000000 2 20 " + script.Nt("write\\f.txt")).Add("write 1 newer").Add("close 1");
  script.Add("disposition 0 13 1").Add("close 0");
  const ScriptRun run = RunPermitted();
  EXPECT_EQ(script.Read("write\\f.txt"), "newer");
  EXPECT_EQ(script.Read("write\\g.txt"), "(none)");
  EXPECT_EQ(Kept("write\\g.txt"), kOld);
  EXPECT_EQ(Deleted(run), std::vector<std::string>{script.Dos("write\\g.txt")});
}

TEST_F(FileKeepE2E, OnlyWhatWasThereBeforeIsKept) {
  const std::string own = script.Nt("write\\own.txt");
  script.Add("create 0 40010000 2 20 " + own).Add("write 0 mine").Add("close 0").Add("delete " + own);
  script.Add("create 0 40010000 2 1020 " + own).Add("close 0");
  script.Add("create 0 40010000 2 20 " + own)
      .Add("rename 0 10 1 " + script.Nt("write\\moved.txt"))
      .Add("close 0");
  script.Add("delete " + script.Nt("write\\moved.txt"));
  // Another spelling of the same file replaces nothing.
  Rename("write\\f.txt", "write\\F.txt");
  script.Add("close 0");
  // What replaces an old file is new, what it replaced is not.
  script.Add("create 0 40010000 2 20 " + own).Add("rename 0 65 1 " + script.Nt("read\\f.txt")).Add("close 0");
  script.Add("delete " + script.Nt("read\\f.txt"));
  const ScriptRun run = RunPermitted();
  for (const char* name : {"write\\own.txt", "write\\moved.txt", "write\\f.txt"})
    EXPECT_EQ(Kept(name), kNothing) << name;
  EXPECT_EQ(Kept("read\\f.txt"), kOld);
  EXPECT_EQ(Deleted(run), std::vector<std::string>{script.Dos("read\\f.txt")});
}

// The name that the bin gave to the file protects nothing.
TEST_F(FileKeepE2E, WhatIsLeftOfTwoNamesStaysWritable) {
  ASSERT_TRUE(
      CreateHardLinkW(script.Path("read\\twin.txt").c_str(), script.Path("write\\f.txt").c_str(), nullptr));
  script.Add("delete " + script.Nt("write\\f.txt")).Add(Open("read\\twin.txt", "40000000"));
  EXPECT_EQ(RunPermitted().answers, (Answers{kOk, kOk}));
  EXPECT_EQ(Kept("write\\f.txt"), kOld);
}

TEST_F(FileKeepE2E, ADeletionThatIsCalledOffIsNone) {
  script.Add(Open("write\\f.txt", "10000"));
  for (const char* remove : {"1", "0", "1", "0"}) script.Add("disposition 0 13 " + std::string(remove));
  script.Add("close 0");
  const ScriptRun run = RunPermitted();
  EXPECT_EQ(script.Read("write\\f.txt"), "old");
  EXPECT_EQ(Kept("write\\f.txt"), kNothing);
  EXPECT_EQ(Deleted(run), kNothing);
}

TEST_F(FileKeepE2E, AHandleFromElsewhereIsJudgedByItsFile) {
  for (const char* folder : {"read", "write"}) {
    script.Add(Open(std::string(folder) + "\\f.txt", "10000")).Add("duplicate 1 0").Add("close 0");
    script.Add("disposition 1 13 1").Add("rename 1 10 1 " + script.Nt("write\\moved.txt")).Add("close 1");
  }
  const ScriptRun run = script.Run(script.Rules(), FileScript::kEverythingLogged, kForReal);
  EXPECT_EQ(script.Read("read\\f.txt"), "old");
  EXPECT_EQ(run.answers[3], std::string(kRefused) + " 1");
  EXPECT_EQ(run.answers[4], kRefused);
  ASSERT_GE(run.audits.size(), 2u);
  EXPECT_EQ(run.audits[0].type, AuditType::kDelete);
  EXPECT_EQ(run.audits[1].type, AuditType::kRename);
  EXPECT_EQ(run.answers[9], std::string(kOk) + " 1");
}

// Names that a path of the other kind cannot say, or says of another file.
TEST_F(FileKeepE2E, DeletionsMeetTheFileWhateverItsName) {
  const std::string deep = "write\\" + std::string(150, 'a') + "\\" + std::string(150, 'b');
  const auto exact = [&](const std::string& name) { return L"\\\\?\\" + script.Path(name).wstring(); };
  CreateDirectoryW(exact(deep.substr(0, deep.rfind('\\'))).c_str(), nullptr);
  const std::vector<std::string> names = {"write\\con.txt", "write\\dot.", "write\\blank ", "write\\...",
                                          deep};
  for (const std::string& name : names) {
    vorn::windows::UniqueHandle file(
        CreateFileW(exact(name).c_str(), GENERIC_WRITE, 0, nullptr, CREATE_NEW, 0, nullptr));
    DWORD written;
    ASSERT_TRUE(WriteFile(file.get(), "old", 3, &written, nullptr)) << name;
    if (name.ends_with('.'))
      script.Add("delete " + script.Nt(name));
    else
      script.Add(Open(name, "10000")).Add("disposition 0 13 1").Add("close 0");
  }
  script.Write("write\\dot", "another");
  (void)RunPermitted();
  for (const std::string& name : names) {
    EXPECT_EQ(GetFileAttributesW(exact(name).c_str()), INVALID_FILE_ATTRIBUTES) << name;
    EXPECT_EQ(Kept(name), kOld) << name;
  }
  EXPECT_EQ(script.Read("write\\dot"), "another");
  EXPECT_EQ(script.Read("write\\f.txt"), "old");
}

TEST_F(FileKeepE2E, AReplacedFileIsNeverMissing) {
  constexpr int kReplacements = 100;
  for (int i = 0; i < kReplacements; ++i)
    script.Add("create 0 40010000 5 20 " + script.Nt("write\\new"))
        .Add("write 0 new")
        .Add("rename 0 10 1 " + script.Nt("write\\f.txt"))
        .Add("close 0");
  std::atomic<bool> done = false;
  int missing = 0, old_ones = 0, new_ones = 0;
  std::thread reader([&] {
    while (!done) {
      vorn::windows::UniqueHandle file(CreateFileW(script.Path("write\\f.txt").c_str(), GENERIC_READ, 7,
                                                   nullptr, OPEN_EXISTING, 0, nullptr));
      char text[4] = {};
      DWORD bytes;
      if (!file || !ReadFile(file.get(), text, 3, &bytes, nullptr) || !bytes)
        ++missing;
      else
        ++(text == std::string("old") ? old_ones : new_ones);
    }
  });
  (void)RunPermitted();
  done = true;
  reader.join();
  EXPECT_EQ(missing, 0);
  EXPECT_GT(old_ones, 0);
  EXPECT_GT(new_ones, 0);
  EXPECT_EQ(Kept("write\\f.txt"), kOld) << "what the program itself wrote is not kept";
}

// Ended in the middle of replacing and deleting, wherever that is: what was there is still there, or in the
// bin.
TEST_F(FileKeepE2E, AProcessThatEndsAtAnyMomentLosesNothing) {
  std::mt19937 random(std::random_device{}());
  int replaced = 0, deleted = 0;
  for (int round = 0; round < 12; ++round) {
    constexpr int kFiles = 20;
    FileScript work;
    const auto file = [](const char* kind, int i) {
      return std::string("write\\") + kind + std::to_string(i);
    };
    for (int i = 0; i < kFiles; ++i) {
      for (const char* kind : {"replaced", "deleted"}) work.Write(file(kind, i), "old" + std::to_string(i));
      work.Add("create 0 40010000 5 20 " + work.Nt("write\\new")).Add("write 0 new");
      work.Add("rename 0 10 1 " + work.Nt(file("replaced", i))).Add("close 0");
      work.Add("delete " + work.Nt(file("deleted", i)));
    }
    const std::string run = host::RunJournal::NewRunName();
    {
      E2eConfinement host([&](host::SectionContents& section) {
        section.file_rules = work.NoRefusals();
        section.options = host::kRunOptions;
        section.keep_places = host::FindKeepPlaces();
        section.run = run;
      });
      host.RunAndEnd(Probe("file_probe.exe", L"\"" + work.WriteScript().wstring() + L"\" C:\\none none"),
                     std::chrono::milliseconds(300 + random() % 400));
    }
    std::multimap<std::string, std::string> kept;
    for (const host::RecycledFile& each : host::ListRecycleBin(run))
      kept.emplace(std::filesystem::path(each.original_path).filename().string(),
                   ReadLines(each.stored_path).front());
    for (int i = 0; i < kFiles; ++i)
      for (const char* kind : {"replaced", "deleted"}) {
        const std::string now = work.Read(file(kind, i)), old = "old" + std::to_string(i);
        if (now == old) continue;
        EXPECT_EQ(now, kind == std::string("replaced") ? "new" : "(none)");
        const auto found = kept.find(kind + std::to_string(i));
        EXPECT_TRUE(found != kept.end() && found->second == old) << kind << i;
        ++(now == "new" ? replaced : deleted);
      }
  }
  EXPECT_GT(replaced, 0);
  EXPECT_GT(deleted, 0);
}

}  // namespace
}  // namespace vorn::test
