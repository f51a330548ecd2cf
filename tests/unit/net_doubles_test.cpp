// What the test machine's Windows lacks, stood in for by functions that this program exports: registered I/O,
// the request form of DNS queries, and name queries that end when the test wants. The library's hooks are
// installed in this program as they would be in ws2_32 and dnsapi.
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
  // GetAddrInfoExW
  bool pending = false;
  INT final_status = 0;
  ADDRINFOEXW answer{};
  LPOVERLAPPED overlapped = nullptr;
  PADDRINFOEXW* result = nullptr;
  LPVOID routine = nullptr;
  int cancelled = 0, freed = 0;
  DWORD waited = 0;

  void End(INT status) {
    overlapped->Internal = static_cast<ULONG_PTR>(status);
    overlapped->Pointer = result;
    *result = status ? nullptr : &answer;
    SetEvent(overlapped->hEvent);
  }
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
const RIO_EXTENSION_FUNCTION_TABLE kProviderTable = {
    .cbSize = sizeof(RIO_EXTENSION_FUNCTION_TABLE),
    .RIOReceive = &Send,
    .RIOReceiveEx = &ReceiveEx,
    .RIOSend = &Send,
    .RIOSendEx = &SendEx,
    .RIOCloseCompletionQueue = reinterpret_cast<PVOID>(1),
    .RIOCreateCompletionQueue = reinterpret_cast<PVOID>(2),
    .RIOCreateRequestQueue = &CreateQueue,
    .RIODequeueCompletion = reinterpret_cast<PVOID>(3),
    .RIODeregisterBuffer = reinterpret_cast<PVOID>(4),
    .RIONotify = reinterpret_cast<PVOID>(5),
    .RIORegisterBuffer = reinterpret_cast<PVOID>(6),
    .RIOResizeCompletionQueue = reinterpret_cast<PVOID>(7),
    .RIOResizeRequestQueue = reinterpret_cast<PVOID>(8),
};

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

INT WSAAPI DoubleGetAddrInfoExW(PCWSTR, PCWSTR, DWORD, LPGUID, const ADDRINFOEXW*, PADDRINFOEXW* result,
                                timeval*, LPOVERLAPPED overlapped, LPLOOKUPSERVICE_COMPLETION_ROUTINE routine,
                                LPHANDLE handle) {
  doubles.overlapped = overlapped;
  doubles.result = result;
  doubles.routine = reinterpret_cast<LPVOID>(routine);
  doubles.net_call = GetThreadState()->bInNetCall;
  if (handle) *handle = reinterpret_cast<HANDLE>(0x44);
  if (!overlapped) {
    *result = &doubles.answer;
    return doubles.final_status;
  }
  if (!doubles.pending) doubles.End(doubles.final_status);
  return WSA_IO_PENDING;
}
}

namespace {

using Ioctl = decltype(&DoubleWSAIoctl);
using QueryEx = decltype(&DoubleDnsQueryEx);
using AddrInfoEx = decltype(&DoubleGetAddrInfoExW);

class NetDoubles : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    static bool installed = false;  // (each suite comes through here)
    if (installed) return;
    installed = true;
    NetConfinement::Get();
    GetNetMgr().Init();
    CNetMgr::OnWs2_32Loaded(GetModuleHandleW(nullptr), L"");
    CNetMgr::OnDnsapiLoaded(GetModuleHandleW(nullptr), L"");
  }
  void SetUp() override {
    doubles = {};
    // (a pointer that the compiler cannot see through: the hooks patch the functions, not their callers)
    ioctl = reinterpret_cast<Ioctl>(GetProcAddress(GetModuleHandleW(nullptr), "WSAIoctl"));
    query_ex = reinterpret_cast<QueryEx>(GetProcAddress(GetModuleHandleW(nullptr), "DnsQueryEx"));
    addr_info_ex = reinterpret_cast<AddrInfoEx>(GetProcAddress(GetModuleHandleW(nullptr), "GetAddrInfoExW"));
  }

  static std::wstring NameOf(std::uint8_t last) {
    DomainName name;
    const Address address = Local(last);
    GetDnsCache().FindDomainByAddress(&address.any, sizeof address.v4, name);
    return std::wstring(name.view());
  }

  Ioctl ioctl;
  QueryEx query_ex;
  AddrInfoEx addr_info_ex;
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

