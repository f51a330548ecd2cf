// What Wine answers differently from Windows, bridged: replacements for entries of the native table. (Bridges
// around intercepted functions: wine_bridges.h.) The library's rules and records know device paths only; here
// they are turned into what Wine opens just before the real call, and what Wine reports is turned back.
#pragma once

#include "Platform/native.h"

namespace VornCore::platform::wine {

// Replaces the entries that Wine answers differently.
void Adapt(NativeApi& api) noexcept;

}  // namespace VornCore::platform::wine
