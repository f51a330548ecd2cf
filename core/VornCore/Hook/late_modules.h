// Modules that a process loads late, or never: what to do when one of them is found, loaded or unloaded.
//
//   static ModuleHookEntry modules[] = {{L"Ws2_32.dll", 0, OnLoaded, OnUnloaded}};
//   mod::Watch(modules);   // before Init
//   mod::Init();           // runs the load callback of every module that is there already
//
// Callbacks run on the thread that loads or unloads the module, inside the loader (under the PEB lock during
// Init): they wait for nothing that needs the loader. No lock of this room is held while they run.
#pragma once

#include <atomic>
#include <cstdint>
#include <span>

#include "windows/nt.h"

namespace VornCore {

// The result is not used.
using ModuleCallback = bool (*)(HMODULE module, const wchar_t* name);

struct ModuleHookEntry {
  const wchar_t* name;                // base file name; the case of A to Z does not matter
  std::atomic<std::uint8_t> bLoaded;  // 1 while the module is known to be loaded, from before pfnOnLoad runs
  ModuleCallback pfnOnLoad;           // once per load; never null
  ModuleCallback pfnOnUnload;         // may be null
};

namespace mod {

// Names the modules to watch: storage of the caller's that lives as long as the process. Called at most once,
// before Init; nothing is watched without it.
void Watch(std::span<ModuleHookEntry> modules) noexcept;

// Looks at the modules that are loaded already, then asks the loader for notifications. False when the loader
// takes no registration.
[[nodiscard]] bool Init() noexcept;
// Ends the notifications. False when the loader refuses.
bool UnInit() noexcept;

void ScanLoadedModules() noexcept;
void CALLBACK OnDllNotification(ULONG NotificationReason, PCLDR_DLL_NOTIFICATION_DATA NotificationData,
                                PVOID Context) noexcept;

}  // namespace mod
}  // namespace VornCore
