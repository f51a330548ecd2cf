// Marks the time that a thread spends inside the loader, so that the file handlers let the loader's own work
// through; where the section has kLoaderOnlyLoads, only what opens a module. Decides nothing: the real call
// is always made and its result returned unchanged.
#pragma once

#include "VornCore/Hook/manager.h"
#include "VornCore/Hook/ntdll.h"

namespace VornCore {

class CLoadDllMgr : public Manager<CLoadDllMgr>, public INtdllApiListener {
 public:
  [[nodiscard]] bool Init() noexcept;  // always true
  bool UnInit() noexcept;              // always true

  NTSTATUS LdrLoadDll(PWSTR SearchPath, PULONG DllCharacteristics, PUNICODE_STRING DllName,
                      PVOID* BaseAddress, bool* bPassOn) override;
  PVOID LdrResolveDelayLoadedAPI(PVOID ParentModuleBase, PCIMAGE_DELAYLOAD_DESCRIPTOR DelayloadDescriptor,
                                 PDELAYLOAD_FAILURE_DLL_CALLBACK FailureDllHook,
                                 PDELAYLOAD_FAILURE_SYSTEM_ROUTINE FailureSystemHook,
                                 PIMAGE_THUNK_DATA ThunkAddress, ULONG Flags, bool* bPassOn) override;
};

}  // namespace VornCore
