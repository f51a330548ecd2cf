// The mechanics of a hook table: one interception transaction over the functions of a module.
//
// Install and removal run on the calling thread, which is the only one that the transaction enlists. A
// function that cannot be found is left out; one that cannot be patched fails the transaction, and none of
// the table's functions is patched. Neither is an error in a plain section: calls then reach the real
// functions. With the option kProveHooks every function that was found is called once, as a program would
// call it, and a call that does not arrive ends the process with an exit code that names the function.
#pragma once

#include <cstdint>
#include <span>
#include <string_view>

#include "Policy/exit_code.h"
#include "windows/nt.h"

namespace VornCore {

struct HookRow {
  const char* name;       // as the module exports it
  void* const* fallback;  // slot with the function's address where the module does not export it; may be null
  void* dispatcher;       // what the patched function leads to
  void** original;        // HookEntry::original
  void** bridged;         // HookEntry::bridged
  bool (*arrives)(void* target);  // HookEntry::Arrives
};

// Functions are attached and detached in the order of the rows, but for those that are named here: they come
// first, in the order of their names.
struct HookTable {
  vorn::policy::HookedModule module;
  std::span<const HookRow> rows;
  std::span<const std::string_view> attach_first = {};
  std::span<const std::string_view> detach_first = {};
};

// Both are always true. A null module is not an error: rows with a fallback are attached all the same.
bool InstallTable(const HookTable& table, HMODULE module) noexcept;
bool RemoveTable(const HookTable& table) noexcept;

void BeginHookTransaction() noexcept;
// Without an address, name is looked up in module. False, with nothing stored, when there is no target; false
// when the target is refused.
bool AttachHook(const char* name, void* address, void* dispatcher, void** original, HMODULE module) noexcept;
bool DetachHook(void** original, void* dispatcher) noexcept;
LONG CommitHookTransaction() noexcept;  // 0 or a Win32 error

}  // namespace VornCore
