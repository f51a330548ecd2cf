#include "VornCore/Hook/dnsapi.h"

#include "VornCore/Hook/define_api.h"

namespace VornCore {

#define ROW(...) VORN_DEFINE_API(IDnsapiApiListener, Dnsapi, __VA_ARGS__)
VORN_DNSAPI_API(ROW)
#undef ROW

namespace Dnsapi {
namespace {

const HookRow kRows[] = {
#define ROW(fail, result, api, ...) VORN_TABLE_ROW(nullptr, api)
    VORN_DNSAPI_API(ROW)
#undef ROW
};
// DnsQueryEx, DnsQuery_UTF8, DnsQuery_W, DnsQuery_A.
constexpr std::uint8_t kOrder[] = {0, 1, 3, 2};
static_assert(std::size(kOrder) == std::size(kRows));
const HookTable kTable = {.rows = kRows, .attach_order = kOrder, .detach_order = kOrder};

}  // namespace

bool Init(HMODULE module) noexcept {
  InstallTable(kTable, module);
  return true;
}

bool UnInit() noexcept {
  RemoveTable(kTable);
  return true;
}

}  // namespace Dnsapi
}  // namespace VornCore
