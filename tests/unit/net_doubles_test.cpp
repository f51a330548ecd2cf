// What the test machine's Windows lacks, stood in for by functions that this program exports: registered I/O
// and the request form of DNS queries. The library's hooks are installed in this program as they would be in
// ws2_32 and dnsapi.
#include <gtest/gtest.h>

#include "Net/dns_cache.h"
#include "Net/net_mgr.h"
#include "Net/net_mgr_extensions.h"
#include "Platform/winsock.h"
#include "net_confinement.h"

namespace VornCore::test {
namespace {

// ---- The doubles ----

struct Doubles {
  // registered I/O
  int rio_calls = 0;
  RIO_RQ queue = reinterpret_cast<RIO_RQ>(0x5150);
  // DnsQueryEx
  DNS_QUERY_REQUEST seen_request{};
  DNS_STATUS dns_status = ERROR_SUCCESS;
  PDNS_RECORD dns_records = nullptr;
  int net_call = 0;
} doubles;

BOOL PASCAL Send(RIO_RQ, PRIO_BUF, ULONG, DWORD, PVOID) { return ++doubles.rio_calls, TRUE; }
BOOL PASCAL SendEx(RIO_RQ, PRIO_BUF, ULONG, PRIO_BUF, PRIO_BUF, PRIO_BUF, PRIO_BUF, DWORD, PVOID) {
  return ++doubles.rio_calls, TRUE;
}
int PASCAL ReceiveEx(RIO_RQ, PRIO_BUF, ULONG, PRIO_BUF, PRIO_BUF, PRIO_BUF, PRIO_BUF, DWORD, PVOID) {
  return ++doubles.rio_calls, TRUE;
}
RIO_RQ PASCAL CreateQueue(SOCKET, ULONG, ULONG, ULONG, ULONG, RIO_CQ, RIO_CQ, PVOID) { return doubles.queue; }

constexpr GUID kRio = WSAID_MULTIPLE_RIO;
const RIO_EXTENSION_FUNCTION_TABLE kProviderTable = [] {
  RIO_EXTENSION_FUNCTION_TABLE table;
  memset(&table, 0x5A, sizeof table);  // what the library leaves alone
  table.cbSize = sizeof table;
  table.RIOReceive = table.RIOSend = &Send;
  table.RIOReceiveEx = &ReceiveEx;
  table.RIOSendEx = &SendEx;
  table.RIOCreateRequestQueue = &CreateQueue;
  return table;
}();

}  // namespace

extern "C" {
int WSAAPI DoubleWSAIoctl(SOCKET, DWORD code, LPVOID in, DWORD, LPVOID out, DWORD out_bytes, LPDWORD,
                          LPWSAOVERLAPPED, LPWSAOVERLAPPED_COMPLETION_ROUTINE) {
  if (code != SIO_GET_MULTIPLE_EXTENSION_FUNCTION_POINTER || memcmp(in, &kRio, sizeof kRio) != 0) return 0;
  memcpy(out, &kProviderTable, std::min<std::size_t>(out_bytes, sizeof kProviderTable));
  return 0;
}

DNS_STATUS WINAPI DoubleDnsQueryEx(PDNS_QUERY_REQUEST request, PDNS_QUERY_RESULT results, PDNS_QUERY_CANCEL) {
  if (request) doubles.seen_request = *request;
  doubles.net_call = GetThreadState()->bInNetCall;
  if (results) results->pQueryRecords = doubles.dns_records;
  return doubles.dns_status;
}
}

namespace {

using Ioctl = decltype(&DoubleWSAIoctl);
using QueryEx = decltype(&DoubleDnsQueryEx);

class NetDoubles : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    for (const bool rules : {false, true}) {  // without rules nothing is patched
      SetNetRules(rules ? std::vector{DefaultRule(1)} : std::vector<vorn::host::NetRule>());
      const auto before = Code();
      GetNetMgr().Init();
      CNetMgr::OnWs2_32Loaded(GetModuleHandleW(nullptr), L"");
      CNetMgr::OnDnsapiLoaded(GetModuleHandleW(nullptr), L"");
      EXPECT_EQ(Code() == before, !rules);
    }
  }
  void SetUp() override {
    doubles = {};
    // (a pointer that the compiler cannot see through: the hooks patch the functions, not their callers)
    ioctl = reinterpret_cast<Ioctl>(GetProcAddress(GetModuleHandleW(nullptr), "WSAIoctl"));
    query_ex = reinterpret_cast<QueryEx>(GetProcAddress(GetModuleHandleW(nullptr), "DnsQueryEx"));
  }

