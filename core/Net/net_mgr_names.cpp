// Name resolution: every successful answer feeds the cache that ties addresses back to names. Queries that
// the application asked to run asynchronously are run to their end inside the call, because their answer must
// be known before the application connects to it.
#include <cstring>
#include <new>

#include "Net/dns_cache.h"
#include "Net/net_mgr.h"
#include "Net/net_mgr_handler.h"
#include "Platform/last_error.h"
#include "Platform/untrusted.h"
#include "Platform/winsock.h"
#include "VornCore/Base/log.h"
#include "windows/unique_handle.h"

namespace VornCore {
namespace {

constexpr DWORD kQueryTimeout = 30'000;  // milliseconds

// The record list of a successful DnsQuery_*, or null.
const DNS_RECORD* RecordsOf(DNS_STATUS status, PDNS_RECORD* results) noexcept {
  PDNS_RECORD list = nullptr;
  return status == ERROR_SUCCESS && platform::ReadGuarded(results, list) ? list : nullptr;
}

// The three forms of DnsQuery_*, which differ in the encoding of the name.
template <class Name, class Query>
DNS_STATUS RunDnsQuery(const Name* name, PDNS_RECORD* results, const Query& query) {
  NetHandler handler;
  const DNS_STATUS status = handler.RealInNetCall(query);
  platform::LastErrorKeeper keep;
  GetDnsCache().AddDnsRecords(name, RecordsOf(status, results));
  return status;
}

// An overlapped GetAddrInfoExW that runs on storage of the library's own: the caller's OVERLAPPED and result
// may be gone when a query ends that nobody waits for any more.
struct OverlappedQuery {
  OVERLAPPED overlapped = {};
  vorn::windows::UniqueHandle event;  // in overlapped
  PADDRINFOEXW result = nullptr;
  HANDLE name_handle = nullptr;  // cancels the query
  OverlappedQuery* next = nullptr;

  bool Ended() const { return WaitForSingleObject(event.get(), 0) == WAIT_OBJECT_0; }
};

// Null when the caller gave no OVERLAPPED, or none can be made: the query then runs synchronously.
OverlappedQuery* NewQuery(const OVERLAPPED* caller) noexcept {
  auto* query = caller ? new (std::nothrow) OverlappedQuery : nullptr;
  if (!query) return nullptr;
  const bool copied = platform::ReadGuarded(caller, query->overlapped);
  if (copied) query->event.reset(CreateEventW(nullptr, TRUE, FALSE, nullptr));
  query->overlapped.hEvent = query->event.get();
  if (query->event) return query;
  delete query;
  return nullptr;
}

// Queries that were given up: kept until the system has ended them.
class AbandonedQueries {
 public:
  void Add(OverlappedQuery* query) noexcept {
    platform::LockGuard lock(lock_);
    query->next = first_;
    first_ = query;
  }

  void FreeEnded() noexcept {
    platform::LockGuard lock(lock_);
    for (OverlappedQuery** link = &first_; *link;) {
      OverlappedQuery* query = *link;
      if (!query->Ended()) {
        link = &query->next;
        continue;
      }
      *link = query->next;
      if (query->result && platform::Winsock().FreeAddrInfoExW)
        platform::Winsock().FreeAddrInfoExW(query->result);
      delete query;
    }
  }

