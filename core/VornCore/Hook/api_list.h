// How the rows of the four function lists (api_list_<module>.h) are read.
//
// Each list is the only place where a function's prototype stands. From a row come the operation of the
// listener interface and the declarations of <module>.h, and, in <module>.cpp, the hook entry, the
// dispatcher, the default operation and the row of the hook table.
#pragma once

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

// Operation of a listener interface. *bPassOn is false on entry; an operation that leaves it false has
// decided the call, and its result is what the application sees.
#define VORN_LISTENER_OPERATION(fail, result, api, ...) \
  virtual result api(VORN_PARAMETERS(__VA_ARGS__), bool* bPassOn);

// What <module>.h offers for a function. LISTENER is the module's interface.
//   Register…    false when the listener is registered already or the four slots are taken
//   Unregister…  frees the listener's slot; the next registration takes the lowest free one
//   CallOriginal…  the real function, past the dispatcher
#define VORN_DECLARE_API(LISTENER, result, api, ...)           \
  bool Register##api##Listener(LISTENER* listener) noexcept;   \
  void Unregister##api##Listener(LISTENER* listener) noexcept; \
  result CallOriginal##api(VORN_PARAMETERS(__VA_ARGS__));
