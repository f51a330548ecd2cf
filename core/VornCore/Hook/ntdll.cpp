#include "VornCore/Hook/ntdll.h"

#include "VornCore/Hook/define_api.h"

namespace VornCore {

#define ROW(...) VORN_DEFINE_API(INtdllApiListener, Ntdll, __VA_ARGS__)
VORN_NTDLL_API(ROW)
#undef ROW

namespace Ntdll {
namespace {

// What the library's own imports resolve to is what the program calls: no lookup by name.
const HookRow kRows[] = {
#define ROW(fail, result, api, ...) VORN_TABLE_ROW(&imp_##api, api)
    VORN_NTDLL_API(ROW)
#undef ROW
};
const HookTable kTable = {.rows = kRows};

}  // namespace

bool Init() noexcept {
  InstallTable(kTable, GetModuleHandleW(L"ntdll.dll"));
  return true;
}

bool UnInit() noexcept {
  RemoveTable(kTable);
  return true;
}

}  // namespace Ntdll
}  // namespace VornCore
