// What Wine answers differently from Windows, bridged: replacements for entries of the native table, and
// bridges around intercepted functions. The library's rules and records know device paths only; here they are
// turned into what Wine opens just before the real call, and what Wine reports is turned back.
#pragma once

#include "Platform/native.h"

namespace VornCore::platform::wine {

// Replaces the entries that Wine answers differently.
void Adapt(NativeApi& api) noexcept;

// The function to intercept in place of the one that module exports, or does not export, under this name;
// null when there is none.
void* FindSubstitute(HMODULE module, const char* name) noexcept;

// See Platform/original.h.
void* BridgeOriginal(const char* name, void* original) noexcept;
void* BridgeDispatcher(const char* name, void* dispatcher) noexcept;

}  // namespace VornCore::platform::wine
