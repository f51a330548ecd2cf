// What Wine spells differently comes out as on Windows.
#include "File/file_helper.h"
#include "Platform/native.h"
#include "Platform/wine_paths.h"
#include "VornCore/Base/process_info.h"
#include "file_fixture.h"

namespace VornCore {
namespace {

class FileWine : public FileFixture {
 protected:
  void SetUp() override {
    if (!platform::IsWine()) GTEST_SKIP() << "this is Windows";
    FileFixture::SetUp();
  }
  void TearDown() override {
    if (platform::IsWine()) FileFixture::TearDown();
  }
  // The Unix path of a file, with forward slashes.
  std::wstring UnixName(const std::wstring& name) const {
    const auto convert = reinterpret_cast<char*(CDECL*)(LPCWSTR)>(
        GetProcAddress(GetModuleHandleW(L"kernel32.dll"), "wine_get_unix_file_name"));
    char* text = convert(Dos(name).c_str());
    std::wstring wide(text, text + strlen(text));
    HeapFree(GetProcessHeap(), 0, text);
    return wide;
  }
  static std::wstring Backslashed(std::wstring path) {
    for (wchar_t& unit : path)
      if (unit == L'/') unit = L'\\';
    return path;
  }
};

TEST_F(FileWine, UnixNamesDoNotGetAroundARule) {
  const std::wstring name = UnixName(L"\\deny\\f.txt");
  const auto spellings = [](const std::wstring& name) {
    return std::vector<std::wstring>{L"\\??\\unix" + name, L"\\??\\unix" + Backslashed(name),
                                     L"\\??\\UNIX" + name, L"\\DosDevices\\unix" + name,
                                     L"\\??\\Z:" + Backslashed(name)};
  };
  for (const std::wstring& spelling : spellings(name))
    EXPECT_EQ(Create(spelling, GENERIC_READ).status, STATUS_ACCESS_DENIED)
        << std::string(spelling.begin(), spelling.end());
  // A way through "..": whatever the system says to the name that was decided, the file stays closed.
  std::wstring detour = name;
  detour.insert(detour.rfind(L"/deny"), L"/write/..");
  EXPECT_NE(Create(L"\\??\\unix" + detour, GENERIC_READ).status, STATUS_SUCCESS);

  for (const std::wstring& spelling : spellings(UnixName(L"\\read\\f.txt"))) {
    const Opened opened = Create(spelling, GENERIC_READ);
    EXPECT_EQ(opened.status, STATUS_SUCCESS) << "the control";
    NtClose(opened.handle);
  }
}

TEST_F(FileWine, NameThatTheSearchCannotFindLowersTheAccess) {
  Unconfined([&] {
    ASSERT_TRUE(CreateDirectoryW(Dos(L"\\elsewhere").c_str(), nullptr));
    ASSERT_TRUE(CreateHardLinkW(Dos(L"\\elsewhere\\f.txt").c_str(), Dos(L"\\write\\f.txt").c_str(), nullptr));
  });
  // Even where the whole volume may be written: nobody knows what the other name is.
  SetRules({{FileACL::kReadWrite, vorn::host::ToNtPath(folder_ + L"\\write")}});
  EXPECT_EQ(GetFileMgr().model().DecideFileACL(Nt(L"\\write\\f.txt")).file.access, FileACL::kRead);
  SetRules({{FileACL::kReadWrite, vorn::host::ToNtPath(folder_)}});
  EXPECT_EQ(GetFileMgr().model().DecideFileACL(Nt(L"\\write\\f.txt")).file.access, FileACL::kReadWrite)
      << "found";
}

}  // namespace
}  // namespace VornCore
