// Exports of Windows that are independent of each other, one of which Wine may implement by calling the other
// through its patched export. The inner call of such a pair passes through, so that nothing is decided,
// reported or finished twice.
//
//   using Connect = NestedCall<0, decltype(&::connect), SOCKET_ERROR>;          // a number of its own, a
//   failure using WsaConnect = NestedCall<1, decltype(&::WSAConnect), SOCKET_ERROR>;
//   {"connect", .original = Connect::MarkEntry, .dispatcher = Connect::SkipWhenNested},
//   {"WSAConnect", .original = WsaConnect::MarkCallInto<Connect, [](auto call) { call(INVALID_SOCKET, …);
//   }>},
//
// The real outer function runs with a mark on its thread that names the inner one. The patched inner function
// takes the mark off and goes to the real function; without it, to the dispatcher. Code of the application
// that runs meanwhile (completion routines) finds no mark. Whether the outer function reaches the inner one
// is found out when it is installed, by a call that fails at once: it is marked only if it does.
#pragma once

#include <windows.h>

#include "Platform/guard.h"
#include "Platform/last_error.h"

namespace VornCore::platform::wine {

// The inner function that the thread's outer call is expected to reach; null outside of such calls.
class ThreadMark {
 public:
  static void* Get() {
    LastErrorKeeper keep;
    return TlsGetValue(Index());
  }
  static void Set(void* inner) {
    LastErrorKeeper keep;
    TlsSetValue(Index(), inner);
  }

 private:
  static DWORD Index() {
    static const DWORD index = TlsAlloc();
    return index;
  }
};

template <int id, class Function, auto failure>
struct NestedCall;

// One function of the pairs: as inner, as outer, or both.
template <int id, class Result, class... Args, auto failure>
struct NestedCall<id, Result(WINAPI*)(Args...), failure> {
  using Function = Result(WINAPI*)(Args...);
  inline static Function real = nullptr;  // the trampoline, or the marking wrapper of a function that is both
  inline static Function dispatcher = nullptr;
  inline static char mark = 0, question = 0;  // their addresses name the function

  // Of an inner function: what CallOriginal goes through, and what the patched function leads to.
  static void* MarkEntry(void* original) {
    real = reinterpret_cast<Function>(original);
    return original;
  }
  static void* SkipWhenNested(void* to) {
    dispatcher = reinterpret_cast<Function>(to);
    return reinterpret_cast<void*>(&Entry);
  }

  // Of an outer function: what CallOriginal goes through. kAsk calls the function so that it fails at once.
  template <class Inner, auto kAsk>
  static void* MarkCallInto(void* original) {
    real = Outer<Inner>::trampoline = reinterpret_cast<Function>(original);
    if (Outer<Inner>::Reaches(kAsk)) real = &Outer<Inner>::Call;
    return reinterpret_cast<void*>(real);
  }

 private:
  static Result WINAPI Entry(Args... args) {
    void* const expected = ThreadMark::Get();
    if (expected != &mark && expected != &question) return dispatcher(args...);
    ThreadMark::Set(nullptr);
    return expected == &mark ? real(args...) : static_cast<Result>(failure);
  }

  template <class Inner>
  struct Outer {
    inline static Function trampoline = nullptr;

    static Result WINAPI Call(Args... args) {
      Result result{};
      ThreadMark::Set(&Inner::mark);
      WithFinally([&] { result = trampoline(args...); }, [] { ThreadMark::Set(nullptr); });
      return result;
    }

    template <class Ask>
    static bool Reaches(Ask ask) {
      const LastErrorKeeper keep;
      ThreadMark::Set(&Inner::question);
      (void)Guarded([&] { ask(trampoline); });
      const bool reached = ThreadMark::Get() == nullptr;
      ThreadMark::Set(nullptr);
      return reached;
    }
  };
};

}  // namespace VornCore::platform::wine
