// Defines, in <module>.cpp, what <module>.h declares: per function its hook entry, dispatcher, registration
// and default operation; and kRows, the rows of the module's hook table in the list's order. Expanded in the
// module's namespace.
#pragma once

#include "VornCore/Hook/api_list.h"
#include "VornCore/Hook/hook_entry.h"
#include "VornCore/Hook/hook_table.h"

namespace VornCore {

// HookRow::fallback of a function. A module that has fallbacks hides this by one of its own.
consteval void* const* FallbackOf(std::string_view) { return nullptr; }

}  // namespace VornCore

#define VORN_DEFINE_MODULE(LIST) \
  LIST(VORN_DEFINE_API)          \
  static const HookRow kRows[] = {LIST(VORN_TABLE_ROW)};

#define VORN_DEFINE_API(fail, result, api, ...)                                                        \
  static result WINAPI Uninstalled##api(VORN_PARAMETERS(__VA_ARGS__));                                 \
  constinit static HookEntry<Listener, result(VORN_PARAMETERS(__VA_ARGS__))> entry_##api{              \
      .bridged = Uninstalled##api};                                                                    \
  static result WINAPI Uninstalled##api(VORN_PARAMETERS(__VA_ARGS__)) {                                \
    return entry_##api.original ? entry_##api.original(VORN_ARGUMENTS(__VA_ARGS__)) : fail();          \
  }                                                                                                    \
  static result WINAPI Hooked##api(VORN_PARAMETERS(__VA_ARGS__)) {                                     \
    return entry_##api.Dispatch<&Listener::api>(VORN_ARGUMENTS(__VA_ARGS__));                          \
  }                                                                                                    \
  bool Register##api##Listener(Listener* listener) noexcept { return entry_##api.Register(listener); } \
  void Unregister##api##Listener(Listener* listener) noexcept { entry_##api.Unregister(listener); }    \
  result CallOriginal##api(VORN_PARAMETERS(__VA_ARGS__)) {                                             \
    return entry_##api.bridged(VORN_ARGUMENTS(__VA_ARGS__));                                           \
  }                                                                                                    \
  result Listener::api(VORN_PARAMETERS(__VA_ARGS__), bool*) {                                          \
    return CallOriginal##api(VORN_ARGUMENTS(__VA_ARGS__));                                             \
  }

#define VORN_TABLE_ROW(fail, result, api, ...)      \
  {#api,                                            \
   FallbackOf(#api),                                \
   reinterpret_cast<void*>(Hooked##api),            \
   reinterpret_cast<void**>(&entry_##api.original), \
   reinterpret_cast<void**>(&entry_##api.bridged),  \
   [](void* target) { return entry_##api.Arrives(target); }},
