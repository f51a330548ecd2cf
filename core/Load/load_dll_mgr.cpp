#include "Load/load_dll_mgr.h"

#include "VornCore/Base/hook_depth_guard.h"

namespace VornCore {
namespace {

// Runs load with the thread marked as inside the loader. The mark is a flag, not a counter: a load that nests
// in another clears it on its way out. It stands outside of the handler's scope, so that a fault which leaves
// the loader leaves it set.
template <class Load>
auto InLoader(Load load) {
  ThreadState* state = GetThreadState();
  if (!state) return load();  // no memory for the mark: the file handlers judge this load like any other work
  state->bInLoader = 1;
  const auto result = HookDepthGuard(state).Real(load);
  state->bInLoader = 0;
  return result;
}

}  // namespace

bool CLoadDllMgr::Init() noexcept {
  Ntdll::RegisterOverrides(this);
  return true;
}

bool CLoadDllMgr::UnInit() noexcept {
  Ntdll::UnregisterOverrides(this);
  return true;
}

NTSTATUS CLoadDllMgr::LdrLoadDll(PWSTR SearchPath, PULONG DllCharacteristics, PUNICODE_STRING DllName,
                                 PVOID* BaseAddress, bool*) {
  return InLoader(
      [&] { return Ntdll::CallOriginalLdrLoadDll(SearchPath, DllCharacteristics, DllName, BaseAddress); });
}

PVOID CLoadDllMgr::LdrResolveDelayLoadedAPI(PVOID ParentModuleBase,
                                            PCIMAGE_DELAYLOAD_DESCRIPTOR DelayloadDescriptor,
                                            PDELAYLOAD_FAILURE_DLL_CALLBACK FailureDllHook,
                                            PDELAYLOAD_FAILURE_SYSTEM_ROUTINE FailureSystemHook,
                                            PIMAGE_THUNK_DATA ThunkAddress, ULONG Flags, bool*) {
  return InLoader([&] {
    return Ntdll::CallOriginalLdrResolveDelayLoadedAPI(ParentModuleBase, DelayloadDescriptor, FailureDllHook,
                                                       FailureSystemHook, ThunkAddress, Flags);
  });
}

}  // namespace VornCore
