#include "VornCore/Hook/ntdll.h"

#include "VornCore/Hook/define_api.h"

namespace VornCore::Ntdll {

VORN_DEFINE_MODULE(VORN_NTDLL_API)

constexpr HookTable kTable = {.module = vorn::policy::HookedModule::kNtdll, .rows = kRows};

bool Init() noexcept { return InstallTable(kTable, GetModuleHandleW(L"ntdll.dll")); }
bool UnInit() noexcept { return RemoveTable(kTable); }

}  // namespace VornCore::Ntdll
