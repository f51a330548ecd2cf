// Renaming, deleting, writing, closing and moving under rules, in this process.
#include <string>

#include "File/file_helper.h"
#include "File/recycle_bin.h"
#include "Platform/native.h"
#include "file_fixture.h"

namespace VornCore {
namespace {

constexpr NTSTATUS kRefused = STATUS_ACCESS_DENIED;

class FileChange : public FileFixture {
 protected:
  static NTSTATUS Set(HANDLE handle, nt::FileClass number, void* info, ULONG bytes) {
    IO_STATUS_BLOCK io = {};
    const NTSTATUS status =
        NtSetInformationFile(handle, &io, info, bytes, static_cast<FILE_INFORMATION_CLASS>(number));
    if (!nt::Success(status)) {
      EXPECT_EQ(io.Information, 0u);
    }
    return status;
  }
  static NTSTATUS Rename(HANDLE handle, const std::wstring& target, ULONG flags = 0,
                         nt::FileClass number = nt::kFileRenameInformation, HANDLE root = nullptr) {
    auto bytes = RenameBuffer(target, flags, root);
    return Set(handle, number, bytes.data(), static_cast<ULONG>(bytes.size()));
  }
  HANDLE OpenFor(const wchar_t* name, ACCESS_MASK access,
                 ULONG options = FILE_SYNCHRONOUS_IO_NONALERT) const {
    const Opened opened = Create(name, access, FILE_OPEN, options);
    EXPECT_EQ(opened.status, STATUS_SUCCESS);
    return opened.handle;
  }
};

TEST_F(FileChange, DispositionInUnwritableMemoryIsHonoured) {
  static const BOOLEAN kDelete = TRUE;
  HANDLE file = OpenFor(L"\\write\\f.txt", DELETE);
  EXPECT_EQ(Set(file, nt::kFileDispositionInformation, const_cast<BOOLEAN*>(&kDelete), sizeof kDelete),
            STATUS_SUCCESS);
  EXPECT_TRUE(Exists(L"\\write\\f.txt"));
  EXPECT_EQ(NtClose(file), STATUS_SUCCESS);
  EXPECT_FALSE(Exists(L"\\write\\f.txt"));
}

TEST_F(FileChange, DeletionIsSkippedWhileTheLoaderRuns) {
  HANDLE file = OpenFor(L"\\write\\f.txt", DELETE, FILE_DELETE_ON_CLOSE);
  GetThreadState()->bInLoader = 1;
  EXPECT_EQ(NtClose(file), STATUS_SUCCESS);
  GetThreadState()->bInLoader = 0;
  EXPECT_TRUE(Exists(L"\\write\\f.txt"));
}

TEST_F(FileChange, RenameTargetsAreUnderstoodInEveryForm) {
  HANDLE folder = OpenFor(L"\\write", FILE_LIST_DIRECTORY, FILE_DIRECTORY_FILE);
  HANDLE file = OpenFor(L"\\write\\f.txt", DELETE);
  SetRules({{FileACL::kReadWrite, Nt(L"\\write")},
            {FileACL::kRead, Nt(L"\\write\\e.txt")},
            {FileACL::kRead, Nt(L"\\read")}});
  const auto dos = [&](const wchar_t* name) { return L"\\??\\" + Dos(name); };
  const struct {
    std::wstring target;
    nt::FileClass number;
    HANDLE root;
    const wchar_t* becomes;  // null: refused
  } cases[] = {
      {dos(L"\\write\\F.TXT"), nt::kFileRenameInformation, nullptr, L"\\write\\F.TXT"},  // another spelling
      {L"a.txt", nt::kFileRenameInformation, folder, L"\\write\\a.txt"},
      {Nt(L"\\write\\b.txt"), nt::kFileRenameInformation, nullptr, L"\\write\\b.txt"},
      {dos(L"\\write\\c.txt"), nt::kFileRenameInformationEx, nullptr, L"\\write\\c.txt"},
      {Nt(L"\\read\\d.txt"), nt::kFileRenameInformation, nullptr, nullptr},
      {L"e.txt", nt::kFileRenameInformation, nullptr, nullptr},  // in the folder of the file
      {dos(L"\\read\\f.txt"), nt::kFileLinkInformation, nullptr, nullptr},
      {dos(L"\\read\\f.txt"), nt::kFileLinkInformationEx, nullptr, nullptr},
      {dos(L"\\write\\link.txt"), nt::kFileLinkInformation, nullptr, L"\\write\\link.txt"},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(Rename(file, c.target, nt::kRenameReplaceIfExists, c.number, c.root),
              c.becomes ? STATUS_SUCCESS : kRefused)
        << &c - cases;
    EXPECT_EQ(Text(c.becomes ? c.becomes : L"\\read\\f.txt"), "old") << &c - cases;
  }
  NtClose(file);
  NtClose(folder);
}

TEST_F(FileChange, RecycleBinAcceptsFilesAndKeepsThem) {
  const std::wstring bin = L"C:\\$Recycle.Bin",
                     folder = bin + L"\\vorn_test_" + std::to_wstring(GetCurrentProcessId());
  Unconfined([&] {
    CreateDirectoryW(bin.c_str(), nullptr);
    ASSERT_TRUE(CreateDirectoryW(folder.c_str(), nullptr));
  });
  SetRules({{FileACL::kDeny, vorn::host::ToNtPath(bin)}, {FileACL::kReadWrite, Nt(L"\\write")}});
  HANDLE file = OpenFor(L"\\write\\f.txt", DELETE);
  EXPECT_EQ(Rename(file, L"\\??\\" + folder + L"\\f.txt"), STATUS_SUCCESS);
  NtClose(file);
  const Opened inside = Create(L"\\??\\" + folder + L"\\f.txt", GENERIC_READ | DELETE);
  ASSERT_EQ(inside.status, STATUS_SUCCESS);
  EXPECT_EQ(GrantedAccess(inside.handle), static_cast<ACCESS_MASK>(FILE_GENERIC_READ));
  NtClose(inside.handle);
  Unconfined([&] { RemoveTree(folder); });
}

TEST_F(FileChange, MalformedRenameBuffersAreRefusedByTheSystem) {
  const std::wstring target = L"\\??\\" + Dos(L"\\read\\x.txt");
  HANDLE file = OpenFor(L"\\write\\f.txt", DELETE);
  using Change = void (*)(nt::RenameInformation&);
  const Change as_is = [](nt::RenameInformation&) {};
  for (const auto& [change, bytes] : std::initializer_list<std::pair<Change, ULONG>>{
           {as_is, 8},
           {as_is, 24},  // a name that leaves the buffer
           {[](nt::RenameInformation& info) { info.FileNameLength = 0; }, 0},
           {[](nt::RenameInformation& info) { info.FileNameLength = 0xFFFFFFF0; }, 0},
           {[](nt::RenameInformation& info) { info.FileNameLength -= 1; }, 0},  // an odd length
           {[](nt::RenameInformation& info) { info.FileName[0] = 0; }, 0}}) {
    auto buffer = RenameBuffer(target, 0);
    change(*reinterpret_cast<nt::RenameInformation*>(buffer.data()));
    EXPECT_FALSE(nt::Success(Set(file, nt::kFileRenameInformation, buffer.data(),
                                 bytes ? bytes : static_cast<ULONG>(buffer.size()))));
  }
  EXPECT_FALSE(nt::Success(Set(file, nt::kFileRenameInformation, nullptr, 24)));
  for (const auto number :
       {nt::kFileRenameInformation, nt::kFileDispositionInformation, nt::kFileDispositionInformationEx})
    EXPECT_EQ(Set(file, number, reinterpret_cast<void*>(16), 64), STATUS_ACCESS_VIOLATION) << number;
  NtClose(file);
  EXPECT_EQ(Text(L"\\write\\f.txt"), "old");
  EXPECT_FALSE(Exists(L"\\read\\x.txt"));
}

TEST_F(FileChange, TagBitsOfAHandleDoNotHideItsRecord) {
  HANDLE file = OpenFor(L"\\read\\f.txt", DELETE);
  HANDLE tagged = reinterpret_cast<HANDLE>(reinterpret_cast<std::uintptr_t>(file) | 1);
  EXPECT_EQ(Rename(tagged, L"\\??\\" + Dos(L"\\write\\stolen.txt")), kRefused);
  NtClose(file);
}

TEST_F(FileChange, FailedCloseKeepsTheRecord) {
  HANDLE file = OpenFor(L"\\write\\f.txt", GENERIC_READ);
  auto record = GetFileMgr().model().handles().Take(file);
  ASSERT_TRUE(record);
  ASSERT_EQ(NtClose(file), STATUS_SUCCESS);
  GetFileMgr().model().handles().Add(std::move(record));
  EXPECT_EQ(NtClose(file), STATUS_INVALID_HANDLE);
  EXPECT_TRUE(GetFileMgr().model().handles().Take(file)) << "still there";
}

TEST(HandleRecords, OldestOfAHandleIsFoundFirstAndADispositionNeedsDeleteAccess) {
  HandleRecords records;
  HANDLE handle = reinterpret_cast<HANDLE>(0x40);
  records.Add(MakeHandleRecord({.handle = handle, .desired_access = GENERIC_READ}, L"first"));
  records.Add(MakeHandleRecord({.handle = handle}, L"second"));
  records.SetDeleteDisposition(handle, true, false);
  EXPECT_EQ(records.Find(handle)->delete_flags, 0u);
  EXPECT_EQ(records.Find(handle)->path, L"first");
  EXPECT_EQ(records.Take(handle)->path, L"first");
  EXPECT_EQ(records.Take(handle)->path, L"second");
  EXPECT_FALSE(records.Take(handle));
}

}  // namespace
}  // namespace VornCore
