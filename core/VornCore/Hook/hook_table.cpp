#include "VornCore/Hook/hook_table.h"

#include "Platform/original.h"
#include "detours/detours.h"

namespace VornCore {
namespace {

template <class Action>
void ForEachRow(const HookTable& table, std::span<const std::uint8_t> order, Action action) noexcept {
  for (std::size_t i = 0; i < table.rows.size(); ++i) action(table.rows[order.empty() ? i : order[i]]);
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

void InstallTable(const HookTable& table, HMODULE module) noexcept {
  BeginHookTransaction();
  ForEachRow(table, table.attach_order, [&](const HookRow& row) {
    AttachHook(row.name, row.import ? *row.import : nullptr, DispatcherOf(row), row.original, module);
  });
  CommitHookTransaction();
  PublishOriginals(table);
}

void RemoveTable(const HookTable& table) noexcept {
  BeginHookTransaction();
  ForEachRow(table, table.detach_order, [](const HookRow& row) {
    // What was never found was never attached; naming it would fail the removal of the others.
    if (*row.original) DetachHook(row.original, DispatcherOf(row));
  });
  CommitHookTransaction();
  PublishOriginals(table);
}

}  // namespace VornCore
