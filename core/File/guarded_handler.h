// How handlers survive processor exceptions. Destructors of the frames that an exception passes do not run,
// so what a handler changes in its thread's state is put back here.
#pragma once

#include <utility>

#include "Platform/guard.h"
#include "VornCore/Base/thread_state.h"

namespace VornCore {

// Runs the part of a handler that reads memory of the caller; a fault ends it, and nesting counters and flags
// are what they were before. True when body ran to its end; otherwise *code is the exception code, an
// NTSTATUS. body holds no object whose destructor must run.
template <class Body>
[[nodiscard]] bool GuardedHandler(ThreadState* state, NTSTATUS* code, Body&& body) {
  const auto level = state ? state->scratchLevel : 0;
  const auto depth = state ? state->hookDepth : 0;
  const auto in_create = state ? state->bInCreateFile : 0;
  const auto in_write = state ? state->bInWriteFile : 0;
  const auto own_call = state ? state->bOwnCall : 0;
  DWORD exception = 0;
  if (platform::Guarded(std::forward<Body>(body), &exception)) return true;
  *code = static_cast<NTSTATUS>(exception);
  if (!state) return false;
  state->scratchLevel = level;
  state->hookDepth = depth;
  state->bInCreateFile = in_create;
  state->bInWriteFile = in_write;
  state->bOwnCall = own_call;
  return false;
}

// Runs a handler whose real call may let an exception pass to the program, counted in hookDepth.
template <class Body>
void CountedHandler(ThreadState* state, Body&& body) {
  if (state) ++state->hookDepth;
  platform::WithFinally(std::forward<Body>(body), [state] {
    if (state) --state->hookDepth;
  });
}

}  // namespace VornCore
