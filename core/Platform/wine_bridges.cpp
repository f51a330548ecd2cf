#include "Platform/wine_bridges.h"

#include <algorithm>

#include "Platform/net_types.h"
#include "Platform/wine_addr_info.h"
#include "Platform/wine_file_calls.h"
#include "Platform/wine_nested_calls.h"

namespace VornCore::platform::wine {
namespace {

using Connect = NestedCall<0, decltype(&::connect), SOCKET_ERROR>;
using WsaConnect = NestedCall<1, decltype(&::WSAConnect), SOCKET_ERROR>;
using SendTo = NestedCall<2, decltype(&::sendto), SOCKET_ERROR>;
using WsaSendTo = NestedCall<3, decltype(&::WSASendTo), SOCKET_ERROR>;
using Result = NestedCall<4, decltype(&::GetOverlappedResult), FALSE>;
using ResultEx = NestedCall<5, decltype(&::GetOverlappedResultEx), FALSE>;
using QueryA = NestedCall<6, decltype(&::DnsQuery_A), ERROR_INVALID_NAME>;
using QueryW = NestedCall<7, decltype(&::DnsQuery_W), ERROR_INVALID_NAME>;
using QueryUtf8 = NestedCall<8, decltype(&::DnsQuery_UTF8), ERROR_INVALID_NAME>;

// Calls that fail at once, without a question to the network.
constexpr auto kConnectNothing = [](auto call) {
  call(INVALID_SOCKET, nullptr, 0, nullptr, nullptr, nullptr, nullptr);
};
constexpr auto kSendNothing = [](auto call) { call(INVALID_SOCKET, nullptr, 0, 0, nullptr, 0); };
constexpr auto kResultOfNothing = [](auto call) {
  OVERLAPPED ended = {};
  DWORD bytes;
  call(nullptr, &ended, &bytes, FALSE);
};
template <class Unit>
constexpr Unit kNoName[] = {0};
constexpr auto kQueryNothing = [](auto call, auto name) {
  PDNS_RECORD records = nullptr;
  call(name, DNS_TYPE_A, DNS_QUERY_CACHE_ONLY, nullptr, &records, nullptr);
};
constexpr auto kQueryNothingA = [](auto call) { kQueryNothing(call, kNoName<char>); };
constexpr auto kQueryNothingW = [](auto call) { kQueryNothing(call, kNoName<wchar_t>); };

constexpr Bridge kBridges[] = {
    {.api = "NtCreateFile", .original = CreateFileOriginal},
    {.api = "NtOpenFile", .original = OpenFileOriginal},
    {.api = "NtSetInformationFile", .original = SetInformationFileOriginal},
    {.api = "MoveFileWithProgressTransactedW",
     .substitute = "MoveFileWithProgressW",
     .original = MoveOriginal,
     .dispatcher = MoveDispatcher,
     .needed = LacksTransactedMove},
    {.api = "GetOverlappedResult", .original = Result::MarkCallInto<ResultEx, kResultOfNothing>},
    {.api = "GetOverlappedResultEx", .original = ResultEx::MarkEntry, .dispatcher = ResultEx::SkipWhenNested},
    {.api = "connect", .original = Connect::MarkEntry, .dispatcher = Connect::SkipWhenNested},
    {.api = "WSAConnect", .original = WsaConnect::MarkCallInto<Connect, kConnectNothing>},
    {.api = "sendto", .original = SendTo::MarkCallInto<WsaSendTo, kSendNothing>},
    {.api = "WSASendTo", .original = WsaSendTo::MarkEntry, .dispatcher = WsaSendTo::SkipWhenNested},
    {.api = "GetAddrInfoW",
     .substitute = "getaddrinfo",
     .original = AddrInfoOriginal,
     .dispatcher = AddrInfoDispatcher},
    {.api = "DnsQuery_A", .original = QueryA::MarkCallInto<QueryW, kQueryNothingA>},
    {.api = "DnsQuery_W",
     .original = QueryW::MarkCallInto<QueryUtf8, kQueryNothingW>,
     .dispatcher = QueryW::SkipWhenNested},
    {.api = "DnsQuery_UTF8", .original = QueryUtf8::MarkEntry, .dispatcher = QueryUtf8::SkipWhenNested},
};

}  // namespace

const Bridge* FindBridge(std::string_view api) noexcept {
  const auto* bridge = std::ranges::find(kBridges, api, &Bridge::api);
  return bridge == std::end(kBridges) || (bridge->needed && !bridge->needed()) ? nullptr : bridge;
}

}  // namespace VornCore::platform::wine
