// From names to canonical paths and back.
#include "File/drive_table.h"
#include "File/file_helper.h"
#include "File/file_link_helper.h"
#include "File/object_link.h"
#include "Platform/native.h"
#include "VornCore/Base/strings.h"
#include "file_fixture.h"

extern "C" NTSYSAPI NTSTATUS NTAPI NtOpenDirectoryObject(PHANDLE, ACCESS_MASK, POBJECT_ATTRIBUTES);

namespace VornCore {
namespace {

class FilePath : public FileFixture {
 protected:
  static void SetUpTestSuite() {
    FileFixture::SetUpTestSuite();
    real_ = platform::Native();
  }
  void TearDown() override {
    platform::Native() = real_;
    FileFixture::TearDown();
  }

  struct Result {
    NTSTATUS status;
    std::wstring path;
  };
  static Result PathOf(const std::wstring& name, HANDLE root = nullptr) {
    UNICODE_STRING text = nt::CountedString(name.data(), name.size() * sizeof(wchar_t));
    ScratchLevel level(GetThreadState());
    std::wstring_view path;
    const NTSTATUS status = GetPath(root, &text, &path);
    EXPECT_TRUE(nt::Success(status) || path.empty());
    EXPECT_TRUE(path.empty() || path.data()[path.size()] == 0) << "terminated";
    return {status, std::wstring(path)};
  }
  static std::wstring DosOf(std::wstring path) {
    path.push_back(0);
    return NtPathToDosPath(path.data()) ? path.c_str() : L"";
  }
  static std::wstring C(const wchar_t* rest) {
    return std::wstring(GetDriveForLetter(L'C')->device_path) + rest;
  }

