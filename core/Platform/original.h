// Where the hook tables meet the system that they run on: which address stands for an intercepted function,
// and what a call of the real function goes through. On Windows both are the plain answer; other
// implementations of the Windows interface differ, and that difference is bridged here and nowhere else.
#pragma once

#include <windows.h>

namespace VornCore::platform {

// The address of the function that module exports under name, or of the one that does its work there.
// Null when there is none.
void* ResolveTarget(HMODULE module, const char* name) noexcept;

// Whether ResolveTarget answers with another function than the one of that name.
bool IsSubstituted(const char* name) noexcept;

// What CallOriginal of the function called name calls, once it is installed: original (its trampoline), or a
// bridge that adapts the arguments and calls original. Called by the installing thread, once per function.
void* BridgeOriginal(const char* name, void* original) noexcept;

// What the patched function of that name leads to: dispatcher, or a bridge in front of it where the target
// that ResolveTarget found takes other arguments.
void* BridgeDispatcher(const char* name, void* dispatcher) noexcept;

}  // namespace VornCore::platform
