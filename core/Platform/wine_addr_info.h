// On Windows getaddrinfo is a wrapper around GetAddrInfoW, so that whoever intercepts the latter sees both.
// On Wine it is the other way round: there getaddrinfo is intercepted in place of GetAddrInfoW, behind the
// same dispatcher.
//
//   getaddrinfo ──► entry ──► dispatcher of GetAddrInfoW ──► CallOriginal ──► bridge ──► real getaddrinfo
//   GetAddrInfoW ─┘
#pragma once

namespace VornCore::platform::wine {

void* AddrInfoDispatcher(void* dispatcher);
void* AddrInfoOriginal(void* original);

}  // namespace VornCore::platform::wine
