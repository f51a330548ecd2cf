#include "Platform/winsock.h"

namespace VornCore::platform {
namespace {

template <class Function>
void Resolve(HMODULE module, const char* name, Function& entry) noexcept {
  entry = module ? reinterpret_cast<Function>(GetProcAddress(module, name)) : nullptr;
}

WinsockApi ResolveWinsock() noexcept {
  WinsockApi api{};
  const HMODULE module = GetWinsockModule();
  Resolve(module, "getpeername", api.getpeername);
  Resolve(module, "getsockname", api.getsockname);
  Resolve(module, "getsockopt", api.getsockopt);
  Resolve(module, "setsockopt", api.setsockopt);
  Resolve(module, "inet_ntop", api.inet_ntop);
  Resolve(module, "ntohs", api.ntohs);
  Resolve(module, "ntohl", api.ntohl);
  Resolve(module, "GetAddrInfoExCancel", api.GetAddrInfoExCancel);
  Resolve(module, "FreeAddrInfoExW", api.FreeAddrInfoExW);
  api.WaitForSingleObject = &::WaitForSingleObject;
  return api;
}

DnsApi ResolveDns() noexcept {
  DnsApi api{};
  const HMODULE module = LoadLibraryW(L"dnsapi.dll");
  api.loaded = module != nullptr;
  Resolve(module, "DnsGetCacheRecords", api.DnsGetCacheRecords);
  Resolve(module, "DnsFree", api.DnsFree);
  return api;
}

}  // namespace

HMODULE GetWinsockModule() noexcept {
  const HMODULE loaded = GetModuleHandleW(L"ws2_32.dll");
  return loaded ? loaded : LoadLibraryW(L"ws2_32.dll");
}

WinsockApi& Winsock() noexcept {
  static WinsockApi api = ResolveWinsock();
  return api;
}

DnsApi& Dns() noexcept {
  static DnsApi api = ResolveDns();
  return api;
}

}  // namespace VornCore::platform
