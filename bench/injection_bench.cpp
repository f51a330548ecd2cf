// What injection adds to the start of a process: a probe from creation to exit, plain and with a small DLL in
// front, by turns; and the update alone. Prints the medians' ratio and microseconds.
#include <windows.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "detours/detours.h"

namespace {

constexpr int kRounds = 60;

double Microseconds() {
  LARGE_INTEGER now, frequency;
  QueryPerformanceCounter(&now);
  QueryPerformanceFrequency(&frequency);
  return static_cast<double>(now.QuadPart) * 1e6 / static_cast<double>(frequency.QuadPart);
}

std::string Sibling(const char* name) {
  char path[MAX_PATH];
  GetModuleFileNameA(nullptr, path, MAX_PATH);
  return std::string(path, strrchr(path, '\\') - path + 1) + name;
}

double Median(std::vector<double> values) {
  std::nth_element(values.begin(), values.begin() + static_cast<long>(values.size() / 2), values.end());
  return values[values.size() / 2];
}

struct Run {
  double whole = 0, update = 0;
  bool ok = false;
};

Run RunProbe(const std::string& program, const char* dll) {
  Run run;
  STARTUPINFOA startup = {};
  startup.cb = sizeof(startup);
  PROCESS_INFORMATION info;
  const double start = Microseconds();
  if (!CreateProcessA(program.c_str(), nullptr, nullptr, nullptr, FALSE, CREATE_SUSPENDED, nullptr, nullptr,
                      &startup, &info)) {
    return run;
  }
  run.ok = true;
  if (dll) {
    const double before = Microseconds();
    run.ok = DetourUpdateProcessWithDll(info.hProcess, &dll, 1);
    run.update = Microseconds() - before;
  }
  ResumeThread(info.hThread);
  WaitForSingleObject(info.hProcess, 20'000);
  run.whole = Microseconds() - start;
  DWORD code = 0;
  run.ok = run.ok && GetExitCodeProcess(info.hProcess, &code) && code == 42;
  CloseHandle(info.hThread);
  CloseHandle(info.hProcess);
  return run;
}

}  // namespace

int main() {
  const std::string program = Sibling("injection_probe.exe"), dll = Sibling("injection_dll.dll");
  std::vector<double> plain, injected, update;
  for (int i = 0; i < kRounds; ++i) {
    const Run a = RunProbe(program, nullptr), b = RunProbe(program, dll.c_str());
    if (!a.ok || !b.ok) {
      printf("a probe failed in round %d\n", i);
      return 1;
    }
    plain.push_back(a.whole);
    injected.push_back(b.whole);
    update.push_back(b.update);
  }
  printf("start to exit  plain %.0f us  injected %.0f us  ratio %.2f\n", Median(plain), Median(injected),
         Median(injected) / Median(plain));
  printf("update alone   %.0f us\n", Median(update));

  constexpr int kCalls = 10'000'000;
  const double before = Microseconds();
  int helpers = 0;
  for (int i = 0; i < kCalls; ++i) helpers += DetourIsHelperProcess();
  printf("helper test    %.1f ns a call\n", (Microseconds() - before) * 1000 / kCalls + helpers);
  return 0;
}
