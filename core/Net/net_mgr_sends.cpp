// Sends. A datagram is checked against its destination, or the connected peer when the call names none; a
// stream is not checked after its connection.
#include "Net/net_mgr.h"
#include "Net/net_mgr_handler.h"

namespace VornCore {
int CNetMgr::send(SOCKET s, const char* buf, int len, int flags, bool*) {
  NetHandler handler;
  CountSend(s, static_cast<std::uint32_t>(len));
  return handler.Real([&] { return Ws2_32::CallOriginalsend(s, buf, len, flags); });
}

int CNetMgr::WSASend(SOCKET s, LPWSABUF lpBuffers, DWORD dwBufferCount, LPDWORD lpNumberOfBytesSent,
                     DWORD dwFlags, LPWSAOVERLAPPED lpOverlapped,
                     LPWSAOVERLAPPED_COMPLETION_ROUTINE lpCompletionRoutine, bool*) {
  NetHandler handler;
  CountSend(s, dwBufferCount);
  return handler.Real([&] {
    return Ws2_32::CallOriginalWSASend(s, lpBuffers, dwBufferCount, lpNumberOfBytesSent, dwFlags,
                                       lpOverlapped, lpCompletionRoutine);
  });
}

int CNetMgr::sendto(SOCKET s, const char* buf, int len, int flags, const sockaddr* to, int tolen, bool*) {
  NetHandler handler;
  CountSend(s, static_cast<std::uint32_t>(len));
  if (!CheckTraffic(s, to, static_cast<std::uint32_t>(tolen), AuditType::kSend))
    return Fail(SOCKET_ERROR, WSAENETUNREACH);
  return handler.Real([&] { return Ws2_32::CallOriginalsendto(s, buf, len, flags, to, tolen); });
}

int CNetMgr::WSASendTo(SOCKET s, LPWSABUF lpBuffers, DWORD dwBufferCount, LPDWORD lpNumberOfBytesSent,
                       DWORD dwFlags, const sockaddr* lpTo, int iTolen, LPWSAOVERLAPPED lpOverlapped,
                       LPWSAOVERLAPPED_COMPLETION_ROUTINE lpCompletionRoutine, bool*) {
  NetHandler handler;
  CountSend(s, dwBufferCount);
  if (!CheckTraffic(s, lpTo, static_cast<std::uint32_t>(iTolen), AuditType::kSend))
    return Fail(SOCKET_ERROR, WSAENETUNREACH);
  return handler.Real([&] {
    return Ws2_32::CallOriginalWSASendTo(s, lpBuffers, dwBufferCount, lpNumberOfBytesSent, dwFlags, lpTo,
                                         iTolen, lpOverlapped, lpCompletionRoutine);
  });
}

}  // namespace VornCore
