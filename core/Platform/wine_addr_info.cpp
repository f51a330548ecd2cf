#include "Platform/wine_addr_info.h"

#include "Platform/net_types.h"

namespace VornCore::platform::wine {
namespace {

constexpr int kNameUnits = 1025;  // longer than any name that resolves

decltype(&::GetAddrInfoW) dispatcher_of_wide = nullptr;
decltype(&::getaddrinfo) real_narrow = nullptr;

// The narrow call, on its way through the wide dispatcher in the place of its hints.
struct NarrowCall {
  ADDRINFOW wide_hints;
  const NarrowCall* self;  // tells it from hints of anybody else's
  PCSTR node;
  PCSTR service;
  const ADDRINFOA* hints;
};

// A result of the narrow form reads like one of the wide form, but for the canonical name.
static_assert(sizeof(ADDRINFOA) == sizeof(ADDRINFOW) &&
              offsetof(ADDRINFOA, ai_addr) == offsetof(ADDRINFOW, ai_addr));

INT WSAAPI NarrowEntry(PCSTR node, PCSTR service, const ADDRINFOA* hints, PADDRINFOA* result) {
  wchar_t name[kNameUnits];
  if (node && !MultiByteToWideChar(CP_ACP, 0, node, -1, name, kNameUnits))
    return real_narrow(node, service, hints, result);
  NarrowCall call{.wide_hints = {}, .self = &call, .node = node, .service = service, .hints = hints};
  return dispatcher_of_wide(node ? name : nullptr, nullptr, &call.wide_hints,
                            reinterpret_cast<PADDRINFOW*>(result));
}

INT WSAAPI Bridge(PCWSTR, PCWSTR, const ADDRINFOW* hints, PADDRINFOW* result) {
  const auto* call = reinterpret_cast<const NarrowCall*>(hints);
  if (!call || call->self != call) return WSAEINVAL;
  return real_narrow(call->node, call->service, call->hints, reinterpret_cast<PADDRINFOA*>(result));
}

}  // namespace

void* AddrInfoDispatcher(void* dispatcher) {
  dispatcher_of_wide = reinterpret_cast<decltype(&::GetAddrInfoW)>(dispatcher);
  return reinterpret_cast<void*>(&NarrowEntry);
}

void* AddrInfoOriginal(void* original) {
  real_narrow = reinterpret_cast<decltype(&::getaddrinfo)>(original);
  return reinterpret_cast<void*>(&Bridge);
}

}  // namespace VornCore::platform::wine
