// How a thread's nesting (flags, scratch level, hookDepth) survives handlers, and faults inside handlers.
//
//   NTSTATUS CProcMgr::NtResumeThread(…, bool*) {
//     HookDepthGuard handler;                        // counted, from here to the return
//     …
//     return handler.Real([&] { return Ntdll::CallOriginalNtResumeThread(…); });
//   }
//
// Real functions work on the caller's pointers, and the program may live on after a fault on a bad one. The
// library is built without exceptions, so no destructor runs then: whatever may fault runs inside Real or
// GuardedHandler, which bring back the whole ThreadNesting. Handlers nest: each brings back what it found.
#pragma once

#include <utility>

#include "Platform/guard.h"
#include "VornCore/Base/thread_state.h"

namespace VornCore {

// A thread's nesting, as it was when this object was made. state may be null: nothing is saved then.
class SavedNesting {
 public:
  explicit SavedNesting(ThreadState* state) : state_(state), saved_(state ? *state : ThreadNesting{}) {}
  ThreadState* state() const { return state_; }
  void Restore() const {
    if (state_) static_cast<ThreadNesting&>(*state_) = saved_;
  }

 private:
  ThreadState* const state_;
  const ThreadNesting saved_;
};

// Runs body, which may read memory that it does not trust. A fault ends it, and the thread's nesting is what
// it was before. True when body ran to its end; otherwise *code is the exception code, an NTSTATUS. body
// holds no object whose destructor must run.
template <class Body>
[[nodiscard]] bool GuardedHandler(ThreadState* state, NTSTATUS* code, Body&& body) {
  const SavedNesting nesting(state);
  DWORD exception = 0;
  if (platform::Guarded(std::forward<Body>(body), &exception)) return true;
  nesting.Restore();
  *code = static_cast<NTSTATUS>(exception);
  return false;
}

// Held by every handler for its whole run: counts it in hookDepth, and at its end brings back the nesting
// that it found, so that flags which the handler sets need not be cleared. On a thread without a block it
// does nothing.
class [[nodiscard]] HookDepthGuard {
 public:
  HookDepthGuard() : HookDepthGuard(GetThreadState()) {}
  explicit HookDepthGuard(ThreadState* state) : found_(state) {
    if (state) ++state->hookDepth;
  }
  ~HookDepthGuard() { found_.Restore(); }
  HookDepthGuard(const HookDepthGuard&) = delete;
  HookDepthGuard& operator=(const HookDepthGuard&) = delete;

  ThreadState* state() const { return found_.state(); }

  // Calls call() and returns its result. A fault passes to the program after the handler's end was made up
  // for. call holds no object whose destructor must run.
  template <class Call>
  auto Real(Call&& call) const {
    decltype(call()) result{};
    bool returned = false;
    platform::WithFinally(
        [&] {
          result = call();
          returned = true;
        },
        [&] {
          if (!returned) found_.Restore();
        });
    return result;
  }

 private:
  const SavedNesting found_;
};

}  // namespace VornCore
