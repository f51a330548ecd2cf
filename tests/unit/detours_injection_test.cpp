// Injection into real suspended processes, and what the injected DLL finds there.
#include <gtest/gtest.h>
#include <windows.h>

#include <fstream>
#include <iterator>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "build_paths.h"
#include "detours/detours.h"
#include "tests/probes/injection_record.h"
#include "tests/test_process.h"
#include "vorn/create_process.h"

namespace {

constexpr DWORD kProbeExit = 42;

std::string Sibling(const char* name) { return vorn::test::BuildPath(name).string(); }
const std::string kProbe = Sibling("injection_probe.exe"), kBareProbe = Sibling("injection_bare_probe.exe"),
                  kDll = Sibling("injection_dll.dll");

using Headers = IMAGE_NT_HEADERS*;

// A file of this test, gone with it.
class ScratchFile {
 public:
  ScratchFile(const std::string& from, const char* name, void (*change)(Headers) = nullptr)
      : path_(Sibling(name)) {
    std::ifstream in(from, std::ios::binary);
    std::string bytes(std::istreambuf_iterator<char>(in), {});
    if (change) {
      const auto* dos = reinterpret_cast<const IMAGE_DOS_HEADER*>(bytes.data());
      change(reinterpret_cast<Headers>(bytes.data() + dos->e_lfanew));
    }
    std::ofstream(path_, std::ios::binary) << bytes;
  }
  ~ScratchFile() { DeleteFileA(path_.c_str()); }
  const std::string& path() const { return path_; }

 private:
  std::string path_;
};

// The section for what a process records.
class Record {
 public:
  explicit Record(DWORD pid) {
    wchar_t name[32];
    InjectionRecordName(pid, name);
    section_ =
        CreateFileMappingW(INVALID_HANDLE_VALUE, nullptr, PAGE_READWRITE, 0, sizeof(InjectionRecord), name);
    view_ = static_cast<InjectionRecord*>(MapViewOfFile(section_, FILE_MAP_WRITE, 0, 0, 0));
  }
  ~Record() {
    UnmapViewOfFile(view_);
    CloseHandle(section_);
  }
  const InjectionRecord* operator->() const { return view_; }

 private:
  HANDLE section_;
  InjectionRecord* view_;
};

// A child that was created suspended.
class Child : public vorn::test::TestProcess {
 public:
  explicit Child(const std::string& program)
      : TestProcess(L"\"" + std::wstring(program.begin(), program.end()) + L"\"", CREATE_SUSPENDED) {}

  bool Inject(std::vector<LPCSTR> dlls) const { return InjectInto(handle(), std::move(dlls)); }
  static bool InjectInto(HANDLE process, std::vector<LPCSTR> dlls) {
    return DetourUpdateProcessWithDll(process, dlls.data(), static_cast<DWORD>(dlls.size()));
  }

