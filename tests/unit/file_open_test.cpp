// Opening and creating under rules, in this process: what the caller gets, and what is on disk.
#include "file_room.h"

namespace VornCore {
namespace {

constexpr NTSTATUS kRefused = STATUS_ACCESS_DENIED;

class FileOpen : public FileRoom {};

TEST_F(FileOpen, DeniedPathCannotBeOpenedButItsNeighbourCan) {
  const Opened denied = Create(L"\\deny\\f.txt", GENERIC_READ);
  EXPECT_EQ(denied.status, kRefused);
  EXPECT_EQ(denied.io.Status, kRefused);
  EXPECT_EQ(denied.io.Information, 0u);
  EXPECT_EQ(denied.handle, nullptr);
  const Opened allowed = Create(L"\\read\\f.txt", GENERIC_READ);
  EXPECT_EQ(allowed.status, STATUS_SUCCESS);
  EXPECT_EQ(NtClose(allowed.handle), STATUS_SUCCESS);
  SetRules({});
  const Opened control = Create(L"\\deny\\f.txt", GENERIC_READ);
  EXPECT_EQ(control.status, STATUS_SUCCESS) << "without the rule";
  NtClose(control.handle);
}

TEST_F(FileOpen, ReadOnlyPathLosesItsWriteRights) {
  const struct {
    ACCESS_MASK asked, granted;
  } kCases[] = {
      {GENERIC_READ | GENERIC_WRITE, FILE_GENERIC_READ},
      {GENERIC_WRITE, FILE_READ_ATTRIBUTES | SYNCHRONIZE},
      {FILE_APPEND_DATA, FILE_READ_ATTRIBUTES | SYNCHRONIZE},
      {MAXIMUM_ALLOWED, FILE_READ_ATTRIBUTES | SYNCHRONIZE},
      {DELETE, DELETE | SYNCHRONIZE},
  };
  for (const auto& c : kCases) {
    UNICODE_STRING name;
    const std::wstring path = L"\\??\\" + Dos(L"\\read\\f.txt");
    RtlInitUnicodeString(&name, path.c_str());
    OBJECT_ATTRIBUTES attributes = nt::NamedObject(&name);
    IO_STATUS_BLOCK io;
    HANDLE file = nullptr;
    const ACCESS_MASK asked = c.asked == DELETE ? c.asked | SYNCHRONIZE : c.asked;
    ASSERT_EQ(NtCreateFile(&file, asked, &attributes, &io, nullptr, 0, 7, FILE_OPEN, 0, nullptr, 0),
              STATUS_SUCCESS)
        << std::hex << c.asked;
    EXPECT_EQ(GrantedAccess(file), c.granted) << std::hex << c.asked;
    NtClose(file);
  }
}

TEST_F(FileOpen, ReadOnlyPathOpensWhatExistsAndCreatesNothing) {
  const struct {
    const wchar_t* name;
    ULONG disposition;
    NTSTATUS status;
  } kCases[] = {
      {L"\\read\\f.txt", FILE_OPEN, STATUS_SUCCESS},
      {L"\\read\\f.txt", FILE_OPEN_IF, STATUS_SUCCESS},
      {L"\\read\\f.txt", FILE_CREATE, STATUS_SUCCESS},
      {L"\\read\\f.txt", FILE_SUPERSEDE, kRefused},
      {L"\\read\\f.txt", FILE_OVERWRITE, kRefused},
      {L"\\read\\f.txt", FILE_OVERWRITE_IF, kRefused},
      {L"\\read\\new.txt", FILE_OPEN_IF, STATUS_OBJECT_NAME_NOT_FOUND},
      {L"\\read\\new.txt", FILE_CREATE, kRefused},
      {L"\\read\\new.txt", FILE_OVERWRITE_IF, kRefused},
      {L"\\write\\new.txt", FILE_CREATE, STATUS_SUCCESS},
      {L"\\write\\f.txt", FILE_OVERWRITE, STATUS_SUCCESS},
  };
  for (const auto& c : kCases) {
    const Opened opened = Create(c.name, GENERIC_READ | GENERIC_WRITE, c.disposition);
    EXPECT_EQ(opened.status, c.status) << c.disposition;
    if (opened.handle) NtClose(opened.handle);
  }
  EXPECT_EQ(Text(L"\\read\\f.txt"), "old");
  EXPECT_EQ(Text(L"\\read\\new.txt"), "(none)");
  EXPECT_EQ(Text(L"\\write\\f.txt"), "");
  EXPECT_EQ(Text(L"\\write\\new.txt"), "");
}

TEST_F(FileOpen, EverySpellingOfADeniedFileIsDenied) {
  const std::wstring nt = Nt(L"\\deny\\f.txt");
  const std::wstring dos = Dos(L"\\deny\\f.txt");
  std::wstring upper = dos, doubled = dos;
  for (wchar_t& c : upper) c = towupper(c);
  doubled.replace(2, 1, L"\\\\\\");
  wchar_t short_path[MAX_PATH] = {};
  const std::wstring long_name = Dos(L"\\deny\\a long file name.txt");
  Unconfined([&] {
    WriteText(L"\\deny\\a long file name.txt", "x");
    GetShortPathNameW(long_name.c_str(), short_path, MAX_PATH);
  });
  for (const std::wstring& name :
       {L"\\??\\" + dos, L"\\??\\" + upper, L"\\??\\" + doubled, L"\\DosDevices\\" + dos,
        L"\\dosdevices\\\\" + dos, nt, L"\\??\\" + std::wstring(short_path)})
    EXPECT_EQ(Create(name, GENERIC_READ).status, kRefused) << std::string(name.begin(), name.end());
}

TEST_F(FileOpen, RelativeNamesAreJudgedByTheirDirectory) {
  const Opened folder =
      Create(L"", FILE_LIST_DIRECTORY, FILE_OPEN, FILE_DIRECTORY_FILE | FILE_SYNCHRONOUS_IO_NONALERT);
  ASSERT_EQ(folder.status, STATUS_SUCCESS);
  EXPECT_EQ(Create(std::wstring(L"deny\\f.txt"), GENERIC_READ, FILE_OPEN, 0, folder.handle).status, kRefused);
  const Opened allowed = Create(std::wstring(L"write\\f.txt"), GENERIC_WRITE, FILE_OPEN, 0, folder.handle);
  EXPECT_EQ(allowed.status, STATUS_SUCCESS);
  NtClose(allowed.handle);
  NtClose(folder.handle);
}

TEST_F(FileOpen, FileWithAnotherNameInAReadOnlyFolderIsReadOnlyButMayBeDeleted) {
  Unconfined([&] {
    ASSERT_TRUE(CreateHardLinkW(Dos(L"\\write\\both.txt").c_str(), Dos(L"\\read\\f.txt").c_str(), nullptr));
    ASSERT_TRUE(CreateHardLinkW(Dos(L"\\write\\twin.txt").c_str(), Dos(L"\\write\\f.txt").c_str(), nullptr));
  });
  const FileDecision lowered = GetFileMgr().model().DecideFileACL(Nt(L"\\write\\both.txt"));
  EXPECT_EQ(lowered.access, FileACL::kRead);
  EXPECT_EQ(lowered.own_access, FileACL::kReadWrite);
  EXPECT_EQ(GetFileMgr().model().DecideFileACL(Nt(L"\\write\\twin.txt")).access, FileACL::kReadWrite);

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

TEST_F(FileOpen, DeleteOnCloseIsRefusedWhereTheFolderIsReadOnly) {
  EXPECT_EQ(Create(L"\\read\\f.txt", DELETE, FILE_OPEN, FILE_DELETE_ON_CLOSE).status, kRefused);
  EXPECT_TRUE(Exists(L"\\read\\f.txt"));
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

TEST_F(FileOpen, InvalidRuleLeavesItsPathUnconfined) {
  SetRules({{static_cast<FileACL>(7), Nt(L"\\deny")}});
  const Opened opened = Create(L"\\deny\\f.txt", GENERIC_WRITE);
  EXPECT_EQ(opened.status, STATUS_SUCCESS);
  EXPECT_FALSE(GetFileMgr().model().handles().Has(opened.handle));
  NtClose(opened.handle);
}

TEST_F(FileOpen, UnreadableArgumentsEndWithTheExceptionCode) {
  auto* nowhere = reinterpret_cast<void*>(16);
  IO_STATUS_BLOCK io = {};
  HANDLE file = nullptr;
  EXPECT_EQ(NtCreateFile(&file, GENERIC_READ, static_cast<OBJECT_ATTRIBUTES*>(nowhere), &io, nullptr, 0, 7,
                         FILE_OPEN, 0, nullptr, 0),
            STATUS_ACCESS_VIOLATION);
  EXPECT_EQ(io.Status, STATUS_ACCESS_VIOLATION);
  UNICODE_STRING name{20, 20, static_cast<wchar_t*>(nowhere)};
  OBJECT_ATTRIBUTES attributes = nt::NamedObject(&name);
  EXPECT_EQ(NtCreateFile(&file, GENERIC_READ, &attributes, static_cast<IO_STATUS_BLOCK*>(nowhere), nullptr, 0,
                         7, FILE_OPEN, 0, nullptr, 0),
            STATUS_ACCESS_VIOLATION);
}

TEST_F(FileOpen, CheckOffSwitchesConfinementOff) {
  SetRules({{FileACL::kDeny, Nt(L"\\deny")}}, vorn::policy::kFlagFileCreateCheckOff);
  const Opened opened = Create(L"\\deny\\f.txt", GENERIC_WRITE);
  EXPECT_EQ(opened.status, STATUS_SUCCESS);
  EXPECT_FALSE(GetFileMgr().model().handles().Has(opened.handle));
  NtClose(opened.handle);
}

}  // namespace
}  // namespace VornCore
