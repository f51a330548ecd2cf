// The intercepted functions of dnsapi, in slot order (they are attached in another order, see dnsapi.cpp).
// Rows as in api_list_ntdll.h.
#pragma once

// clang-format off
#define VORN_DNSAPI_API(ROW) \
  ROW(FailWin32Code, DNS_STATUS, DnsQueryEx, PDNS_QUERY_REQUEST, pQueryRequest, PDNS_QUERY_RESULT, pQueryResults, PDNS_QUERY_CANCEL, pCancelHandle) \
  ROW(FailWin32Code, DNS_STATUS, DnsQuery_UTF8, PCSTR, pszName, WORD, wType, DWORD, Options, PVOID, pExtra, PDNS_RECORD*, ppQueryResults, PVOID*, pReserved) \
  ROW(FailWin32Code, DNS_STATUS, DnsQuery_A, PCSTR, pszName, WORD, wType, DWORD, Options, PVOID, pExtra, PDNS_RECORD*, ppQueryResults, PVOID*, pReserved) \
  ROW(FailWin32Code, DNS_STATUS, DnsQuery_W, PCWSTR, pszName, WORD, wType, DWORD, Options, PVOID, pExtra, PDNS_RECORD*, ppQueryResults, PVOID*, pReserved)
