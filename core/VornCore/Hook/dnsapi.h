// Interception of dnsapi: the listener interface, registration, and the way to the real functions. Used as
// ntdll.h; the module may be loaded late, so installation names it.
#pragma once

#include "Platform/net_types.h"
#include "VornCore/Hook/api_list.h"
#include "VornCore/Hook/api_list_dnsapi.h"

namespace VornCore {
namespace Dnsapi {

VORN_DECLARE_MODULE(VORN_DNSAPI_API)

bool Init(HMODULE module) noexcept;  // installs the table; always true
bool UnInit() noexcept;              // removes it; always true

}  // namespace Dnsapi

using IDnsapiApiListener = Dnsapi::Listener;

}  // namespace VornCore