// ---- GetAddrInfoExW ----

class NetDoublesAddrInfo : public NetDoubles {
 protected:
  void SetUp() override {
    NetDoubles::SetUp();
    original_ = platform::Winsock();
    platform::Winsock().WaitForSingleObject = [](HANDLE event, DWORD milliseconds) -> DWORD {
      doubles.waited = milliseconds;
      return WaitForSingleObject(event, 0);  // a query that has not ended yet does not end in time
    };
    platform::Winsock().GetAddrInfoExCancel = [](HANDLE* handle) -> INT {
      EXPECT_EQ(*handle, reinterpret_cast<HANDLE>(0x44));
      return ++doubles.cancelled, 0;
    };
    platform::Winsock().FreeAddrInfoExW = [](PADDRINFOEXW list) {
      EXPECT_EQ(list, &doubles.answer);
      ++doubles.freed;
    };
  }
  void TearDown() override { platform::Winsock() = original_; }

  INT Query(std::uint8_t last, DWORD name_space, OVERLAPPED* overlapped, HANDLE* handle = nullptr) {
    address_ = Local(last);
    doubles.answer.ai_addr = &address_.any;
    doubles.answer.ai_addrlen = sizeof address_.v4;
    result_ = nullptr;
    return addr_info_ex(L"info.test", nullptr, name_space, nullptr, nullptr, &result_, nullptr, overlapped,
                        reinterpret_cast<LPLOOKUPSERVICE_COMPLETION_ROUTINE>(&QueryCallback), handle);
  }

  platform::WinsockApi original_;
  Address address_;
  PADDRINFOEXW result_ = nullptr;
};

TEST_F(NetDoublesAddrInfo, OverlappedDnsQueryIsWaitedFor) {
  OVERLAPPED overlapped{};
  EXPECT_EQ(Query(111, NS_DNS, &overlapped), 0);
  EXPECT_EQ(doubles.waited, 30'000u);
  EXPECT_EQ(doubles.routine, nullptr);
  EXPECT_EQ(doubles.net_call, 1);
  EXPECT_EQ(overlapped.Internal, 0u);
  EXPECT_EQ(overlapped.Pointer, &result_);
  EXPECT_EQ(NameOf(111), L"info.test");

  EXPECT_EQ(Query(122, NS_ALL, nullptr), 0);
  EXPECT_NE(doubles.routine, nullptr) << "not touched";
  EXPECT_EQ(doubles.net_call, 0);
  EXPECT_EQ(NameOf(122), L"");
}

TEST_F(NetDoublesAddrInfo, StorageOfAnAbandonedQueryLivesUntilTheQueryEnds) {
  doubles.pending = true;
  {
    OVERLAPPED overlapped{};
    EXPECT_EQ(Query(131, NS_DNS, &overlapped), WSANO_DATA);
    EXPECT_EQ(WSAGetLastError(), WSANO_DATA);
    EXPECT_EQ(doubles.cancelled, 1);
    EXPECT_NE(doubles.overlapped, &overlapped) << "the caller's may be gone when the query ends";
    EXPECT_NE(doubles.result, &result_);
  }
  Doubles late = doubles;  // the abandoned query, while others come
  doubles.pending = false;
  EXPECT_EQ(Query(132, NS_DNS, nullptr), 0);
  EXPECT_EQ(doubles.freed, 0);
  late.End(0);
  late.answer = {};
  EXPECT_EQ(*late.result, &late.answer);
  *late.result = &doubles.answer;
  EXPECT_EQ(Query(133, NS_DNS, nullptr), 0);
  EXPECT_EQ(doubles.freed, 1) << "its late answer";
  EXPECT_EQ(Query(133, NS_DNS, nullptr), 0);
  EXPECT_EQ(doubles.freed, 1);
  EXPECT_EQ(NameOf(131), L"");
}

}  // namespace
}  // namespace VornCore::test
