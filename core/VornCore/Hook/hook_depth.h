// Counting a handler in the thread's hookDepth when the real function may raise a fault that is not ours to
// catch: the library is built without exceptions, so the destructor of a HookDepthGuard would not run then.
#pragma once

#include "Platform/guard.h"
#include "VornCore/Base/thread_state.h"

namespace VornCore {

// Calls body() with hookDepth counted, and returns its result. The depth comes back in every case. body holds
// no object whose destructor must run when a fault passes. state may be null.
template <class Body>
auto WithHookDepth(ThreadState* state, Body body) {
  decltype(body()) result{};
  if (state) ++state->hookDepth;
  platform::WithFinally([&] { result = body(); },
                        [&] {
                          if (state) --state->hookDepth;
                        });
  return result;
}

}  // namespace VornCore
