#include "Platform/original.h"

#include <cstring>

#include "Platform/native.h"
#include "Platform/wine_bridges.h"

namespace VornCore::platform {
namespace {

const wine::Bridge* BridgeOf(const char* name) noexcept {
  return IsWine() ? wine::FindBridge(name) : nullptr;
}

template <class T>
const T* At(HMODULE module, DWORD rva) noexcept {
  return reinterpret_cast<const T*>(reinterpret_cast<const char*>(module) + rva);
}

// As GetProcAddress, but from the module's own table: the system's compatibility engine and its verifier
// answer GetProcAddress, and fill import slots, with functions of their own, through which not every caller
// goes. Null for a name that the module hands on to another one.
void* FindExport(HMODULE module, const char* name) noexcept {
  const auto* headers = At<IMAGE_NT_HEADERS>(module, At<IMAGE_DOS_HEADER>(module, 0)->e_lfanew);
  const IMAGE_DATA_DIRECTORY& where = headers->OptionalHeader.DataDirectory[IMAGE_DIRECTORY_ENTRY_EXPORT];
  if (!where.Size) return nullptr;
  const auto* exports = At<IMAGE_EXPORT_DIRECTORY>(module, where.VirtualAddress);
  const DWORD* const names = At<DWORD>(module, exports->AddressOfNames);
  for (DWORD i = 0; i < exports->NumberOfNames; ++i) {
    if (strcmp(At<char>(module, names[i]), name) != 0) continue;
    const WORD ordinal = At<WORD>(module, exports->AddressOfNameOrdinals)[i];
    const DWORD rva = At<DWORD>(module, exports->AddressOfFunctions)[ordinal];
    const bool handed_on = rva - where.VirtualAddress < where.Size;
    return handed_on || !rva ? nullptr : const_cast<char*>(At<char>(module, rva));
  }
  return nullptr;
}

void* ExportOf(HMODULE module, const char* name) noexcept {
  void* const found = FindExport(module, name);
  return found ? found : reinterpret_cast<void*>(GetProcAddress(module, name));
}

}  // namespace

void* ResolveTarget(HMODULE module, const char* name) noexcept {
  const wine::Bridge* bridge = BridgeOf(name);
  void* const substitute = bridge && bridge->substitute ? ExportOf(module, bridge->substitute) : nullptr;
  return substitute ? substitute : ExportOf(module, name);
}

bool IsSubstituted(const char* name) noexcept {
  const wine::Bridge* bridge = BridgeOf(name);
  return bridge && bridge->substitute;
}

void* BridgeOriginal(const char* name, void* original) noexcept {
  const wine::Bridge* bridge = BridgeOf(name);
  return bridge && bridge->original ? bridge->original(original) : original;
}

void* BridgeDispatcher(const char* name, void* dispatcher) noexcept {
  const wine::Bridge* bridge = BridgeOf(name);
  return bridge && bridge->dispatcher ? bridge->dispatcher(dispatcher) : dispatcher;
}

}  // namespace VornCore::platform
