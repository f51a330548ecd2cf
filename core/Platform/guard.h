// The two places where processor exceptions are handled.
//
//   DWORD code;
//   if (!Guarded([&] { *untrusted = 1; }, &code)) return static_cast<NTSTATUS>(code);
//
//   // The second part runs also when a fault passes.
//   WithFinally([&] { real_call(); }, [&] { depth -= 1; });
//
// The library is built without C++ exceptions: when a fault leaves a guarded body, destructors of the frames
// that it passes do NOT run. A guarded body therefore holds no object whose destructor must run; what must be
// undone belongs into WithFinally. Any thread may call; guards nest.
#pragma once

#include <windows.h>

#include <type_traits>

extern "C" {
typedef void (*GuardedFn)(void* context);
// Calls fn(context). A structured exception raised inside ends it: false, and *code (optional) is its code.
bool RunGuarded(GuardedFn fn, void* context, DWORD* code);
// Calls fn(context), then fin(context); fin runs also when an exception unwinds past this call.
void RunFinally(GuardedFn fn, void* context, GuardedFn fin);
}

namespace VornCore::platform {

template <class Body>
[[nodiscard]] bool Guarded(Body&& body, DWORD* code = nullptr) {
  using Plain = std::remove_reference_t<Body>;
  return RunGuarded([](void* p) { (*static_cast<Plain*>(p))(); },
                    const_cast<void*>(static_cast<const void*>(&body)), code);
}

template <class Body, class Finally>
void WithFinally(Body&& body, Finally&& finally) {
  struct Both {
    Body* body;
    Finally* finally;
  } both{&body, &finally};
  RunFinally([](void* p) { (*static_cast<Both*>(p)->body)(); }, &both,
             [](void* p) { (*static_cast<Both*>(p)->finally)(); });
}

}  // namespace VornCore::platform
