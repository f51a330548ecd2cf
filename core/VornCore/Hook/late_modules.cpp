#include "VornCore/Hook/late_modules.h"

#include <string_view>

#include "Policy/text.h"
#include "Policy/wide.h"

namespace VornCore::mod {
namespace {

namespace policy = vorn::policy;

constexpr ULONG kReasonLoaded = 1, kReasonUnloaded = 2;

std::span<ModuleHookEntry> watched;
decltype(&::LdrUnregisterDllNotification) unregister_notification;
PVOID cookie;

// Loader strings are counted; they need not be terminated.
bool HasName(const ModuleHookEntry& entry, const UNICODE_STRING& base_name) noexcept {
  const std::wstring_view counted(base_name.Buffer, base_name.Length / sizeof(wchar_t));
  return policy::EqualsNoCase(policy::U16(counted), policy::U16(std::wstring_view(entry.name)));
}

ModuleHookEntry* Find(const UNICODE_STRING& base_name) noexcept {
  for (ModuleHookEntry& entry : watched)
    if (HasName(entry, base_name)) return &entry;
  return nullptr;
}

void MarkLoaded(ModuleHookEntry& entry, PVOID base) noexcept {
  if (!entry.bLoaded.exchange(1)) entry.pfnOnLoad(static_cast<HMODULE>(base), entry.name);
}

void MarkUnloaded(ModuleHookEntry& entry, PVOID base) noexcept {
  if (entry.bLoaded.exchange(0) && entry.pfnOnUnload)
    entry.pfnOnUnload(static_cast<HMODULE>(base), entry.name);
}

}  // namespace

void Watch(std::span<ModuleHookEntry> modules) noexcept { watched = modules; }

bool Init() noexcept {
  HMODULE ntdll = GetModuleHandleW(L"ntdll.dll");
  if (!ntdll) return false;
  auto register_notification = reinterpret_cast<decltype(&::LdrRegisterDllNotification)>(
      GetProcAddress(ntdll, "LdrRegisterDllNotification"));
  unregister_notification = reinterpret_cast<decltype(&::LdrUnregisterDllNotification)>(
      GetProcAddress(ntdll, "LdrUnregisterDllNotification"));
  if (!register_notification) return false;
  ScanLoadedModules();
  return nt::Success(register_notification(0, OnDllNotification, nullptr, &cookie));
}

bool UnInit() noexcept { return unregister_notification && nt::Success(unregister_notification(cookie)); }

void ScanLoadedModules() noexcept {
  RtlAcquirePebLock();
  LIST_ENTRY* head = &nt::CurrentLdr()->InLoadOrderModuleList;
  for (LIST_ENTRY* link = head->Flink; link != head; link = link->Flink) {
    auto* module = CONTAINING_RECORD(link, nt::LdrEntry, InLoadOrderLinks);
    if (ModuleHookEntry* entry = Find(module->BaseDllName)) MarkLoaded(*entry, module->DllBase);
  }
  RtlReleasePebLock();
}

void CALLBACK OnDllNotification(ULONG reason, PCLDR_DLL_NOTIFICATION_DATA data, PVOID) noexcept {
  if (reason != kReasonLoaded && reason != kReasonUnloaded) return;
  ModuleHookEntry* entry = Find(*data->BaseDllName);
  if (!entry) return;
  if (reason == kReasonLoaded)
    MarkLoaded(*entry, data->DllBase);
  else
    MarkUnloaded(*entry, data->DllBase);
}

}  // namespace VornCore::mod
