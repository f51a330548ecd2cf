// Does one thing with files, modules or child processes and ends with a code that says what came of it: 0 or
// the Win32 error, or the exit code of the child.
//
//   confined              0 when the library is loaded, else 1
//   exit CODE
//   open PATH             opens the file for reading
//   load PATH             loads the module
//   spawn COMMAND…        starts COMMAND and waits for it
//   spawn_env ENTRY COMMAND…   the same with an environment that consists of SystemRoot and ENTRY
//   spawn_twice COMMAND…  the same with a suspended child whose suspend count is raised to 2, so that
//                         it takes two resumes
//   spawn_closed COMMAND… the same, with the process handle closed before the resume
//   spawn_reused COMMAND… the same, with another process opened in its place
//   storm THREADS COUNT COMMAND…   COUNT children from THREADS threads; the number that did not end with 0
#include <windows.h>

#include <atomic>
#include <cstdio>
#include <cstring>
#include <cwchar>
#include <string>
#include <thread>
#include <vector>

#include "vorn/create_process.h"

namespace {

constexpr DWORD kPatienceMs = 100'000;

// What follows the verb and count - 2 arguments in the command line, as it stands there.
std::wstring After(int count) {
  const wchar_t* at = GetCommandLineW();
  for (; count > 0; --count) {
    const wchar_t end = *at == L'"' ? *at++ : L' ';
    while (*at && *at != end) ++at;
    if (*at == L'"') ++at;
    while (*at == L' ') ++at;
  }
  return at;
}

DWORD Start(std::wstring command, DWORD flags, const std::wstring* environment,
            PROCESS_INFORMATION& process) {
  STARTUPINFOW startup{};
  startup.cb = sizeof startup;
  wchar_t* block = environment ? const_cast<wchar_t*>(environment->c_str()) : nullptr;
  return vorn::host::CreateProcessWithRetry(nullptr, command.data(), FALSE,
                                            flags | CREATE_UNICODE_ENVIRONMENT, block, nullptr, &startup,
                                            &process)
             ? NO_ERROR
             : GetLastError();
}

DWORD ExitCode(HANDLE process) {
  DWORD code = ERROR_TIMEOUT;
  if (WaitForSingleObject(process, kPatienceMs) == WAIT_OBJECT_0) GetExitCodeProcess(process, &code);
  return code;
}

DWORD Spawn(const std::wstring& command, const std::wstring* environment = nullptr) {
  PROCESS_INFORMATION process{};
  if (const DWORD error = Start(command, 0, environment, process)) return error;
  if (!process.hProcess) return NO_ERROR;  // started, but nothing to wait for
  return ExitCode(process.hProcess);
}

DWORD SpawnWithEntry(const wchar_t* entry, const std::wstring& command) {
  wchar_t root[MAX_PATH] = {};
  GetEnvironmentVariableW(L"SystemRoot", root, MAX_PATH);
  std::wstring block = std::wstring(L"SystemRoot=") + root + L'\0';
  if (*entry != L'-') block += std::wstring(entry) + L'\0';
  return Spawn(command, &block);
}

// Opens this process until one of the handles has the value.
bool TakeHandleValue(HANDLE value) {
  for (int i = 0; i < 1000; ++i)
    if (OpenProcess(PROCESS_QUERY_LIMITED_INFORMATION, FALSE, GetCurrentProcessId()) == value) return true;
  return false;
}

enum class Resume { kTwice, kClosed, kReused };

DWORD SpawnSuspended(const std::wstring& command, Resume how) {
  PROCESS_INFORMATION process{};
  if (const DWORD error = Start(command, CREATE_SUSPENDED, nullptr, process)) return error;
  if (how == Resume::kTwice) {
    SuspendThread(process.hThread);
    if (ResumeThread(process.hThread) != 2) return ERROR_INVALID_STATE;
    Sleep(2);  // two reports of one millisecond could not be told from one that was sent twice
  } else {
    CloseHandle(process.hProcess);
    if (how == Resume::kReused && !TakeHandleValue(process.hProcess)) return ERROR_INVALID_HANDLE;
  }
  if (ResumeThread(process.hThread) != 1) return ERROR_INVALID_STATE;
  if (how != Resume::kTwice)
    process.hProcess =
        OpenProcess(SYNCHRONIZE | PROCESS_QUERY_LIMITED_INFORMATION, FALSE, process.dwProcessId);
  return process.hProcess ? ExitCode(process.hProcess) : GetLastError();
}

DWORD Storm(int threads, int count, const std::wstring& command) {
  std::atomic<int> left = count;
  std::atomic<DWORD> lost = 0;
  std::vector<std::thread> running;
  for (int i = 0; i < threads; ++i)
    running.emplace_back([&] {
      while (left.fetch_sub(1) > 0) lost += Spawn(command) != 0;
    });
  for (std::thread& thread : running) thread.join();
  return lost;
}

DWORD Open(const wchar_t* path) {
  HANDLE file =
      CreateFileW(path, GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr, OPEN_EXISTING, 0, nullptr);
  return file == INVALID_HANDLE_VALUE ? GetLastError() : (CloseHandle(file), NO_ERROR);
}

}  // namespace

int wmain(int argc, wchar_t** argv) {
  const std::wstring verb = argc > 1 ? argv[1] : L"";
  const wchar_t* first = argc > 2 ? argv[2] : L"";
  if (verb == L"confined") return GetModuleHandleW(L"vorn_core.dll") ? 0 : 1;
  if (verb == L"exit") return static_cast<int>(wcstoul(first, nullptr, 0));
  if (verb == L"open") return static_cast<int>(Open(first));
  if (verb == L"load") return LoadLibraryW(first) ? 0 : static_cast<int>(GetLastError());
  if (verb == L"spawn") return static_cast<int>(Spawn(After(2)));
  if (verb == L"spawn_env") return static_cast<int>(SpawnWithEntry(first, After(3)));
  if (verb == L"spawn_twice") return static_cast<int>(SpawnSuspended(After(2), Resume::kTwice));
  if (verb == L"spawn_closed") return static_cast<int>(SpawnSuspended(After(2), Resume::kClosed));
  if (verb == L"spawn_reused") return static_cast<int>(SpawnSuspended(After(2), Resume::kReused));
  if (verb == L"storm" && argc > 4)
    return static_cast<int>(Storm(static_cast<int>(wcstol(first, nullptr, 10)),
                                  static_cast<int>(wcstol(argv[3], nullptr, 10)), After(4)));
  return ERROR_INVALID_FUNCTION;
}
