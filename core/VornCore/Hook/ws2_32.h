// Interception of ws2_32: the listener interface, registration, and the way to the real functions. Used as
// ntdll.h; the module may be loaded late, so installation names it.
#pragma once

#include "Platform/net_types.h"
#include "VornCore/Hook/api_list.h"
#include "VornCore/Hook/api_list_ws2_32.h"

namespace VornCore {

// Every operation that is not overridden performs the real call and decides it.
class IWs2_32ApiListener {
 public:
  VORN_WS2_32_API(VORN_LISTENER_OPERATION)
};

namespace Ws2_32 {

bool Init(HMODULE module) noexcept;  // installs the table; always true
bool UnInit() noexcept;              // removes it; always true

#define ROW(fail, ...) VORN_DECLARE_API(IWs2_32ApiListener, __VA_ARGS__)
VORN_WS2_32_API(ROW)
#undef ROW

}  // namespace Ws2_32
}  // namespace VornCore
