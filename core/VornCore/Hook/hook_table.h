// The mechanics of a hook table: one interception transaction over the functions of a module.
//
// Install and removal run on the calling thread, which is the only one that the transaction enlists. A
// function that cannot be found is left out; one that cannot be patched fails the transaction, and none of
// the table's functions is patched. Neither is an error here: calls then reach the real functions.
#pragma once

#include <cstdint>
#include <span>

#include "windows/nt.h"

namespace VornCore {

struct HookRow {
  const char* name;     // as the module exports it
  void* const* import;  // import slot that holds the target, or null: look name up in the module
  void* dispatcher;     // what the patched function leads to
  void** original;      // HookEntry::original
  void** bridged;       // HookEntry::bridged
};

// The orders name every row once; an empty one is the rows' own order.
struct HookTable {
  std::span<const HookRow> rows;
  std::span<const std::uint8_t> attach_order = {};
  std::span<const std::uint8_t> detach_order = {};
};

// A null module is not an error: rows with an import slot are attached all the same.
void InstallTable(const HookTable& table, HMODULE module) noexcept;
void RemoveTable(const HookTable& table) noexcept;

void BeginHookTransaction() noexcept;
// Without an address, name is looked up in module. False, with nothing stored, when there is no target; false
// when the target is refused.
bool AttachHook(const char* name, void* address, void* dispatcher, void** original, HMODULE module) noexcept;
bool DetachHook(void** original, void* dispatcher) noexcept;
void CommitHookTransaction() noexcept;

}  // namespace VornCore
