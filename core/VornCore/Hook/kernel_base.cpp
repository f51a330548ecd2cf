#include "VornCore/Hook/kernel_base.h"

#include <string_view>

#include "VornCore/Hook/define_api.h"

namespace VornCore {

#define ROW(...) VORN_DEFINE_API(IKernelBaseApiListener, KernelBase, __VA_ARGS__)
VORN_KERNELBASE_API(ROW)
#undef ROW

namespace KernelBase {
namespace {

// The crash path must be caught even where KernelBase cannot be found: kernel32 hands that function on.
consteval void* const* ImportOf(std::string_view api) {
  return api == "SetUnhandledExceptionFilter" ? &imp_SetUnhandledExceptionFilter : nullptr;
}

const HookRow kRows[] = {
#define ROW(fail, result, api, ...) VORN_TABLE_ROW(ImportOf(#api), api)
    VORN_KERNELBASE_API(ROW)
#undef ROW
};
// The exception filter goes first, so that a fault during the removal finds the program's own filter.
constexpr std::uint8_t kDetachOrder[] = {1, 0, 2, 3, 4, 5};
static_assert(std::size(kDetachOrder) == std::size(kRows));
const HookTable kTable = {.rows = kRows, .detach_order = kDetachOrder};

}  // namespace

bool Init() noexcept {
  InstallTable(kTable, GetModuleHandleW(L"KernelBase.dll"));
  return true;
}

bool UnInit() noexcept {
  RemoveTable(kTable);
  return true;
}

}  // namespace KernelBase
}  // namespace VornCore
