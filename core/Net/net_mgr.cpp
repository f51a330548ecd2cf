#include "Net/net_mgr.h"

#include "Platform/winsock.h"
#include "VornCore/Base/shared_data.h"

namespace VornCore {
namespace {

// The patched code must not be unmapped. (LoadLibrary would search for the module by its path, and this runs
// inside the loader.)
void PinModule(HMODULE module) noexcept {
  HMODULE pinned;
  GetModuleHandleExW(GET_MODULE_HANDLE_EX_FLAG_PIN | GET_MODULE_HANDLE_EX_FLAG_FROM_ADDRESS,
                     reinterpret_cast<LPCWSTR>(module), &pinned);
}

}  // namespace

bool CNetMgr::Init() noexcept {
  enabled_ = HasNetRules();
  if (!enabled_) return true;
  model_.PrintNetACL();
  KernelBase::RegisterOverrides(this);
  return true;
}

bool CNetMgr::UnInit() noexcept {
  if (!enabled_) return true;
  KernelBase::UnregisterOverrides(this);
  contexts_.HandBackMessages();
  return true;
}

std::span<ModuleHookEntry> CNetMgr::WatchedModules() noexcept {
  static ModuleHookEntry modules[] = {
      {L"Ws2_32.dll", 0, &OnWs2_32Loaded, &OnWs2_32Unloaded},
      {L"Dnsapi.dll", 0, &OnDnsapiLoaded, &OnDnsapiUnloaded},
  };
  return modules;
}

bool CNetMgr::OnWs2_32Loaded(HMODULE module, const wchar_t*) {
  CNetMgr& manager = GetNetMgr();
  if (!manager.enabled_) return true;
  // Looked up now, inside the loader: at the first call, a thread that waits for the loader and one that is
  // inside it could wait for each other.
  platform::Winsock();
  if (Ws2_32::Init(module)) Ws2_32::RegisterOverrides(&manager);
  PinModule(module);
  return true;
}

bool CNetMgr::OnWs2_32Unloaded(HMODULE, const wchar_t*) {
  if (GetNetMgr().enabled_) Ws2_32::UnregisterOverrides(&GetNetMgr());
  return true;
}

bool CNetMgr::OnDnsapiLoaded(HMODULE module, const wchar_t*) {
  CNetMgr& manager = GetNetMgr();
  if (!manager.enabled_) return true;
  if (Dnsapi::Init(module)) Dnsapi::RegisterOverrides(&manager);
  PinModule(module);
  return true;
}

bool CNetMgr::OnDnsapiUnloaded(HMODULE, const wchar_t*) {
  if (GetNetMgr().enabled_) Dnsapi::UnregisterOverrides(&GetNetMgr());
  return true;
}

}  // namespace VornCore
