// Opening and creating under rules, in this process: what the caller gets, and what is on disk.
#include "file_fixture.h"

namespace VornCore {
namespace {

constexpr NTSTATUS kRefused = STATUS_ACCESS_DENIED;

class FileOpen : public FileFixture {};

TEST_F(FileOpen, SecondNameInAReadOnlyFolderMakesAFileReadOnly) {
  Unconfined([&] {
    ASSERT_TRUE(CreateHardLinkW(Dos(L"\\write\\both.txt").c_str(), Dos(L"\\read\\f.txt").c_str(), nullptr));
    ASSERT_TRUE(CreateHardLinkW(Dos(L"\\write\\twin.txt").c_str(), Dos(L"\\write\\f.txt").c_str(), nullptr));
  });
  const FileDecision lowered = GetFileMgr().model().DecideFileACL(Nt(L"\\write\\both.txt"));
  EXPECT_EQ(lowered.file.access, FileACL::kRead);
  EXPECT_EQ(lowered.named.access, FileACL::kReadWrite);
  EXPECT_EQ(GetFileMgr().model().DecideFileACL(Nt(L"\\write\\twin.txt")).file.access, FileACL::kReadWrite);

  EXPECT_EQ(Create(L"\\write\\both.txt", GENERIC_WRITE, FILE_OVERWRITE).status, kRefused);
  const Opened opened = Create(L"\\write\\both.txt", DELETE | GENERIC_WRITE, FILE_OPEN, FILE_DELETE_ON_CLOSE);
  ASSERT_EQ(opened.status, STATUS_SUCCESS);
  const auto record = GetFileMgr().model().handles().Take(opened.handle);
  ASSERT_TRUE(record);
  EXPECT_EQ(record->delete_flags, kDeleteOnClose);
  EXPECT_FALSE(record->desired_access & GENERIC_WRITE);
  NtClose(opened.handle);
  EXPECT_EQ(Text(L"\\read\\f.txt"), "old");
}

TEST_F(FileOpen, StreamIsNoWayAroundTheRuleOfItsFile) {
  SetRules({{FileACL::kReadWrite, Nt(L"\\write")}, {FileACL::kDeny, Nt(L"\\write\\f.txt")}});
  EXPECT_EQ(Create(L"\\write\\f.txt:notes", GENERIC_WRITE, FILE_OPEN_IF).status, kRefused);
  EXPECT_EQ(GetFileMgr().model().DecideFileACL(Nt(L"\\write\\g.txt:notes")).file.access, FileACL::kReadWrite);
}

TEST_F(FileOpen, TempDirectoryIsWritableWhateverTheRulesSay) {
  wchar_t temp[MAX_PATH];
  GetTempPathW(MAX_PATH, temp);
  const std::wstring file = std::wstring(temp) + L"vorn_open_test.txt";
  SetRules({{FileACL::kDeny, vorn::host::ToNtPath(temp)}});
  const Opened opened = Create(L"\\??\\" + file, GENERIC_WRITE, FILE_OVERWRITE_IF);
  EXPECT_EQ(opened.status, STATUS_SUCCESS);
  NtClose(opened.handle);
  Unconfined([&] { DeleteFileW(file.c_str()); });
}

TEST_F(FileOpen, DevicesAndPipesAreNotConfined) {
  SetRules({{FileACL::kDeny, L"\\Device"}});
  const Opened null = Create(std::wstring(L"\\??\\NUL"), GENERIC_WRITE);
  EXPECT_EQ(null.status, STATUS_SUCCESS);
  NtClose(null.handle);
  HANDLE pipe =
      CreateNamedPipeW(L"\\\\.\\pipe\\vorn_file_open", PIPE_ACCESS_DUPLEX, 0, 1, 64, 64, 0, nullptr);
  ASSERT_NE(pipe, INVALID_HANDLE_VALUE);
  const Opened client = Create(std::wstring(L"\\??\\pipe\\vorn_file_open"), GENERIC_READ | GENERIC_WRITE);
  EXPECT_EQ(client.status, STATUS_SUCCESS);
  NtClose(client.handle);
  NtClose(pipe);
}

}  // namespace
}  // namespace VornCore