  const Record record{id()};
};

TEST(Injection, DllsRunInOrderBeforeTheProgramAndRestoreItsHeader) {
  const ScratchFile second(kDll, "second_injection.dll");
  Child child(kProbe);
  ASSERT_TRUE(child.Inject({kDll.c_str(), second.path().c_str()})) << GetLastError();
  EXPECT_EQ(child.RunToEnd(), kProbeExit);
  const Record& record = child.record;
  EXPECT_STREQ(record->order, "isTM");
  EXPECT_TRUE(record->restored);
  EXPECT_FALSE(record->restored_again);
  EXPECT_TRUE(record->header_is_the_files);
  EXPECT_EQ(record->header_protection, DWORD{PAGE_READONLY});
}

TEST(Injection, UnusualImportTablesWorkAndComeBack) {
  const struct {
    const std::string& program;
    const char* name;
    void (*change)(Headers);
    const char* order;
  } cases[] = {
      {kProbe, "import_size_zero.exe", [](Headers nt) { nt->OptionalHeader.DataDirectory[1].Size = 0; },
       "iTM"},
      {kProbe, "bound_imports.exe",
       [](Headers nt) {
         nt->OptionalHeader.DataDirectory[11] = {0x3f0, 0x10};
       },
       "iTM"},
      // The linker leaves a directory that names an empty table; the second copy has none at all.
      {kBareProbe, "empty_table.exe", nullptr, "i"},
      {kBareProbe, "no_imports.exe", [](Headers nt) { nt->OptionalHeader.DataDirectory[1] = {}; }, "i"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    const ScratchFile program(c.program, c.name, c.change);
    Child child(program.path());
    ASSERT_TRUE(child.Inject({kDll.c_str()})) << GetLastError();
    EXPECT_EQ(child.RunToEnd(), kProbeExit);
    EXPECT_STREQ(child.record->order, c.order);
    EXPECT_TRUE(child.record->header_is_the_files);
  }
}

TEST(Restoration, ProcessThatWasNotInjectedHasNothingToRestore) { EXPECT_FALSE(DetourRestoreAfterWith()); }

// ---- Helper process ----

// How the next helper is started, and what the DLL records in it.
struct {
  std::wstring program;   // another one than was asked for
  bool injected = false;  // like any child of a confined process
  std::unique_ptr<Record> record;
} helper;

BOOL WINAPI CreateHelper(LPCWSTR image, LPWSTR command, LPSECURITY_ATTRIBUTES, LPSECURITY_ATTRIBUTES,
                         BOOL inherit, DWORD flags, LPVOID environment, LPCWSTR directory,
                         LPSTARTUPINFOW startup, LPPROCESS_INFORMATION info) {
  if (!helper.program.empty()) image = helper.program.c_str();
  if (!vorn::host::CreateProcessWithRetry(image, command, inherit, flags | CREATE_SUSPENDED, environment,
                                          directory, startup, info))
    return FALSE;
  helper.record = std::make_unique<Record>(info->dwProcessId);
  EXPECT_TRUE(!helper.injected || Child::InjectInto(info->hProcess, {kDll.c_str()}));
  ResumeThread(info->hThread);
  return TRUE;
}

TEST(HelperProcess, UpdatesTheTargetAndDoesNothingElse) {
  Child child(kProbe);
  ASSERT_TRUE(DetourProcessViaHelperW(child.id(), kDll.c_str(), CreateHelper)) << GetLastError();
  EXPECT_STREQ((*helper.record)->order, "") << "the DLL must not start up in the helper";
  EXPECT_EQ(child.RunToEnd(), kProbeExit);
  EXPECT_STREQ(child.record->order, "iTM");
  EXPECT_TRUE(child.record->header_is_the_files);
}

TEST(HelperProcess, ErrorsComeBackThroughTheHelper) {
  Child child(kProbe);
  EXPECT_FALSE(DetourProcessViaHelperW(child.id(), "C:\\no\\such.dll", CreateProcessW));
  EXPECT_NE(GetLastError(), DWORD{NO_ERROR});
}

// Whoever starts a process can write an order. Then the DLL, which the process gets like any other, starts up
// in it.
TEST(HelperProcess, OrderForAnotherProgramOrAnotherDllMakesNoHelper) {
  const ScratchFile other(kDll, "another_injection.dll");
  Child child(kProbe);
  helper.injected = true;
  DetourProcessViaHelperW(child.id(), other.path().c_str(), CreateHelper);  // the order names another DLL
  EXPECT_EQ((*helper.record)->order[0], 'i');
  helper.program.assign(kProbe.begin(), kProbe.end());
  DetourProcessViaHelperW(child.id(), kDll.c_str(), CreateHelper);  // another program reads it
  EXPECT_STREQ((*helper.record)->order, "iTM");
}

TEST(HelperProcess, CommandLineAloneMakesNoHelper) {
  wchar_t folder[MAX_PATH];
  GetSystemDirectoryW(folder, MAX_PATH);
  const vorn::test::TestProcess process(L"\"" + std::wstring(folder) + L"\\rundll32.exe\" \"" +
                                            std::wstring(kDll.begin(), kDll.end()) + L"\",#1",
                                        CREATE_SUSPENDED);
  const Record record(process.id());
  process.RunToEnd();
  EXPECT_STREQ(record->order, "i");
}

}  // namespace
