// The life of a socket: creation, binding, connecting, closing. And the start of Winsock.
#include <atomic>
#include <cstring>

#include "Net/dns_cache.h"
#include "Net/net_mgr.h"
#include "Net/net_mgr_handler.h"
#include "Platform/last_error.h"
#include "Policy/message.h"
#include "VornCore/Base/channel.h"
#include "VornCore/Base/log.h"

namespace VornCore {
namespace {

using net_helper::SocketAddress;

// The names that the system resolved before the library came. A fault in the resolver's cache is no reason to
// end.
bool InitCachedDns() noexcept {
  const bool loaded = platform::Guarded([] { GetDnsCache().LoadSystemCache(); });
  if (!loaded) VORN_LOG_W("InitCachedDns Crash!");
  SendSample(1, 0, 0, vorn::policy::kSubtypeSampleDnsCache, nullptr);
  return loaded;
}

std::atomic<bool> g_dns_cache_begun = false, g_dns_cache_failed = false;

}  // namespace

int CNetMgr::WSAStartup(WORD wVersionRequested, LPWSADATA lpWSAData, bool*) {
  NetHandler handler;
  const int result =
      handler.Real([&] { return Ws2_32::CallOriginalWSAStartup(wVersionRequested, lpWSAData); });
  if (result != 0) return result;
  platform::LastErrorKeeper keep;
  // Once. Nobody waits for the thread that does it: it loads a module, and the other may be inside the
  // loader.
  if (!g_dns_cache_begun.exchange(true) && !InitCachedDns()) g_dns_cache_failed = true;
  if (g_dns_cache_failed) VORN_LOG_N("InitWSAStratup failed!");
  return result;
}

SOCKET CNetMgr::WSASocketW(int af, int type, int protocol, LPWSAPROTOCOL_INFOW lpProtocolInfo, GROUP g,
                           DWORD dwFlags, bool*) {
  NetHandler handler;
  const SOCKET s = handler.Real(
      [&] { return Ws2_32::CallOriginalWSASocketW(af, type, protocol, lpProtocolInfo, g, dwFlags); });
  if (s == INVALID_SOCKET || handler.in_net_call()) return s;

  platform::LastErrorKeeper keep;
  WSAPROTOCOL_INFOW info{};
  int bytes = sizeof info;
  const bool known =
      net_helper::getsockopt(s, SOL_SOCKET, SO_PROTOCOL_INFOW, reinterpret_cast<char*>(&info), &bytes) == 0;
  const auto ip_protocol = static_cast<std::uint32_t>(known ? info.iProtocol : protocol);
  const auto family = static_cast<std::uint32_t>(known ? info.iAddressFamily : af);
  // A handle that is new cannot have a record, unless its last owner closed it behind Winsock's back.
  model_.RemoveSocket(s);
  if (ip_protocol == kProtocolTcp || ip_protocol == kProtocolUdp) model_.AddSocket(ip_protocol, family, s);
  return s;
}

int CNetMgr::bind(SOCKET s, const sockaddr* name, int namelen, bool*) {
  NetHandler handler;
  const int result = handler.Real([&] { return Ws2_32::CallOriginalbind(s, name, namelen); });
  if (result != 0) return result;
  platform::LastErrorKeeper keep;
  SocketAddress local;
  std::int32_t length = 0;
  if (!net_helper::ReadLocalAddress(s, local, &length)) return result;
  const net_helper::SockaddrAdapter adapter(local.get(), static_cast<std::uint32_t>(length));
  SocketAddress bound{};
  if (adapter.Length() > sizeof bound.bytes) return result;
  memcpy(bound.bytes, adapter.Address(), adapter.Length());
  model_.SetBoundAddress(s, bound);
  return result;
}

int CNetMgr::connect(SOCKET s, const sockaddr* name, int namelen, bool*) {
  NetHandler handler;
  if (!CheckConnect(s, name, static_cast<std::uint32_t>(namelen))) return Fail(SOCKET_ERROR, WSAENETUNREACH);
  return handler.Real([&] { return Ws2_32::CallOriginalconnect(s, name, namelen); });
}

int CNetMgr::WSAConnect(SOCKET s, const sockaddr* name, int namelen, LPWSABUF lpCallerData,
                        LPWSABUF lpCalleeData, LPQOS lpSQOS, LPQOS lpGQOS, bool*) {
  NetHandler handler;
  if (!CheckConnect(s, name, static_cast<std::uint32_t>(namelen))) return Fail(SOCKET_ERROR, WSAENETUNREACH);
  return handler.Real([&] {
    return Ws2_32::CallOriginalWSAConnect(s, name, namelen, lpCallerData, lpCalleeData, lpSQOS, lpGQOS);
  });
}

int CNetMgr::closesocket(SOCKET s, bool*) {
  NetHandler handler;
  contexts_.ReleaseSocketContexts(s);
  // The handle's number may be given out again as soon as it is closed: the record goes first, and no other
  // closing comes in between.
  platform::LockGuard lock(close_lock_);
  if (s != INVALID_SOCKET) model_.RemoveSocket(s);
  return handler.Real([&] { return Ws2_32::CallOriginalclosesocket(s); });
}

}  // namespace VornCore
