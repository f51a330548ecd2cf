// A process that a test starts; what still runs ends with the object.
#pragma once

#include <windows.h>

#include <gtest/gtest.h>

#include <filesystem>
#include <string>

#include "tests/time_scale.h"
#include "vorn/create_process.h"
#include "windows/unique_handle.h"

namespace vorn::test {

// A file for what a program prints.
inline windows::UniqueHandle OutputFile(const std::filesystem::path& path) {
  SECURITY_ATTRIBUTES inherit{sizeof inherit, nullptr, TRUE};
  return windows::UniqueHandle(
      CreateFileW(path.c_str(), GENERIC_READ | GENERIC_WRITE, 7, &inherit, CREATE_ALWAYS, 0, nullptr));
}

class TestProcess {
 public:
  // A test failure when it cannot be started. With an output (an inheritable handle), both output streams go
  // there, and there is no input.
  explicit TestProcess(std::wstring command_line, DWORD flags = 0, HANDLE output = nullptr) {
    STARTUPINFOW startup{};
    startup.cb = sizeof startup;
    const windows::UniqueHandle nothing = OutputFile(L"NUL");
    if (output) startup.dwFlags = STARTF_USESTDHANDLES;
    startup.hStdInput = nothing.get();
    startup.hStdOutput = startup.hStdError = output;
    PROCESS_INFORMATION info{};
    if (!host::CreateProcessWithRetry(nullptr, command_line.data(), output != nullptr, flags, nullptr,
                                      nullptr, &startup, &info))
      ADD_FAILURE() << "no process: error " << GetLastError();
    process_.reset(info.hProcess);
    thread_.reset(info.hThread);
    id_ = info.dwProcessId;
  }
  ~TestProcess() { TerminateProcess(process_.get(), 1); }

  HANDLE handle() const { return process_.get(); }
  DWORD id() const { return id_; }

  // Lets a suspended process run. Its exit code, or ~0 with a test failure when it does not end in time.
  DWORD RunToEnd(DWORD patience_ms = 60'000) const {
    ResumeThread(thread_.get());
    DWORD code = ~0u;
    if (WaitForSingleObject(process_.get(), Scaled(patience_ms)) == WAIT_OBJECT_0)
      GetExitCodeProcess(process_.get(), &code);
    else
      ADD_FAILURE() << "does not end";
    return code;
  }

 private:
  windows::UniqueHandle process_, thread_;
  DWORD id_ = 0;
};

}  // namespace vorn::test
