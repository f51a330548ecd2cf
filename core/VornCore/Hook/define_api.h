// Defines, in <module>.cpp, what <module>.h declares for a function: its hook entry, dispatcher, registration
// and default operation. Expanded in namespace VornCore.
#pragma once

#include "VornCore/Hook/api_list.h"
#include "VornCore/Hook/hook_entry.h"
#include "VornCore/Hook/hook_table.h"

// LISTENER: the interface; SPACE: the module's namespace; fail, result, api, …: a row of the list.
#define VORN_DEFINE_API(LISTENER, SPACE, fail, result, api, ...)                                       \
  namespace SPACE {                                                                                    \
  static result WINAPI Uninstalled##api(VORN_PARAMETERS(__VA_ARGS__));                                 \
  constinit static HookEntry<LISTENER, result(VORN_PARAMETERS(__VA_ARGS__))> entry_##api{              \
      .bridged = Uninstalled##api};                                                                    \
  static result WINAPI Uninstalled##api(VORN_PARAMETERS(__VA_ARGS__)) {                                \
    return entry_##api.original ? entry_##api.original(VORN_ARGUMENTS(__VA_ARGS__)) : fail();          \
  }                                                                                                    \
  static result WINAPI Hooked##api(VORN_PARAMETERS(__VA_ARGS__)) {                                     \
    return entry_##api.Dispatch<&LISTENER::api>(VORN_ARGUMENTS(__VA_ARGS__));                          \
  }                                                                                                    \
  bool Register##api##Listener(LISTENER* listener) noexcept { return entry_##api.Register(listener); } \
  void Unregister##api##Listener(LISTENER* listener) noexcept { entry_##api.Unregister(listener); }    \
  result CallOriginal##api(VORN_PARAMETERS(__VA_ARGS__)) {                                             \
    return entry_##api.bridged(VORN_ARGUMENTS(__VA_ARGS__));                                           \
  }                                                                                                    \
  }                                                                                                    \
  result LISTENER::api(VORN_PARAMETERS(__VA_ARGS__), bool*) {                                          \
    return SPACE::CallOriginal##api(VORN_ARGUMENTS(__VA_ARGS__));                                      \
  }

// A row of the module's hook table. Expanded in the module's namespace.
#define VORN_TABLE_ROW(import, api)                                                                     \
  {#api, import, reinterpret_cast<void*>(Hooked##api), reinterpret_cast<void**>(&entry_##api.original), \
   reinterpret_cast<void**>(&entry_##api.bridged)},
