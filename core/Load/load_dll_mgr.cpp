#include "Load/load_dll_mgr.h"

#include "VornCore/Base/hook_depth_guard.h"
#include "VornCore/Base/shared_data.h"

namespace VornCore {
namespace {

// Runs load with the thread marked as inside the loader. The mark stands outside of the handler's scope. In a
// plain section it is cleared on the way out, also of a load that nests in another, and a fault which leaves
// the loader leaves it set; where the loader only loads, every way out brings back what it was.
template <class Load>
auto InLoader(Load load) {
  ThreadState* state = GetThreadState();
  if (!state) return load();  // no memory for the mark: the file handlers judge this load like any other work
  const bool only_loads = GetSection().Has(vorn::policy::SectionOption::kLoaderOnlyLoads);
  const std::uint8_t before = only_loads ? state->bInLoader : 0;
  state->bInLoader = 1;
  decltype(load()) result{};
  bool returned = false;
  platform::WithFinally(
      [&] {
        result = HookDepthGuard(state).Real(load);
        returned = true;
      },
      [&] {
        if (returned || only_loads) state->bInLoader = before;
      });
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
