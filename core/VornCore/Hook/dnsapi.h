// Interception of dnsapi: the listener interface, registration, and the way to the real functions. Used as
// ntdll.h; the module may be loaded late, so installation names it.
#pragma once

#include "Platform/net_types.h"
#include "VornCore/Hook/api_list.h"
#include "VornCore/Hook/api_list_dnsapi.h"

namespace VornCore {

// Every operation that is not overridden performs the real call and decides it.
class IDnsapiApiListener {
 public:
  VORN_DNSAPI_API(VORN_LISTENER_OPERATION)
};

namespace Dnsapi {

bool Init(HMODULE module) noexcept;  // installs the table; always true
bool UnInit() noexcept;              // removes it; always true

#define ROW(fail, ...) VORN_DECLARE_API(IDnsapiApiListener, __VA_ARGS__)
VORN_DNSAPI_API(ROW)
#undef ROW

}  // namespace Dnsapi
}  // namespace VornCore
