#include "Platform/original.h"

namespace VornCore::platform {

void* ResolveTarget(HMODULE module, const char* name) noexcept {
  return reinterpret_cast<void*>(GetProcAddress(module, name));
}

void* BridgeOriginal(const char*, void* original) noexcept { return original; }

}  // namespace VornCore::platform
