#include "VornCore/Hook/hook_table.h"

#include <algorithm>

#include "Platform/original.h"
#include "detours/detours.h"

namespace VornCore {
namespace {

template <class Action>
void ForEachRow(const HookTable& table, std::span<const std::string_view> first, Action action) noexcept {
  for (const std::string_view name : first)
    for (const HookRow& row : table.rows)
      if (row.name == name) action(row);
  for (const HookRow& row : table.rows)
    if (std::ranges::find(first, row.name) == first.end()) action(row);
}

void* TargetOf(const HookRow& row, HMODULE module) noexcept {
  void* const target = module ? platform::ResolveTarget(module, row.name) : nullptr;
  return target || !row.fallback ? target : *row.fallback;
}

void* DispatcherOf(const HookRow& row) noexcept {
  return platform::BridgeDispatcher(row.name, row.dispatcher);
}

// The trampolines are known (and, after a removal, the targets again) once the transaction has ended.
void PublishOriginals(const HookTable& table) noexcept {
  for (const HookRow& row : table.rows)
    if (*row.original) *row.bridged = platform::BridgeOriginal(row.name, *row.original);
}

}  // namespace

void BeginHookTransaction() noexcept {
  DetourTransactionBegin();
  DetourUpdateThread(GetCurrentThread());
}

bool AttachHook(const char* name, void* address, void* dispatcher, void** original, HMODULE module) noexcept {
  if (!dispatcher || !original) return false;
  if (!address) {
    if (!name || !module) return false;
    address = platform::ResolveTarget(module, name);
    if (!address) return false;
  }
  *original = address;
  return DetourAttach(original, dispatcher) == NO_ERROR;
}

bool DetachHook(void** original, void* dispatcher) noexcept {
  if (!original || !dispatcher) return false;
  return DetourDetach(original, dispatcher) == NO_ERROR;
}

void CommitHookTransaction() noexcept { DetourTransactionCommit(); }

bool InstallTable(const HookTable& table, HMODULE module) noexcept {
  BeginHookTransaction();
  ForEachRow(table, table.attach_first, [&](const HookRow& row) {
    if (void* target = TargetOf(row, module))
      AttachHook(row.name, target, DispatcherOf(row), row.original, module);
  });
  CommitHookTransaction();
  PublishOriginals(table);
  return true;
}

bool RemoveTable(const HookTable& table) noexcept {
  BeginHookTransaction();
  ForEachRow(table, table.detach_first, [](const HookRow& row) {
    // What was never found was never attached; naming it would fail the removal of the others.
    if (*row.original) DetachHook(row.original, DispatcherOf(row));
  });
  CommitHookTransaction();
  PublishOriginals(table);
  return true;
}

}  // namespace VornCore
