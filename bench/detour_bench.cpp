// What a bare detour costs: a function called plainly, through its patch and trampoline, and through a
// function pointer of its own, which is the least that calling on from a detour can cost. Then the cost of
// patching.
#include <windows.h>

#include <algorithm>
#include <chrono>
#include <cstdio>

#include "detours/detours.h"

namespace {

using Clock = std::chrono::steady_clock;
using Function = int (*)(int);

// One function of several cheap instructions, never inlined, so that all variants do the same work.
#define TARGET(name)                                          \
  __attribute__((noinline, noclone)) int name(int argument) { \
    __asm__ volatile("" : "+r"(argument));                    \
    return argument * 3 + 1;                                  \
  }
TARGET(Plain)
TARGET(Patched)
TARGET(Wrapped)

Function real = Patched;
int Detour(int argument) { return real(argument); }

Function volatile wrapped = Wrapped;
__attribute__((noinline, noclone)) int Wrapper(int argument) { return wrapped(argument); }

double NanosecondsPerCall(Function function) {
  constexpr int kCalls = 500'000;
  Function volatile through = function;  // the compiler must not see through the call
  const auto start = Clock::now();
  int sum = 0;
  for (int i = 0; i < kCalls; ++i) sum += through(i);
  __asm__ volatile("" : : "r"(sum));
  return std::chrono::duration<double, std::nano>(Clock::now() - start).count() / kCalls;
}

LONG Attach() {
  DetourTransactionBegin();
  DetourAttach(reinterpret_cast<void**>(&real), reinterpret_cast<void*>(Detour));
  return DetourTransactionCommit();
}

LONG Detach() {
  DetourTransactionBegin();
  DetourDetach(reinterpret_cast<void**>(&real), reinterpret_cast<void*>(Detour));
  return DetourTransactionCommit();
}

}  // namespace

int main() {
  if (Attach() != NO_ERROR) {
    printf("the function could not be patched\n");
    return 1;
  }
  double plain = 1e9;
  double wrapper = 1e9;
  double patched = 1e9;
  for (int round = 0; round < 30; ++round) {  // in turns, so that all meet the same machine
    plain = std::min(plain, NanosecondsPerCall(Plain));
    wrapper = std::min(wrapper, NanosecondsPerCall(Wrapper));
    patched = std::min(patched, NanosecondsPerCall(Patched));
  }
  printf("plain call              %6.2f ns\n", plain);
  printf("wrapper                 %6.2f ns   %.2f of plain\n", wrapper, wrapper / plain);
  printf("detour and trampoline   %6.2f ns   %.2f of plain, %.2f of the wrapper\n", patched, patched / plain,
         patched / wrapper);
  if (Detach() != NO_ERROR) return 1;

  constexpr int kRounds = 2000;
  const auto start = Clock::now();
  for (int i = 0; i < kRounds; ++i) {
    if (Attach() != NO_ERROR || Detach() != NO_ERROR) return 1;
  }
  printf("attach and detach       %6.2f us, two transactions\n",
         std::chrono::duration<double, std::micro>(Clock::now() - start).count() / kRounds);
  return 0;
}
