// Injection into real suspended processes, and what the injected DLL finds there.
#include <gtest/gtest.h>
#include <windows.h>

#include <cstring>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "detours/detours.h"
#include "tests/probes/injection_record.h"

namespace {

constexpr DWORD kProbeExit = 42;

std::string Folder() {
  char path[MAX_PATH];
  GetModuleFileNameA(nullptr, path, MAX_PATH);
  return std::string(path, strrchr(path, '\\') - path + 1);
}

std::string Probe(const char* name) { return Folder() + name; }

// A child that was created suspended, with the record that it and the DLL write; ended with the test.
class Child {
 public:
  explicit Child(const std::string& program) {
    STARTUPINFOA startup = {};
    startup.cb = sizeof(startup);
    created_ = CreateProcessA(program.c_str(), nullptr, nullptr, nullptr, FALSE, CREATE_SUSPENDED, nullptr,
                              nullptr, &startup, &info_);
    if (!created_) return;
    wchar_t name[32];
    InjectionRecordName(info_.dwProcessId, name);
    section_ =
        CreateFileMappingW(INVALID_HANDLE_VALUE, nullptr, PAGE_READWRITE, 0, sizeof(InjectionRecord), name);
    record_ = static_cast<InjectionRecord*>(MapViewOfFile(section_, FILE_MAP_WRITE, 0, 0, 0));
  }
  ~Child() {
    if (!created_) return;
    TerminateProcess(info_.hProcess, 1);
    CloseHandle(info_.hThread);
    CloseHandle(info_.hProcess);
    UnmapViewOfFile(record_);
    CloseHandle(section_);
  }

  bool created() const { return created_; }
  HANDLE process() const { return info_.hProcess; }
  DWORD pid() const { return info_.dwProcessId; }
  const InjectionRecord& record() const { return *record_; }

  bool Inject(std::vector<std::string> dlls) const {
    std::vector<LPCSTR> names;
    for (const auto& dll : dlls) names.push_back(dll.c_str());
    return DetourUpdateProcessWithDll(info_.hProcess, names.data(), static_cast<DWORD>(names.size()));
  }

  DWORD RunToEnd() const {
    ResumeThread(info_.hThread);
    DWORD code = STILL_ACTIVE;
    WaitForSingleObject(info_.hProcess, 20'000);
    GetExitCodeProcess(info_.hProcess, &code);
    return code;
  }

 private:
  PROCESS_INFORMATION info_ = {};
  bool created_ = false;
  HANDLE section_ = nullptr;
  InjectionRecord* record_ = nullptr;
};

TEST(Injection, DllRunsBeforeTheProgramAndPutsItsHeaderBack) {
  Child child(Probe("injection_probe.exe"));
  ASSERT_TRUE(child.created());
  ASSERT_TRUE(child.Inject({Probe("injection_dll.dll")})) << GetLastError();
  EXPECT_EQ(child.RunToEnd(), kProbeExit);
  EXPECT_STREQ(child.record().order, "iTM");
  EXPECT_TRUE(child.record().restored);
  EXPECT_FALSE(child.record().restored_again);
  EXPECT_TRUE(child.record().header_is_the_files);
}

TEST(Injection, HelperProcessUpdatesTheTarget) {
  Child child(Probe("injection_probe.exe"));
  ASSERT_TRUE(child.created());
  ASSERT_TRUE(DetourProcessViaHelperW(child.pid(), Probe("injection_dll.dll").c_str(), CreateProcessW))
      << GetLastError();
  EXPECT_EQ(child.RunToEnd(), kProbeExit);
  EXPECT_STREQ(child.record().order, "iTM");
  EXPECT_TRUE(child.record().header_is_the_files);
}

}  // namespace