  static std::pair<std::uint64_t, std::uint64_t> Code() {
    const auto begin = [](const char* function) {
      return *reinterpret_cast<const volatile std::uint64_t*>(
          GetProcAddress(GetModuleHandleW(nullptr), function));
    };
    return {begin("WSAIoctl"), begin("DnsQueryEx")};
  }
  static std::wstring NameOf(std::uint8_t last) {
    DomainName name;
    const Address address = Local(last);
    GetDnsCache().FindDomainByAddress(&address.any, sizeof address.v4, name);
    return std::wstring(name.view());
  }

  Ioctl ioctl;
  QueryEx query_ex;
};

// ---- Registered I/O ----

TEST_F(NetDoubles, RegisteredIoSendsAndQueuesAreWrapped) {
  RIO_EXTENSION_FUNCTION_TABLE table{};
  GUID id = kRio;
  DWORD bytes = 0;
  const auto get = [&](DWORD room) {
    table = {};
    return ioctl(1, SIO_GET_MULTIPLE_EXTENSION_FUNCTION_POINTER, &id, sizeof id, &table, room, &bytes,
                 nullptr, nullptr);
  };
  EXPECT_EQ(get(sizeof table - 8), 0);
  EXPECT_EQ(table.RIOSend, kProviderTable.RIOSend) << "a table that is cut short is left alone";
  EXPECT_EQ(get(sizeof table), 0);
  EXPECT_NE(table.RIOSend, kProviderTable.RIOSend);
  EXPECT_NE(table.RIOReceiveEx, kProviderTable.RIOReceiveEx);
  EXPECT_EQ(table.cbSize, sizeof table);
  EXPECT_EQ(memcmp(&table.RIODequeueCompletion, &kProviderTable.RIODequeueCompletion, 6 * sizeof(void*)), 0);
  EXPECT_EQ(table.RIOCreateCompletionQueue, kProviderTable.RIOCreateCompletionQueue);

  SocketACLModel& model = GetNetMgr().model();
  model.AddSocket(kProtocolUdp, AF_INET, 77);
  EXPECT_EQ(table.RIOCreateRequestQueue(77, 0, 0, 0, 0, nullptr, nullptr, nullptr), doubles.queue);
  EXPECT_TRUE(table.RIOSend(doubles.queue, nullptr, 0, 0, nullptr));
  EXPECT_TRUE(table.RIOSendEx(doubles.queue, nullptr, 0, nullptr, nullptr, nullptr, nullptr, 0, nullptr));
  EXPECT_TRUE(table.RIOReceive(doubles.queue, nullptr, 0, 0, nullptr));
  EXPECT_TRUE(table.RIOReceiveEx(doubles.queue, nullptr, 0, nullptr, nullptr, nullptr, nullptr, 0, nullptr));
  EXPECT_TRUE(table.RIOSend(reinterpret_cast<RIO_RQ>(1), nullptr, 0, 0, nullptr))
      << "a queue that is not known";
  EXPECT_EQ(doubles.rio_calls, 5);
  EXPECT_EQ(model.QuerySocket(77, false).send_count, 2u);
  EXPECT_EQ(model.QuerySocket(77, false).rio_send_count, 2u);
  model.RemoveSocket(77);

  // A wrapper whose provider is not known fails as an uninitialised provider does.
  auto& provider = ExtensionFunctions();
  provider.RIOSend = nullptr;
  provider.RIOCreateRequestQueue = nullptr;
  EXPECT_FALSE(table.RIOSend(doubles.queue, nullptr, 0, 0, nullptr));
  EXPECT_EQ(WSAGetLastError(), WSAEPROVIDERFAILEDINIT);
  EXPECT_EQ(table.RIOCreateRequestQueue(77, 0, 0, 0, 0, nullptr, nullptr, nullptr), nullptr);
  EXPECT_FALSE(CNetMgr::ConnectEx(1, nullptr, 0, nullptr, 0, nullptr, nullptr));
  EXPECT_EQ(CNetMgr::WSASendMsg(1, nullptr, 0, nullptr, nullptr, nullptr), -1);
  EXPECT_EQ(CNetMgr::WSARecvMsg(1, nullptr, nullptr, nullptr, nullptr), -1);
  EXPECT_EQ(WSAGetLastError(), WSAEPROVIDERFAILEDINIT);
}

