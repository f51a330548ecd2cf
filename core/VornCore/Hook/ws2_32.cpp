#include "VornCore/Hook/ws2_32.h"

#include "VornCore/Hook/define_api.h"

namespace VornCore {

#define ROW(...) VORN_DEFINE_API(IWs2_32ApiListener, Ws2_32, __VA_ARGS__)
VORN_WS2_32_API(ROW)
#undef ROW

namespace Ws2_32 {
namespace {

const HookRow kRows[] = {
#define ROW(fail, result, api, ...) VORN_TABLE_ROW(nullptr, api)
    VORN_WS2_32_API(ROW)
#undef ROW
};
const HookTable kTable = {.rows = kRows};

}  // namespace

bool Init(HMODULE module) noexcept {
  InstallTable(kTable, module);
  return true;
}

bool UnInit() noexcept {
  RemoveTable(kTable);
  return true;
}

}  // namespace Ws2_32
}  // namespace VornCore
