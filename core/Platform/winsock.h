// Winsock and DNS client functions that the library calls and does not intercept. It imports neither module:
// the functions are looked up once, when the first of them is needed, and one that is missing stays missing.
//
// Tests replace single entries to inject failures and to stand in for functions that an implementation lacks
// (the resolver's cache exists on Windows alone). Written by tests only; read from any thread without a lock.
#pragma once

#include "Platform/net_types.h"

namespace VornCore::platform {

// The resolver's cache as one record list, released with DnsFree(list, DnsFreeRecordList). 0 on success. An
// export without public documentation.
using DnsGetCacheRecordsFn = DNS_STATUS(WINAPI*)(void* reserved, DNS_RECORDW** list);

struct WinsockApi {  // entries may be null
  decltype(&::getpeername) getpeername;
  decltype(&::getsockname) getsockname;
  decltype(&::getsockopt) getsockopt;
  decltype(&::setsockopt) setsockopt;
  decltype(&::inet_ntop) inet_ntop;
  decltype(&::ntohs) ntohs;
  decltype(&::ntohl) ntohl;
  INT(WSAAPI* GetAddrInfoExCancel)(HANDLE* query);
  void(WSAAPI* FreeAddrInfoExW)(PADDRINFOEXW list);
  decltype(&::WaitForSingleObject) WaitForSingleObject;  // for the end of a name query
};

struct DnsApi {
  bool loaded;
  DnsGetCacheRecordsFn DnsGetCacheRecords;
  decltype(&::DnsFree) DnsFree;
};

// ws2_32.dll: the module that the process has, else loaded and kept.
HMODULE GetWinsockModule() noexcept;

WinsockApi& Winsock() noexcept;
DnsApi& Dns() noexcept;

}  // namespace VornCore::platform