// ---- DnsQueryEx ----

void WINAPI QueryCallback(PVOID, PDNS_QUERY_RESULT) { ADD_FAILURE() << "the query was synchronous"; }

TEST_F(NetDoubles, QueryIsMadeSynchronousAndRemembered) {
  DNS_RECORDW record{};
  record.wType = DNS_TYPE_A;
  record.Data.A.IpAddress = Local(101).v4.sin_addr.s_addr;
  doubles.dns_records = reinterpret_cast<PDNS_RECORD>(&record);
  DNS_QUERY_REQUEST request{};
  request.Version = 1;
  request.QueryName = L"ex.test";
  request.pQueryCompletionCallback = &QueryCallback;
  request.pQueryContext = &request;
  DNS_QUERY_RESULT results{};
  EXPECT_EQ(query_ex(&request, &results, nullptr), ERROR_SUCCESS);
  EXPECT_EQ(doubles.seen_request.pQueryCompletionCallback, nullptr);
  EXPECT_EQ(doubles.seen_request.pQueryContext, nullptr);
  EXPECT_EQ(doubles.net_call, 1);
  EXPECT_EQ(request.pQueryCompletionCallback, &QueryCallback);
  EXPECT_EQ(request.pQueryContext, &request);
  EXPECT_EQ(NameOf(101), L"ex.test");

  // The resolver's own query within a query goes through as it is.
  GetThreadState()->bInNetCall = 1;
  query_ex(&request, &results, nullptr);
  EXPECT_EQ(doubles.seen_request.pQueryCompletionCallback, &QueryCallback);
  GetThreadState()->bInNetCall = 0;

  doubles.dns_status = DNS_ERROR_RCODE_NAME_ERROR;
  record.Data.A.IpAddress = Local(102).v4.sin_addr.s_addr;
  EXPECT_EQ(query_ex(&request, &results, nullptr), DNS_ERROR_RCODE_NAME_ERROR);
  EXPECT_EQ(NameOf(102), L"");
}

TEST_F(NetDoubles, UnreadableRequestsPassUnchanged) {
  EXPECT_EQ(query_ex(nullptr, nullptr, nullptr), ERROR_SUCCESS);
  EXPECT_EQ(doubles.net_call, 0);
  auto* page = static_cast<DNS_QUERY_REQUEST*>(VirtualAlloc(nullptr, 4096, MEM_COMMIT, PAGE_READWRITE));
  page->pQueryCompletionCallback = &QueryCallback;
  page->QueryName = L"readonly.test";
  DWORD old = 0;
  VirtualProtect(page, 4096, PAGE_READONLY, &old);
  EXPECT_EQ(query_ex(page, nullptr, nullptr), ERROR_SUCCESS);
  EXPECT_EQ(doubles.seen_request.pQueryCompletionCallback, &QueryCallback);
  EXPECT_EQ(doubles.net_call, 0);
  VirtualFree(page, 0, MEM_RELEASE);
}

}  // namespace
}  // namespace VornCore::test
