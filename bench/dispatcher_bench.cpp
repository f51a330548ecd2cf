// What the dispatcher adds to an intercepted call, against a bare detour on the same function.
//
// Each function is timed in alternating rounds: plain, behind a bare detour, and behind the hook table with
// no listener and with one that overrides nothing. Medians of the time added per call; the ratio is taken per
// round.
#include <algorithm>
#include <cstdio>
#include <vector>

#include "VornCore/Hook/kernel_base.h"
#include "VornCore/Hook/ws2_32.h"
#include "detours/detours.h"

namespace {

using namespace VornCore;

constexpr int kRounds = 41;
constexpr double kBudget = 2.6;

double SecondsNow() {
  static const double frequency = [] {
    LARGE_INTEGER f;
    QueryPerformanceFrequency(&f);
    return static_cast<double>(f.QuadPart);
  }();
  LARGE_INTEGER now;
  QueryPerformanceCounter(&now);
  return static_cast<double>(now.QuadPart) / frequency;
}

template <class Call>
double NanosecondsPerCall(int calls, Call call) {
  for (int i = 0; i < calls / 10; ++i) call();
  double best = 1e9;
  for (int part = 0; part < 5; ++part) {
    const double start = SecondsNow();
    for (int i = 0; i < calls; ++i) call();
    best = std::min(best, SecondsNow() - start);
  }
  return best * 1e9 / calls;
}

double Median(std::vector<double> values) {
  std::nth_element(values.begin(), values.begin() + values.size() / 2, values.end());
  return values[values.size() / 2];
}

// The detours jump to their trampolines, or call them and return, as a detour does that looks at the result.
template <class Result>
Result Seen(Result result) {
  asm volatile("" : "+r"(result));  // the detour must come back for it
  return result;
}

BOOL(WSAAPI* overlapped_trampoline)(SOCKET, LPWSAOVERLAPPED, LPDWORD, BOOL, LPDWORD);
BOOL WSAAPI JumpingOverlapped(SOCKET s, LPWSAOVERLAPPED overlapped, LPDWORD bytes, BOOL wait, LPDWORD flags) {
  return overlapped_trampoline(s, overlapped, bytes, wait, flags);
}
BOOL WSAAPI CallingOverlapped(SOCKET s, LPWSAOVERLAPPED overlapped, LPDWORD bytes, BOOL wait, LPDWORD flags) {
  return Seen(overlapped_trampoline(s, overlapped, bytes, wait, flags));
}

LPTOP_LEVEL_EXCEPTION_FILTER(WINAPI* filter_trampoline)(LPTOP_LEVEL_EXCEPTION_FILTER);
LPTOP_LEVEL_EXCEPTION_FILTER WINAPI JumpingFilter(LPTOP_LEVEL_EXCEPTION_FILTER filter) {
  return filter_trampoline(filter);
}
LPTOP_LEVEL_EXCEPTION_FILTER WINAPI CallingFilter(LPTOP_LEVEL_EXCEPTION_FILTER filter) {
  return Seen(filter_trampoline(filter));
}

template <class Function, class Call>
double BehindDetour(void* target, Function& trampoline, Function detour, int calls, Call call) {
  trampoline = reinterpret_cast<Function>(target);
  DetourTransactionBegin();
  DetourAttach(reinterpret_cast<void**>(&trampoline), reinterpret_cast<void*>(detour));
  DetourTransactionCommit();
  const double time = NanosecondsPerCall(calls, call);
  DetourTransactionBegin();
  DetourDetach(reinterpret_cast<void**>(&trampoline), reinterpret_cast<void*>(detour));
  DetourTransactionCommit();
  return time;
}

struct KernelBaseTable {
  static void Install() { KernelBase::Init(); }
  static void Remove() { KernelBase::UnInit(); }
};
struct Ws2_32Table {
  static inline HMODULE module;
  static void Install() { Ws2_32::Init(module); }
  static void Remove() { Ws2_32::UnInit(); }
};

template <class Table, class Listener, class Function, class Call>
void Compare(const char* name, void* target, Function& trampoline, Function jumping, Function calling,
             bool (*register_listener)(Listener*) noexcept, void (*unregister_listener)(Listener*) noexcept,
             Call call) {
  constexpr int kCalls = 200'000;
  Listener listener;
  std::vector<double> plain, jump, bare, empty, table, ratio;
  for (int round = 0; round < kRounds; ++round) {
    plain.push_back(NanosecondsPerCall(kCalls, call));
    jump.push_back(BehindDetour(target, trampoline, jumping, kCalls, call) - plain.back());
    bare.push_back(BehindDetour(target, trampoline, calling, kCalls, call) - plain.back());
    Table::Install();
    empty.push_back(NanosecondsPerCall(kCalls, call) - plain.back());
    register_listener(&listener);
    table.push_back(NanosecondsPerCall(kCalls, call) - plain.back());
    unregister_listener(&listener);
    Table::Remove();
    if (bare.back() > 0) ratio.push_back(table.back() / bare.back());
  }
  std::printf(
      "%-28s plain %.2f ns; added by a detour that jumps %.2f, by one that calls %.2f, by the table without "
      "listener %.2f, with one %.2f; ratio to the calling detour %.2f (budget %.1f)\n",
      name, Median(plain), Median(jump), Median(bare), Median(empty), Median(table), Median(ratio), kBudget);
}

}  // namespace

// Functions without system calls, and without bridges on any system.
int main() {
  Ws2_32Table::module = LoadLibraryW(L"ws2_32.dll");
  WSAOVERLAPPED done{};  // completed: the function only copies the count
  DWORD bytes = 0, flags = 0;
  auto overlapped = reinterpret_cast<decltype(overlapped_trampoline)>(
      GetProcAddress(Ws2_32Table::module, "WSAGetOverlappedResult"));
  Compare<Ws2_32Table>("WSAGetOverlappedResult", reinterpret_cast<void*>(overlapped), overlapped_trampoline,
                       JumpingOverlapped, CallingOverlapped, Ws2_32::RegisterWSAGetOverlappedResultListener,
                       Ws2_32::UnregisterWSAGetOverlappedResultListener,
                       [&] { overlapped(0, &done, &bytes, FALSE, &flags); });
  Compare<KernelBaseTable>(
      "SetUnhandledExceptionFilter", reinterpret_cast<void*>(SetUnhandledExceptionFilter), filter_trampoline,
      JumpingFilter, CallingFilter, KernelBase::RegisterSetUnhandledExceptionFilterListener,
      KernelBase::UnregisterSetUnhandledExceptionFilterListener,
      [] { SetUnhandledExceptionFilter(nullptr); });
  return 0;
}
