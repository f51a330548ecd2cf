// How the rows of the four function lists (api_list_<module>.h) are read.
//
// Each list is the only place where a function's prototype stands. From a row come the operation of the
// listener interface and the declarations of <module>.h, and, in <module>.cpp, the hook entry, the
// dispatcher, the default operation and the row of the hook table. A manager listens to a function by
// overriding its operation; RegisterOverrides reads that off the class.
#pragma once

#include <type_traits>

// Scans its argument often enough for 16 parameters.
#define VORN_SCAN(...) VORN_SCAN_4(VORN_SCAN_4(VORN_SCAN_4(__VA_ARGS__)))
#define VORN_SCAN_4(...) VORN_SCAN_1(VORN_SCAN_1(VORN_SCAN_1(__VA_ARGS__)))
#define VORN_SCAN_1(...) __VA_ARGS__
#define VORN_PARENS ()

// (int, a, char*, b) -> int a, char* b
#define VORN_PARAMETERS(...) VORN_SCAN(VORN_PARAMETER(__VA_ARGS__))
#define VORN_PARAMETER(type, name, ...) type name __VA_OPT__(, VORN_NEXT_PARAMETER VORN_PARENS(__VA_ARGS__))
#define VORN_NEXT_PARAMETER() VORN_PARAMETER

// (int, a, char*, b) -> a, b
#define VORN_ARGUMENTS(...) VORN_SCAN(VORN_ARGUMENT(__VA_ARGS__))
#define VORN_ARGUMENT(type, name, ...) name __VA_OPT__(, VORN_NEXT_ARGUMENT VORN_PARENS(__VA_ARGS__))
#define VORN_NEXT_ARGUMENT() VORN_ARGUMENT

// What <module>.h offers, expanded in the module's namespace. LIST is the module's list.
//   Listener     the interface: every operation that is not overridden performs the real call and decides it
//   Register…    false when the listener is registered already or the four slots are taken
//   Unregister…  frees the listener's slot; the next registration takes the lowest free one
//   CallOriginal…  the real function, past the dispatcher
//   RegisterOverrides, UnregisterOverrides   the two for every operation that the listener's class overrides
#define VORN_DECLARE_MODULE(LIST)             \
  class Listener {                            \
   public:                                    \
    LIST(VORN_LISTENER_OPERATION)             \
  };                                          \
  LIST(VORN_DECLARE_API)                      \
  template <class Class>                      \
  void RegisterOverrides(Class* listener) {   \
    LIST(VORN_REGISTER_OVERRIDE)              \
  }                                           \
  template <class Class>                      \
  void UnregisterOverrides(Class* listener) { \
    LIST(VORN_UNREGISTER_OVERRIDE)            \
  }

// *bPassOn is false on entry; an operation that leaves it false has decided the call, and its result is what
// the application sees.
#define VORN_LISTENER_OPERATION(fail, result, api, ...) \
  virtual result api(VORN_PARAMETERS(__VA_ARGS__), bool* bPassOn);

#define VORN_DECLARE_API(fail, result, api, ...)               \
  bool Register##api##Listener(Listener* listener) noexcept;   \
  void Unregister##api##Listener(Listener* listener) noexcept; \
  result CallOriginal##api(VORN_PARAMETERS(__VA_ARGS__));

#define VORN_IF_OVERRIDDEN(api) \
  if constexpr (!std::is_same_v<decltype(&Class::api), decltype(&Listener::api)>)
#define VORN_REGISTER_OVERRIDE(fail, result, api, ...) \
  VORN_IF_OVERRIDDEN(api) Register##api##Listener(listener);
#define VORN_UNREGISTER_OVERRIDE(fail, result, api, ...) \
  VORN_IF_OVERRIDDEN(api) Unregister##api##Listener(listener);
