#include "Platform/original.h"

#include "Platform/native.h"
#include "Platform/wine_adapter.h"

namespace VornCore::platform {

void* ResolveTarget(HMODULE module, const char* name) noexcept {
  void* substitute = IsWine() ? wine::FindSubstitute(module, name) : nullptr;
  return substitute ? substitute : reinterpret_cast<void*>(GetProcAddress(module, name));
}

void* BridgeOriginal(const char* name, void* original) noexcept {
  return IsWine() ? wine::BridgeOriginal(name, original) : original;
}

void* BridgeDispatcher(const char* name, void* dispatcher) noexcept {
  return IsWine() ? wine::BridgeDispatcher(name, dispatcher) : dispatcher;
}

}  // namespace VornCore::platform