  static inline platform::NativeApi real_;
};

std::string Narrow(const std::wstring& text) { return std::string(text.begin(), text.end()); }

TEST_F(FilePath, NamesBecomeCanonicalPaths) {
  const struct {
    std::wstring name;
    NTSTATUS status;
    std::wstring path;
  } kCases[] = {
      {L"\\??\\C:\\Windows\\x", 0, C(L"\\Windows\\x")},
      {L"\\??\\c:\\Windows\\x", 0, C(L"\\Windows\\x")},
      {L"\\??\\C:", 0, C(L"")},
      {L"\\??\\C:\\", 0, C(L"\\")},
      {C(L"\\\\a\\\\\\b"), 0, C(L"\\a\\b")},
      {C(L"\\a"), 0, C(L"\\a")},
      {L"\\DosDevices\\C:\\a", 0, C(L"\\a")},
      {L"\\??\\UNC\\srv\\share\\f", 0, L"\\Device\\Mup\\srv\\share\\f"},
      {L"\\??\\unc\\srv\\share\\f", 0, L"\\Device\\Mup\\srv\\share\\f"},
      {L"\\Device\\Mup\\srv\\share\\f", 0, L"\\Device\\Mup\\srv\\share\\f"},
      {L"\\??\\Q:\\x", STATUS_OBJECT_PATH_NOT_FOUND, L""},
      {L"\\??\\1:\\x", STATUS_OBJECT_PATH_NOT_FOUND, L""},
      {L"", STATUS_INVALID_PARAMETER, L""},
      {L"\\??\\pipe\\x", STATUS_OBJECT_PATH_SYNTAX_BAD, L""},
      {L"\\Device\\NamedPipe\\x", STATUS_OBJECT_PATH_SYNTAX_BAD, L""},
      {L"\\DosDevices\\Global\\nothing", STATUS_OBJECT_PATH_SYNTAX_BAD, L""},
      {L"relative\\name", STATUS_OBJECT_PATH_SYNTAX_BAD, L""},
      {L"\\", STATUS_OBJECT_PATH_SYNTAX_BAD, L""},
  };
  platform::NativeApi& native = platform::Native();
  native.NtQueryObject = nullptr;
  native.NtOpenSymbolicLinkObject = nullptr;
  native.NtQueryFullAttributesFile = nullptr;
  native.AliasTarget = nullptr;
  for (const auto& c : kCases) {
    if (&c == kCases + 6) native = real_;  // those before need no system call
    const Result result = PathOf(c.name);
    EXPECT_EQ(result.status, c.status) << Narrow(c.name);
    EXPECT_EQ(result.path, c.path) << Narrow(c.name);
  }
}

TEST_F(FilePath, HandlesNameTheirFileAndWhatLiesBelow) {
  const Opened folder = Create(L"\\write", FILE_LIST_DIRECTORY, FILE_OPEN, FILE_DIRECTORY_FILE);
  const Opened file = Create(L"\\write\\f.txt", GENERIC_READ);
  EXPECT_EQ(PathOf(L"", folder.handle).path, Nt(L"\\write"));
  EXPECT_EQ(PathOf(L"new\\\\f.txt", folder.handle).path, Nt(L"\\write\\new\\f.txt"));
  EXPECT_EQ(PathOf(L":stream", file.handle).path, Nt(L"\\write\\f.txt") + L":stream");
  NtClose(folder.handle);
  NtClose(file.handle);

  HANDLE event = CreateEventW(nullptr, TRUE, FALSE, nullptr);
  EXPECT_EQ(PathOf(L"x", event).status, STATUS_OBJECT_PATH_SYNTAX_BAD) << "an object without a name";
  CloseHandle(event);
  EXPECT_EQ(PathOf(L"x", reinterpret_cast<HANDLE>(0x7FFC)).status, STATUS_INVALID_HANDLE);

  UNICODE_STRING text = nt::CountedString(L"\\??", 3 * sizeof(wchar_t));
  OBJECT_ATTRIBUTES attributes = nt::NamedObject(&text);
  HANDLE drives;
  constexpr ACCESS_MASK kQueryAndTraverse = 3;
  ASSERT_EQ(NtOpenDirectoryObject(&drives, kQueryAndTraverse, &attributes), STATUS_SUCCESS);
  EXPECT_EQ(PathOf(L"C:\\a", drives).path, C(L"\\a"));
  EXPECT_EQ(PathOf(L"no such link", drives).status, STATUS_OBJECT_PATH_SYNTAX_BAD);
  NtClose(drives);
}

TEST_F(FilePath, LongHandleNamesAreQueriedAgainWithMoreRoom) {
  platform::Native().NtQueryObject = [](HANDLE, OBJECT_INFORMATION_CLASS, PVOID info, ULONG bytes,
                                        PULONG returned) -> NTSTATUS {
    constexpr std::size_t kUnits = 9000;
    *returned = sizeof(UNICODE_STRING) + (kUnits + 1) * sizeof(wchar_t);
    if (bytes < *returned) return STATUS_BUFFER_OVERFLOW;
    auto* text = reinterpret_cast<wchar_t*>(static_cast<UNICODE_STRING*>(info) + 1);
    std::fill_n(text, kUnits, L'a');
    memcpy(text, L"\\Device\\", 16);
    *static_cast<UNICODE_STRING*>(info) = nt::CountedString(text, kUnits * sizeof(wchar_t));
    return STATUS_SUCCESS;
  };
  const Result result = PathOf(L"tail", reinterpret_cast<HANDLE>(4));
  EXPECT_EQ(result.status, STATUS_SUCCESS);
  EXPECT_EQ(result.path.size(), 9005u);
  EXPECT_TRUE(result.path.ends_with(L"a\\tail"));
}

TEST_F(FilePath, LoopOfLinksEnds) {
  platform::NativeApi& native = platform::Native();
  native.NtOpenSymbolicLinkObject = [](PHANDLE link, ACCESS_MASK, POBJECT_ATTRIBUTES) -> NTSTATUS {
    *link = CreateEventW(nullptr, FALSE, FALSE, nullptr);
    return STATUS_SUCCESS;
  };
  native.NtQuerySymbolicLinkObject = [](HANDLE, PUNICODE_STRING target, PULONG bytes) -> NTSTATUS {
    constexpr std::wstring_view kSelf = L"\\loop";
    if (bytes) *bytes = static_cast<ULONG>((kSelf.size() + 1) * sizeof(wchar_t));
    if (target->MaximumLength < kSelf.size() * sizeof(wchar_t)) return STATUS_BUFFER_TOO_SMALL;
    memcpy(target->Buffer, kSelf.data(), kSelf.size() * sizeof(wchar_t));
    target->Length = static_cast<USHORT>(kSelf.size() * sizeof(wchar_t));
    return STATUS_SUCCESS;
  };
  EXPECT_EQ(PathOf(L"\\loop\\x").status, STATUS_OBJECT_PATH_SYNTAX_BAD);
}

TEST_F(FilePath, ShortNamesAreExpandedWhereTheyNameSomething) {
  Unconfined([&] {
    WriteText(L"\\read\\a long file name.txt", "x");
    ASSERT_TRUE(CreateDirectoryW(Dos(L"\\read\\a long folder").c_str(), nullptr));
  });
  wchar_t file[MAX_PATH], folder[MAX_PATH];
  ASSERT_TRUE(GetShortPathNameW(Dos(L"\\read\\a long file name.txt").c_str(), file, MAX_PATH));
  ASSERT_TRUE(GetShortPathNameW(Dos(L"\\read\\a long folder").c_str(), folder, MAX_PATH));
  ASSERT_TRUE(wcschr(file, L'~') && wcschr(folder, L'~'));
  EXPECT_EQ(PathOf(std::wstring(L"\\??\\") + file).path, Nt(L"\\read\\a long file name.txt"));
  EXPECT_EQ(PathOf(std::wstring(L"\\??\\") + folder + L"\\~tmp").path,
            Nt(L"\\read\\a long folder") + L"\\~tmp");
  for (const wchar_t* rest : {L"\\no~such", L"\\A~B.C.D", L"\\thirteen~unit"})
    EXPECT_EQ(PathOf(L"\\??\\C:" + std::wstring(rest)).path, C(rest));

  wchar_t temp[MAX_PATH];
  ASSERT_TRUE(GetEnvironmentVariableW(L"TMP", temp, MAX_PATH));
  SetEnvironmentVariableW(L"TMP", folder);
  InitFileHelper();
  SetEnvironmentVariableW(L"TMP", temp);
  EXPECT_TRUE(IsTempPath(Nt(L"\\read\\a long folder") + L"\\x"));
  InitFileHelper();
}

TEST_F(FilePath, PathsGoToDosFormAndBack) {
  EXPECT_EQ(DosOf(C(L"\\a\\b.txt")), L"C:\\a\\b.txt");
  EXPECT_EQ(DosOf(C(L"")), L"C:");
  EXPECT_EQ(DosOf(L"\\Device\\Mup\\srv\\share\\f"), L"\\\\srv\\share\\f");
  EXPECT_EQ(DosOf(C(L"0\\a")), L"") << "another volume whose number begins alike";
  EXPECT_STREQ(DosPathToNtPath(L"\\\\srv\\share\\f").get(), L"\\device\\mup\\srv\\share\\f");
  EXPECT_EQ(DosPathToNtPath(L"c:\\a").get(), C(L"\\a"));
  for (const wchar_t* none : {L"", L"C:", L"Q:\\x", L"a\\b", L"C:a"}) EXPECT_FALSE(DosPathToNtPath(none));
}

TEST_F(FilePath, WebDavPathsNameTheirRootOnce) {
  const auto insert = [](const wchar_t* path) {
    wchar_t buffer[100];
    wcscpy(buffer, path);
    return std::wstring(InsertDavRoot(buffer, buffer, 99));
  };
  EXPECT_EQ(insert(L"\\device\\mup\\server\\share\\f"), L"\\device\\mup\\server\\davwwwroot\\share\\f");
  EXPECT_EQ(insert(L"\\Device\\Mup\\server\\DavWWWRoot\\share"), L"\\Device\\Mup\\server\\DavWWWRoot\\share");
  EXPECT_EQ(insert(L"\\device\\mup\\server"), L"\\device\\mup\\server");
  EXPECT_EQ(insert(L"\\device\\harddiskvolume1\\a\\b"), L"\\device\\harddiskvolume1\\a\\b");
}

}  // namespace
}  // namespace VornCore
