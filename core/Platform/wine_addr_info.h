// On Windows getaddrinfo is a front of GetAddrInfoW, so that whoever intercepts the latter sees both. On Wine
// it is the other way round: there getaddrinfo is intercepted in place of GetAddrInfoW, behind the same
// dispatcher.
//
//   getaddrinfo ──► thunk ──► dispatcher of GetAddrInfoW ──► CallOriginal ──► bridge ──► real getaddrinfo
//   GetAddrInfoW ─┘
#pragma once

#include <windows.h>

namespace VornCore::platform::wine {

void* AddrInfoTarget(HMODULE ws2_32) noexcept;
void* AddrInfoDispatcher(void* dispatcher) noexcept;
void* AddrInfoOriginal(void* original) noexcept;

}  // namespace VornCore::platform::wine
