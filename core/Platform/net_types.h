// Winsock and DNS client types, with those that mingw-w64's headers lack. Types only: nothing here is
// imported.
#pragma once

#include "Platform/nt.h"
// (the Winsock headers come after nt.h, which fixes their order)
#include <windns.h>
#include <ws2tcpip.h>

// windns.h has the result of an asynchronous query, but not its request. Version 1 (Windows 8).
typedef struct _DNS_QUERY_REQUEST {
  ULONG Version;
  PCWSTR QueryName;
  WORD QueryType;
  ULONG64 QueryOptions;
  PVOID pDnsServerList;
  ULONG InterfaceIndex;
  DNS_QUERY_COMPLETION_ROUTINE* pQueryCompletionCallback;  // null: the call is synchronous
  PVOID pQueryContext;
} DNS_QUERY_REQUEST, *PDNS_QUERY_REQUEST;

typedef struct _DNS_QUERY_CANCEL {
  CHAR Reserved[32];
} DNS_QUERY_CANCEL, *PDNS_QUERY_CANCEL;
