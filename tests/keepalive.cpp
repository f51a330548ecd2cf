// Sleeps for half an hour: keeps Wine's services alive between the programs of a test run, and the desktop,
// which Wine would otherwise start as a child of the first program that asks for a window. Says when the
// desktop is there.
#include <windows.h>

#include <cstdio>

int main() {
  if (HMODULE user32 = LoadLibraryW(L"user32.dll"))
    if (auto desktop = reinterpret_cast<HWND(WINAPI*)()>(GetProcAddress(user32, "GetDesktopWindow")))
      desktop();
  std::puts("ready");
  std::fflush(stdout);
  Sleep(30 * 60 * 1000);
  return 0;
}
