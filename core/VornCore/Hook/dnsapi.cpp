#include "VornCore/Hook/dnsapi.h"

#include "VornCore/Hook/define_api.h"

namespace VornCore::Dnsapi {

VORN_DEFINE_MODULE(VORN_DNSAPI_API)

// DnsQuery_W comes before DnsQuery_A.
constexpr std::string_view kFirst[] = {"DnsQueryEx", "DnsQuery_UTF8", "DnsQuery_W"};
constexpr HookTable kTable = {.module = vorn::policy::HookedModule::kDnsapi,
                              .rows = kRows,
                              .attach_first = kFirst,
                              .detach_first = kFirst};

bool Init(HMODULE module) noexcept { return InstallTable(kTable, module); }
bool UnInit() noexcept { return RemoveTable(kTable); }

}  // namespace VornCore::Dnsapi
