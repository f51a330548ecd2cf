// The intercepted functions that Wine implements otherwise than Windows: one row each, in wine_bridges.cpp.
#pragma once

#include <string_view>

namespace VornCore::platform::wine {

struct Bridge {
  std::string_view api;
  // The export to intercept in its place, where the module has it; null: the function itself.
  const char* substitute = nullptr;
  // See BridgeOriginal and BridgeDispatcher in original.h; null: nothing in between.
  void* (*original)(void* original) = nullptr;
  void* (*dispatcher)(void* dispatcher) = nullptr;
  // Asks the system whether it needs this bridge; null: it always does.
  bool (*needed)() = nullptr;
};

// The bridge of an intercepted function; null when it needs none.
const Bridge* FindBridge(std::string_view api) noexcept;

}  // namespace VornCore::platform::wine
