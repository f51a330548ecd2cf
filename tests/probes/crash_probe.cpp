// Crashes in one way. The ids of the threads that are about to crash go into FILE, one a line.
//
//   crash_probe KIND FILE [ARGUMENT]
//
//   write          writes to address 16
//   thread         the same in a second thread
//   handler        inside an intercepted call
//   overflow       runs out of stack
//   raise CODE     raises the exception code (hexadecimal)
//   together       two threads write at the same moment
//   meanwhile DIR  one thread writes; the other one too, once DIR has a file in it
//   filters        installs two filters of its own, the first of them twice, and then none, then writes
#include <windows.h>
#include <winternl.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

namespace {

constexpr UINT kFilterWasCalled = 77, kFilterWasAccepted = 78;
constexpr DWORD kPatienceMs = 300'000;

const wchar_t* id_file = nullptr;

void RecordThread() {
  // Appending writes of a few bytes do not mix.
  HANDLE file = CreateFileW(id_file, FILE_APPEND_DATA, FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr,
                            OPEN_ALWAYS, 0, nullptr);
  char line[16];
  DWORD written;
  const int length = std::snprintf(line, sizeof line, "%lu\n", GetCurrentThreadId());
  if (file == INVALID_HANDLE_VALUE || !WriteFile(file, line, static_cast<DWORD>(length), &written, nullptr))
    ExitProcess(GetLastError());
  CloseHandle(file);
}

void Write() { *reinterpret_cast<volatile int*>(16) = 1; }

DWORD WINAPI WriteInThread(void*) {
  RecordThread();
  Write();
  return 0;
}

std::atomic<int> ready;

DWORD WINAPI WriteTogether(void*) {
  RecordThread();
  for (++ready; ready < 2;) YieldProcessor();
  Write();
  return 0;
}

DWORD WINAPI WriteOnceThereIsAFile(void* directory) {
  RecordThread();
  const std::wstring pattern = std::wstring(static_cast<const wchar_t*>(directory)) + L"\\*.dmp";
  WIN32_FIND_DATAW found;
  while (FindFirstFileW(pattern.c_str(), &found) == INVALID_HANDLE_VALUE) Sleep(1);
  Write();
  return 0;
}

void RunThreads(LPTHREAD_START_ROUTINE first, LPTHREAD_START_ROUTINE second, wchar_t* argument) {
  HANDLE threads[2];
  DWORD count = 0;
  for (const auto routine : {first, second})
    if (routine) threads[count++] = CreateThread(nullptr, 0, routine, argument, 0, nullptr);
  WaitForMultipleObjects(count, threads, TRUE, kPatienceMs);
}

// The loader reads the name that it is given; what it does not find there is a fault below our handler.
void FaultInIntercepted() {
  using LdrLoadDll = NTSTATUS(WINAPI*)(PWSTR, PULONG, PUNICODE_STRING, PVOID*);
  const auto load =
      reinterpret_cast<LdrLoadDll>(GetProcAddress(GetModuleHandleW(L"ntdll.dll"), "LdrLoadDll"));
  PVOID module;
  load(nullptr, nullptr, reinterpret_cast<PUNICODE_STRING>(16), &module);
}

[[gnu::noinline]] int Overflow(int depth) {
  volatile char page[4096];
  page[0] = static_cast<char>(depth);
  return depth < 0 ? page[0] : Overflow(depth + 1) + page[0];
}

LONG WINAPI OwnFilter(EXCEPTION_POINTERS*) {
  TerminateProcess(GetCurrentProcess(), kFilterWasCalled);
  return EXCEPTION_EXECUTE_HANDLER;
}
LONG WINAPI OtherFilter(EXCEPTION_POINTERS* pointers) { return OwnFilter(pointers) + 1; }

void WriteWithFilters() {
  for (const auto filter : {OwnFilter, OwnFilter, OtherFilter, LPTOP_LEVEL_EXCEPTION_FILTER{}})
    if (SetUnhandledExceptionFilter(filter)) ExitProcess(kFilterWasAccepted);
  Write();
}

}  // namespace

int wmain(int argc, wchar_t** argv) {
  if (argc < 3) return ERROR_INVALID_PARAMETER;
  const std::wstring kind = argv[1];
  id_file = argv[2];
  wchar_t* const argument = argc > 3 ? argv[3] : nullptr;
  if (kind == L"thread") RunThreads(WriteInThread, nullptr, nullptr);
  if (kind == L"together") RunThreads(WriteTogether, WriteTogether, nullptr);
  if (kind == L"meanwhile") RunThreads(WriteInThread, WriteOnceThereIsAFile, argument);
  RecordThread();
  if (kind == L"write") Write();
  if (kind == L"handler") FaultInIntercepted();
  if (kind == L"overflow") return Overflow(0);
  if (kind == L"raise" && argument) RaiseException(std::wcstoul(argument, nullptr, 16), 0, 0, nullptr);
  if (kind == L"filters") WriteWithFilters();
  return ERROR_SUCCESS;
}
