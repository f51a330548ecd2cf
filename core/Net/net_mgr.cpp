#include "Net/net_mgr.h"

#include "Platform/winsock.h"
#include "VornCore/Base/shared_data.h"

namespace VornCore {
namespace {

// Keeps one reference for good: the patched code must not be unmapped.
void PinModule(HMODULE module) noexcept {
  wchar_t path[261] = {};
  GetModuleFileNameW(module, path, 260);
  LoadLibraryW(path);
}

}  // namespace

CNetMgr& GetNetMgr() noexcept {
  static CNetMgr manager;
  return manager;
}

bool CNetMgr::Init() noexcept {
  enabled_ = HasNetRules();
  if (!enabled_) return true;
  model_.PrintNetACL();
  KernelBase::RegisterGetOverlappedResultListener(this);
  KernelBase::RegisterGetOverlappedResultExListener(this);
  KernelBase::RegisterGetQueuedCompletionStatusListener(this);
  KernelBase::RegisterGetQueuedCompletionStatusExListener(this);
  return true;
}

bool CNetMgr::UnInit() noexcept {
  if (!enabled_) return true;
  KernelBase::UnregisterGetOverlappedResultListener(this);
  KernelBase::UnregisterGetOverlappedResultExListener(this);
  KernelBase::UnregisterGetQueuedCompletionStatusListener(this);
  KernelBase::UnregisterGetQueuedCompletionStatusExListener(this);
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
  if (Ws2_32::Init(module)) {
#define ROW(fail, result, api, ...) Ws2_32::Register##api##Listener(&manager);
    VORN_WS2_32_API(ROW)
#undef ROW
  }
  PinModule(module);
  return true;
}

bool CNetMgr::OnWs2_32Unloaded(HMODULE, const wchar_t*) {
  CNetMgr& manager = GetNetMgr();
  if (!manager.enabled_) return true;
#define ROW(fail, result, api, ...) Ws2_32::Unregister##api##Listener(&manager);
  VORN_WS2_32_API(ROW)
#undef ROW
  return true;
}

bool CNetMgr::OnDnsapiLoaded(HMODULE module, const wchar_t*) {
  CNetMgr& manager = GetNetMgr();
  if (!manager.enabled_) return true;
  if (Dnsapi::Init(module)) {
#define ROW(fail, result, api, ...) Dnsapi::Register##api##Listener(&manager);
    VORN_DNSAPI_API(ROW)
#undef ROW
  }
  PinModule(module);
  return true;
}

bool CNetMgr::OnDnsapiUnloaded(HMODULE, const wchar_t*) {
  CNetMgr& manager = GetNetMgr();
  if (!manager.enabled_) return true;
#define ROW(fail, result, api, ...) Dnsapi::Unregister##api##Listener(&manager);
  VORN_DNSAPI_API(ROW)
#undef ROW
  return true;
}

}  // namespace VornCore
