// Interception of ws2_32: the listener interface, registration, and the way to the real functions. Used as
// ntdll.h; the module may be loaded late, so installation names it.
#pragma once

#include "Platform/net_types.h"
#include "VornCore/Hook/api_list.h"
#include "VornCore/Hook/api_list_ws2_32.h"

namespace VornCore {
namespace Ws2_32 {

VORN_DECLARE_MODULE(VORN_WS2_32_API)

bool Init(HMODULE module) noexcept;  // installs the table; always true
bool UnInit() noexcept;              // removes it; always true

}  // namespace Ws2_32

using IWs2_32ApiListener = Ws2_32::Listener;

}  // namespace VornCore
