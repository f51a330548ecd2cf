// A process that a test starts; what still runs ends with the object.
#pragma once

#include <windows.h>

#include <gtest/gtest.h>

#include <string>

#include "tests/time_scale.h"
#include "vorn/create_process.h"
#include "windows/unique_handle.h"

namespace vorn::test {

class TestProcess {
 public:
  // A test failure when it cannot be started. Handles are inherited when startup names standard streams.
  explicit TestProcess(std::wstring command_line, DWORD flags = 0, STARTUPINFOW startup = {}) {
    startup.cb = sizeof startup;
    PROCESS_INFORMATION info{};
    if (!host::CreateProcessWithRetry(nullptr, command_line.data(), startup.dwFlags != 0, flags, nullptr,
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
  DWORD RunToEnd() const {
    ResumeThread(thread_.get());
    DWORD code = ~0u;
    if (WaitForSingleObject(process_.get(), Scaled(60'000)) == WAIT_OBJECT_0)
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