 private:
  platform::CriticalSection lock_;
  OverlappedQuery* first_ = nullptr;
};

AbandonedQueries& Abandoned() noexcept {
  static AbandonedQueries queries;
  return queries;
}

// Waits for a pending query. Its final result, or 11004 when it does not end in time; the query then still
// belongs to the system: ended is false.
INT WaitForQuery(OverlappedQuery* query, bool& ended) noexcept {
  const DWORD wait = platform::Winsock().WaitForSingleObject(query->overlapped.hEvent, kQueryTimeout);
  ended = wait == WAIT_OBJECT_0;
  if (ended) return static_cast<INT>(query->overlapped.Internal);
  VORN_LOG_N("Dns Wait Event ret:%d, error:%d", static_cast<int>(wait), static_cast<int>(GetLastError()));
  SetLastError(WSANO_DATA);
  return WSANO_DATA;
}

// What the caller's OVERLAPPED shows of the ended query.
void CompleteCallerQuery(const OverlappedQuery& query, LPOVERLAPPED caller, PADDRINFOEXW* result) noexcept {
  OVERLAPPED ended = query.overlapped;
  if (ended.Pointer == &query.result) ended.Pointer = result;
  HANDLE event = nullptr;
  (void)platform::Guarded([&] {
    caller->Internal = ended.Internal;
    caller->InternalHigh = ended.InternalHigh;
    caller->Pointer = ended.Pointer;
    event = caller->hEvent;
  });
  if (event) SetEvent(event);
}

}  // namespace

hostent* CNetMgr::gethostbyname(const char* name, bool*) {
  NetHandler handler;
  hostent* answer = handler.RealInNetCall([&] { return Ws2_32::CallOriginalgethostbyname(name); });
  platform::LastErrorKeeper keep;
  if (answer) GetDnsCache().AddHostent(name, answer);
  return answer;
}

INT CNetMgr::GetAddrInfoW(PCWSTR pNodeName, PCWSTR pServiceName, const ADDRINFOW* pHints,
                          PADDRINFOW* ppResult, bool*) {
  NetHandler handler;
  const INT result = handler.RealInNetCall(
      [&] { return Ws2_32::CallOriginalGetAddrInfoW(pNodeName, pServiceName, pHints, ppResult); });
  platform::LastErrorKeeper keep;
  PADDRINFOW list = nullptr;
  if (result == 0 && platform::ReadGuarded(ppResult, list)) GetDnsCache().AddAddrInfo(pNodeName, list);
  return result;
}

INT CNetMgr::GetAddrInfoExW(PCWSTR pName, PCWSTR pServiceName, DWORD dwNameSpace, LPGUID lpNspId,
                            const ADDRINFOEXW* hints, PADDRINFOEXW* ppResult, timeval* timeout,
                            LPOVERLAPPED lpOverlapped, LPLOOKUPSERVICE_COMPLETION_ROUTINE lpCompletionRoutine,
                            LPHANDLE lpHandle, bool*) {
  NetHandler handler;
  if (dwNameSpace != NS_DNS)
    return handler.Real([&] {
      return Ws2_32::CallOriginalGetAddrInfoExW(pName, pServiceName, dwNameSpace, lpNspId, hints, ppResult,
                                                timeout, lpOverlapped, lpCompletionRoutine, lpHandle);
    });

  Abandoned().FreeEnded();
  OverlappedQuery* query = NewQuery(lpOverlapped);
  PADDRINFOEXW* const answer = query && ppResult ? &query->result : ppResult;
  INT result = handler.RealInNetCall([&] {
    return Ws2_32::CallOriginalGetAddrInfoExW(pName, pServiceName, dwNameSpace, lpNspId, hints, answer,
                                              timeout, query ? &query->overlapped : nullptr, nullptr,
                                              query && !lpHandle ? &query->name_handle : lpHandle);
  });
  bool ended = true;
  if (result == WSA_IO_PENDING) {
    if (query) {
      result = WaitForQuery(query, ended);
    } else {
      VORN_LOG_N("Dns Wait Event nil.");
      SetLastError(WSANO_DATA);
      result = WSANO_DATA;
    }
    if (query && ended) CompleteCallerQuery(*query, lpOverlapped, ppResult);
  }
  platform::LastErrorKeeper keep;
  if (query && ended) {
    if (ppResult) platform::WriteGuarded(ppResult, query->result);
    delete query;
  } else if (query) {
    if (query->name_handle && platform::Winsock().GetAddrInfoExCancel)
      platform::Winsock().GetAddrInfoExCancel(&query->name_handle);
    Abandoned().Add(query);
  }
  PADDRINFOEXW list = nullptr;
  if (result == 0 && platform::ReadGuarded(ppResult, list)) GetDnsCache().AddAddrInfoEx(pName, list);
  return result;
}

// ---- dnsapi ----

DNS_STATUS CNetMgr::DnsQuery_A(PCSTR pszName, WORD wType, DWORD Options, PVOID pExtra,
                               PDNS_RECORD* ppQueryResults, PVOID* pReserved, bool*) {
  return RunDnsQuery(pszName, ppQueryResults, [&] {
    return Dnsapi::CallOriginalDnsQuery_A(pszName, wType, Options, pExtra, ppQueryResults, pReserved);
  });
}

DNS_STATUS CNetMgr::DnsQuery_UTF8(PCSTR pszName, WORD wType, DWORD Options, PVOID pExtra,
                                  PDNS_RECORD* ppQueryResults, PVOID* pReserved, bool*) {
  return RunDnsQuery(pszName, ppQueryResults, [&] {
    return Dnsapi::CallOriginalDnsQuery_UTF8(pszName, wType, Options, pExtra, ppQueryResults, pReserved);
  });
}

DNS_STATUS CNetMgr::DnsQuery_W(PCWSTR pszName, WORD wType, DWORD Options, PVOID pExtra,
                               PDNS_RECORD* ppQueryResults, PVOID* pReserved, bool*) {
  return RunDnsQuery(pszName, ppQueryResults, [&] {
    return Dnsapi::CallOriginalDnsQuery_W(pszName, wType, Options, pExtra, ppQueryResults, pReserved);
  });
}

DNS_STATUS CNetMgr::DnsQueryEx(PDNS_QUERY_REQUEST pQueryRequest, PDNS_QUERY_RESULT pQueryResults,
                               PDNS_QUERY_CANCEL pCancelHandle, bool*) {
  NetHandler handler;
  const auto query = [&] {
    return Dnsapi::CallOriginalDnsQueryEx(pQueryRequest, pQueryResults, pCancelHandle);
  };
  const auto set_callback = [&](DNS_QUERY_COMPLETION_ROUTINE* callback, PVOID context) {
    return platform::Guarded([&] {
      pQueryRequest->pQueryCompletionCallback = callback;
      pQueryRequest->pQueryContext = context;
    });
  };
  DNS_QUERY_REQUEST request;
  // Without a callback the query is synchronous.
  if (handler.in_net_call() || !platform::ReadGuarded(pQueryRequest, request) ||
      !set_callback(nullptr, nullptr))
    return handler.Real(query);

  const DNS_STATUS status = handler.RealInNetCall([&] {
    DNS_STATUS answer = ERROR_SUCCESS;
    platform::WithFinally(
        [&] { answer = query(); },
        [&] { (void)set_callback(request.pQueryCompletionCallback, request.pQueryContext); });
    return answer;
  });
  platform::LastErrorKeeper keep;
  DNS_QUERY_RESULT results;
  if (status == ERROR_SUCCESS && request.QueryName && pQueryResults &&
      platform::ReadGuarded(pQueryResults, results))
    GetDnsCache().AddDnsRecords(request.QueryName, results.pQueryRecords);
  return status;
}

}  // namespace VornCore
