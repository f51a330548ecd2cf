#include "VornCore/Hook/kernel_base.h"

#include "VornCore/Hook/define_api.h"

namespace VornCore::KernelBase {

constexpr std::string_view kCrashFilter = "SetUnhandledExceptionFilter";

// The crash path must be caught even where KernelBase cannot be found: kernel32 hands that function on.
static consteval void* const* FallbackOf(std::string_view api) {
  return api == kCrashFilter ? &imp_SetUnhandledExceptionFilter : nullptr;
}

VORN_DEFINE_MODULE(VORN_KERNELBASE_API)

// The exception filter is released first, so that a fault during the removal finds the program's own filter.
constexpr HookTable kTable = {
    .module = vorn::policy::HookedModule::kKernelBase, .rows = kRows, .detach_first = {&kCrashFilter, 1}};

bool Init() noexcept { return InstallTable(kTable, GetModuleHandleW(L"KernelBase.dll")); }
bool UnInit() noexcept { return RemoveTable(kTable); }

}  // namespace VornCore::KernelBase
