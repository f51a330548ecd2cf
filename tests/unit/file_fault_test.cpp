// A process that ends at any of its calls to the system, in the middle of a replacement or a deletion, loses
// nothing: what was there is still there, or kept. A child of this program does the work with the hooks
// installed in itself, on top of hooks of this test that end it at the call whose number it is told.
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>

#include "detours/detours.h"
#include "tests/test_process.h"
#include "tests/unit/file_fixture.h"

namespace VornCore {
namespace {

namespace fs = std::filesystem;

constexpr DWORD kEndedAtCall = 77;

int calls_left;  // 0: not counted

decltype(&::NtCreateFile) real_create = &::NtCreateFile;
decltype(&::NtSetInformationFile) real_set = &::NtSetInformationFile;
decltype(&::NtWriteFile) real_write = &::NtWriteFile;
decltype(&::NtClose) real_close = &::NtClose;

template <auto* real>
struct Counted;
template <class... Arguments, NTSTATUS(NTAPI** real)(Arguments...)>
struct Counted<real> {
  static NTSTATUS NTAPI Call(Arguments... arguments) {
    if (calls_left > 0 && --calls_left == 0) TerminateProcess(GetCurrentProcess(), kEndedAtCall);
    return (*real)(arguments...);
  }
};

std::wstring Variable(const wchar_t* name) {
  wchar_t value[MAX_PATH] = {};
  GetEnvironmentVariableW(name, value, MAX_PATH);
  return value;
}

std::string TextOf(const fs::path& path) {
  std::ifstream file(path, std::ios::binary);
  return file ? std::string(std::istreambuf_iterator<char>(file), {}) : "(none)";
}

bool Keeps(const fs::path& folder, const std::string& text) {
  for (const auto& entry : fs::directory_iterator(folder))
    if (TextOf(entry.path()) == text) return true;
  return false;
}

class FaultPoints : public FileFixture {
 protected:
  static void SetUpTestSuite() {
    DetourTransactionBegin();
    DetourAttach(reinterpret_cast<void**>(&real_create),
                 reinterpret_cast<void*>(&Counted<&real_create>::Call));
    DetourAttach(reinterpret_cast<void**>(&real_set), reinterpret_cast<void*>(&Counted<&real_set>::Call));
    DetourAttach(reinterpret_cast<void**>(&real_write), reinterpret_cast<void*>(&Counted<&real_write>::Call));
    DetourAttach(reinterpret_cast<void**>(&real_close), reinterpret_cast<void*>(&Counted<&real_close>::Call));
    ASSERT_EQ(DetourTransactionCommit(), NO_ERROR);
    FileFixture::SetUpTestSuite();
  }
  void SetUp() override {}
  void TearDown() override {}
};

// The child.
TEST_F(FaultPoints, DISABLED_Act) {
  const std::wstring folder = Variable(L"VORN_FAULT_FOLDER"), act = Variable(L"VORN_FAULT_ACT");
  vorn::host::SectionContents contents;
  contents.options =
      vorn::host::kRunOptions & ~vorn::policy::OptionBits(vorn::policy::SectionOption::kProveHooks);
  contents.run = "fault";
  contents.file_rules = {{FileACL::kReadWrite, vorn::host::ToNtPath(folder)}};
  contents.keep_places = {vorn::policy::KeepFormat::kRecycleBin,
                          {{{}, vorn::host::ToNtPath(folder + L"\\kept")}}};
  const vorn::host::SharedSection section(contents);
  ASSERT_EQ(OpenSharedData(section.name().c_str()), 0u);
  const std::wstring nt = L"\\??\\" + folder;
  calls_left = _wtoi(Variable(L"VORN_FAULT_CALL").c_str());
  if (act == L"replace") {
    const Opened file = Create(nt + L"\\new", DELETE, FILE_OPEN);
    auto info = RenameBuffer(nt + L"\\f.txt", nt::kRenameReplaceIfExists);
    IO_STATUS_BLOCK io;
    EXPECT_EQ(NtSetInformationFile(file.handle, &io, info.data(), static_cast<ULONG>(info.size()),
                                   static_cast<FILE_INFORMATION_CLASS>(nt::kFileRenameInformation)),
              STATUS_SUCCESS);
    NtClose(file.handle);
  } else if (act == L"delete") {
    EXPECT_TRUE(DeleteFileW((folder + L"\\f.txt").c_str()));
  } else {
    NtClose(Create(nt + L"\\f.txt", DELETE | GENERIC_READ, FILE_OPEN,
                   FILE_DELETE_ON_CLOSE | FILE_SYNCHRONOUS_IO_NONALERT)
                .handle);
  }
  calls_left = 0;
}

TEST(NoMoment, LosesWhatWasThere) {
  const fs::path folder = L"C:\\vorn_fault_" + std::to_wstring(GetCurrentProcessId());
  SetEnvironmentVariableW(L"VORN_FAULT_FOLDER", folder.c_str());
  wchar_t self[MAX_PATH];
  GetModuleFileNameW(nullptr, self, MAX_PATH);
  const std::wstring command = L"\"" + std::wstring(self) +
                               L"\" --gtest_also_run_disabled_tests --gtest_filter=FaultPoints.DISABLED_Act";
  for (const std::wstring act : {L"replace", L"delete", L"close"}) {
    SetEnvironmentVariableW(L"VORN_FAULT_ACT", act.c_str());
    DWORD ended = kEndedAtCall;
    int call = 1;
    for (; ended == kEndedAtCall && call < 100; ++call) {
      fs::create_directories(folder / "kept");
      std::ofstream(folder / "f.txt") << "old";
      std::ofstream(folder / "new") << "new";
      SetEnvironmentVariableW(L"VORN_FAULT_CALL", std::to_wstring(call).c_str());
      ended = vorn::test::TestProcess(command).RunToEnd();
      const std::string now = TextOf(folder / "f.txt");
      SCOPED_TRACE(testing::Message() << fs::path(act) << " at call " << call << ": " << now);
      EXPECT_TRUE(now == "old" || Keeps(folder / "kept", "old"));
      EXPECT_TRUE(now == "old" || now == (act == L"replace" ? "new" : "(none)"));
      if (ended != kEndedAtCall) {
        EXPECT_EQ(ended, 0u);
        EXPECT_NE(now, "old");
      }
      fs::remove_all(folder);
    }
    EXPECT_GT(call, 4) << fs::path(act);
  }
}

}  // namespace
}  // namespace VornCore
