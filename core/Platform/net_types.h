// Winsock and DNS client types, with those that mingw-w64's headers lack. Types only: nothing here is
// imported.
#pragma once

#include "windows/nt.h"
// (the Winsock headers come after nt.h, which fixes their order)
#include <mswsock.h>
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

// Registered I/O (Windows 8). Handles of queues and buffers.
typedef struct RIO_BUFFERID_t *RIO_BUFFERID, **PRIO_BUFFERID;
typedef struct RIO_CQ_t *RIO_CQ, **PRIO_CQ;
typedef struct RIO_RQ_t *RIO_RQ, **PRIO_RQ;
typedef struct _RIO_BUF {
  RIO_BUFFERID BufferId;
  ULONG Offset;
  ULONG Length;
} RIO_BUF, *PRIO_BUF;

typedef BOOL(PASCAL FAR* LPFN_RIORECEIVE)(RIO_RQ queue, PRIO_BUF data, ULONG count, DWORD flags,
                                          PVOID context);
typedef int(PASCAL FAR* LPFN_RIORECEIVEEX)(RIO_RQ queue, PRIO_BUF data, ULONG count, PRIO_BUF local,
                                           PRIO_BUF remote, PRIO_BUF control, PRIO_BUF flags_out, DWORD flags,
                                           PVOID context);
typedef BOOL(PASCAL FAR* LPFN_RIOSEND)(RIO_RQ queue, PRIO_BUF data, ULONG count, DWORD flags, PVOID context);
typedef BOOL(PASCAL FAR* LPFN_RIOSENDEX)(RIO_RQ queue, PRIO_BUF data, ULONG count, PRIO_BUF local,
                                         PRIO_BUF remote, PRIO_BUF control, PRIO_BUF flags_out, DWORD flags,
                                         PVOID context);
typedef RIO_RQ(PASCAL FAR* LPFN_RIOCREATEREQUESTQUEUE)(SOCKET socket, ULONG max_receives,
                                                       ULONG max_receive_buffers, ULONG max_sends,
                                                       ULONG max_send_buffers, RIO_CQ receive_cq,
                                                       RIO_CQ send_cq, PVOID context);

typedef struct _RIO_EXTENSION_FUNCTION_TABLE {
  DWORD cbSize;
  LPFN_RIORECEIVE RIOReceive;
  LPFN_RIORECEIVEEX RIOReceiveEx;
  LPFN_RIOSEND RIOSend;
  LPFN_RIOSENDEX RIOSendEx;
  PVOID RIOCloseCompletionQueue;
  PVOID RIOCreateCompletionQueue;
  LPFN_RIOCREATEREQUESTQUEUE RIOCreateRequestQueue;
  PVOID RIODequeueCompletion;
  PVOID RIODeregisterBuffer;
  PVOID RIONotify;
  PVOID RIORegisterBuffer;
  PVOID RIOResizeCompletionQueue;
  PVOID RIOResizeRequestQueue;
} RIO_EXTENSION_FUNCTION_TABLE, *PRIO_EXTENSION_FUNCTION_TABLE;
static_assert(sizeof(RIO_EXTENSION_FUNCTION_TABLE) == 14 * sizeof(void*));

#define WSAID_MULTIPLE_RIO                                                         \
  {                                                                                \
    0x8509e081, 0x96dd, 0x4005, { 0xb1, 0x65, 0x9e, 0x2e, 0xe8, 0xc7, 0x9e, 0x3f } \
  }

#ifndef SIO_GET_MULTIPLE_EXTENSION_FUNCTION_POINTER
#define SIO_GET_MULTIPLE_EXTENSION_FUNCTION_POINTER _WSAIORW(IOC_WS2, 36)
#endif
#ifndef SO_UPDATE_CONNECT_CONTEXT
#define SO_UPDATE_CONNECT_CONTEXT 0x7010
#endif
static_assert(SIO_GET_EXTENSION_FUNCTION_POINTER == 0xC8000006 &&
              SIO_GET_MULTIPLE_EXTENSION_FUNCTION_POINTER == 0xC8000024);
