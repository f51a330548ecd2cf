#include "VornCore/Hook/ws2_32.h"

#include "VornCore/Hook/define_api.h"

namespace VornCore::Ws2_32 {

VORN_DEFINE_MODULE(VORN_WS2_32_API)

constexpr HookTable kTable = {.module = vorn::policy::HookedModule::kWs2_32, .rows = kRows};

bool Init(HMODULE module) noexcept { return InstallTable(kTable, module); }
bool UnInit() noexcept { return RemoveTable(kTable); }

}  // namespace VornCore::Ws2_32
