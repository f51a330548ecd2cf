#include "VornCore/Hook/hook_table.h"

#include <algorithm>

#include "Platform/last_error.h"
#include "Platform/original.h"
#include "VornCore/Base/channel.h"
#include "VornCore/Base/ipc.h"
#include "VornCore/Base/log.h"
#include "VornCore/Base/shared_data.h"
#include "detours/detours.h"

namespace VornCore {
namespace {

using vorn::policy::HookNotProven;

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

// Whether calls come to the row's dispatcher, by each way that programs have: the function that was patched,
// the module's export as the system answers for it, and for KernelBase also the export that kernel32 has of
// it.
bool IsProven(const HookTable& table, const HookRow& row, HMODULE module) noexcept {
  if (!row.arrives(TargetOf(row, module))) return false;
  if (platform::IsSubstituted(row.name)) return true;  // programs have the substitute
  const HMODULE kernel32 =
      table.module == vorn::policy::HookedModule::kKernelBase ? GetModuleHandleW(L"kernel32.dll") : nullptr;
  for (const HMODULE exporter : {module, kernel32}) {
    void* const exported = exporter ? reinterpret_cast<void*>(GetProcAddress(exporter, row.name)) : nullptr;
    if (exported && !row.arrives(exported)) return false;
  }
  return true;
}

// The table is not in force. It may be that of a module which the process loads late: then the host knows the
// process, and is told.
void EndUnproven(const HookTable& table, std::uint32_t row, std::uint32_t error) noexcept {
  const std::uint32_t code = ExitCodeOf(HookNotProven{table.module, row, error});
  VORN_LOG_E("%s is not intercepted, code %u: the process ends", table.rows[row].name, error);
  const vorn::policy::ProcessEvent ended{.reporter_pid = GetCurrentProcessId(),
                                         .kind = vorn::policy::ProcessEventKind::kExitedImmediately,
                                         .child_pid = GetCurrentProcessId(),
                                         .code = code,
                                         .image_name = {}};
  (void)EncodeInto(ended, IpcSend);
  TerminateProcess(GetCurrentProcess(), code);
}

void ProveTable(const HookTable& table, HMODULE module) noexcept {
  const platform::LastErrorKeeper last_error;
  for (const HookRow& row : table.rows)
    if (*row.original && !IsProven(table, row, module))
      return EndUnproven(table, static_cast<std::uint32_t>(&row - table.rows.data()), 0);
}

// 0 or the error of DetourAttach.
LONG Attach(void* address, void* dispatcher, void** original) noexcept {
  *original = address;
  return DetourAttach(original, dispatcher);
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
  return Attach(address, dispatcher, original) == NO_ERROR;
}

bool DetachHook(void** original, void* dispatcher) noexcept {
  if (!original || !dispatcher) return false;
  return DetourDetach(original, dispatcher) == NO_ERROR;
}

LONG CommitHookTransaction() noexcept { return DetourTransactionCommit(); }

bool InstallTable(const HookTable& table, HMODULE module) noexcept {
  LONG error = NO_ERROR;
  std::uint32_t failed_row = 0;
  BeginHookTransaction();
  ForEachRow(table, table.attach_first, [&](const HookRow& row) {
    void* const target = TargetOf(row, module);
    const LONG attached = target ? Attach(target, DispatcherOf(row), row.original) : NO_ERROR;
    if (attached == NO_ERROR || error != NO_ERROR) return;
    error = attached;
    failed_row = static_cast<std::uint32_t>(&row - table.rows.data());
  });
  const LONG committed = CommitHookTransaction();
  PublishOriginals(table);
  if (!GetSection().Has(vorn::policy::SectionOption::kProveHooks)) return true;
  if (error == NO_ERROR) error = committed;
  if (error != NO_ERROR)
    EndUnproven(table, failed_row, static_cast<std::uint32_t>(error));
  else
    ProveTable(table, module);
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
