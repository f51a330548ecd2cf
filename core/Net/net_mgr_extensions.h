// The provider's own extension functions, as WSAIoctl handed them out last. Null until then. Process-wide;
// written by WSAIoctl, read by the wrappers that the application got in their place.
#pragma once

#include <atomic>

#include "Platform/net_types.h"

namespace VornCore {

struct ProviderFunctions {
  std::atomic<LPFN_CONNECTEX> ConnectEx = nullptr;
  std::atomic<LPFN_WSARECVMSG> WSARecvMsg = nullptr;
  std::atomic<LPFN_WSASENDMSG> WSASendMsg = nullptr;
  std::atomic<LPFN_RIORECEIVE> RIOReceive = nullptr;
  std::atomic<LPFN_RIORECEIVEEX> RIOReceiveEx = nullptr;
  std::atomic<LPFN_RIOSEND> RIOSend = nullptr;
  std::atomic<LPFN_RIOSENDEX> RIOSendEx = nullptr;
  std::atomic<LPFN_RIOCREATEREQUESTQUEUE> RIOCreateRequestQueue = nullptr;
};

ProviderFunctions& ExtensionFunctions() noexcept;

}  // namespace VornCore
