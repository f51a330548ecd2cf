// WSAIoctl hands out functions that no module exports. The application gets wrappers in their place.
#include "Net/net_mgr_extensions.h"

#include <cstring>

#include "Net/net_mgr.h"
#include "Net/net_mgr_handler.h"
#include "Platform/untrusted.h"
#include "VornCore/Base/log.h"
#include "VornCore/Base/shared_data.h"

namespace VornCore {
namespace {

constexpr GUID kConnectEx = WSAID_CONNECTEX, kRecvMsg = WSAID_WSARECVMSG, kSendMsg = WSAID_WSASENDMSG,
               kMultipleRio = WSAID_MULTIPLE_RIO;

bool IsSameGuid(const GUID& id, const GUID& known) { return memcmp(&id, &known, sizeof id) == 0; }

// Keeps what the provider put into slot and puts the wrapper there.
template <class Function>
void Replace(Function& slot, std::atomic<Function>& provider, Function wrapper) {
  provider.store(slot);
  slot = wrapper;
}

template <class Function>
bool ReplaceOutput(void* output, std::atomic<Function>& provider, Function wrapper, const char* name) {
  Function function;
  if (!platform::CopyGuarded(&function, output, sizeof function)) return false;
  if (IsDebugLogEnabled())
    VORN_LOG_I("port_forward OnWs232WSAIoctl: get %s: 0x%p", name, reinterpret_cast<void*>(function));
  Replace(function, provider, wrapper);
  return platform::CopyGuarded(output, &function, sizeof function);
}

// ---- Registered I/O: sends are counted; datagrams are not checked, since their addresses lie in registered
// memory that the system reads later.

void CountRioSend(RIO_RQ queue) {
  SocketACLModel& model = GetNetMgr().model();
  const SOCKET s = model.FindSocketByRequestQueue(reinterpret_cast<std::uintptr_t>(queue));
  model.AddSendCount(s, 1);
  model.AddRioSendCount(s, 1);
}

BOOL PASCAL RioReceive(RIO_RQ queue, PRIO_BUF data, ULONG count, DWORD flags, PVOID context) {
  NetHandler handler;
  const auto original = ExtensionFunctions().RIOReceive.load();
  if (!original) return Fail(FALSE, WSAEPROVIDERFAILEDINIT);
  return handler.Real([&] { return original(queue, data, count, flags, context); });
}

int PASCAL RioReceiveEx(RIO_RQ queue, PRIO_BUF data, ULONG count, PRIO_BUF local, PRIO_BUF remote,
                        PRIO_BUF control, PRIO_BUF flags_out, DWORD flags, PVOID context) {
  NetHandler handler;
  const auto original = ExtensionFunctions().RIOReceiveEx.load();
  if (!original) return Fail(FALSE, WSAEPROVIDERFAILEDINIT);
  return handler.Real(
      [&] { return original(queue, data, count, local, remote, control, flags_out, flags, context); });
}

BOOL PASCAL RioSend(RIO_RQ queue, PRIO_BUF data, ULONG count, DWORD flags, PVOID context) {
  NetHandler handler;
  const auto original = ExtensionFunctions().RIOSend.load();
  if (!original) return Fail(FALSE, WSAEPROVIDERFAILEDINIT);
  CountRioSend(queue);
  return handler.Real([&] { return original(queue, data, count, flags, context); });
}

BOOL PASCAL RioSendEx(RIO_RQ queue, PRIO_BUF data, ULONG count, PRIO_BUF local, PRIO_BUF remote,
                      PRIO_BUF control, PRIO_BUF flags_out, DWORD flags, PVOID context) {
  NetHandler handler;
  const auto original = ExtensionFunctions().RIOSendEx.load();
  if (!original) return Fail(FALSE, WSAEPROVIDERFAILEDINIT);
  CountRioSend(queue);
  return handler.Real(
      [&] { return original(queue, data, count, local, remote, control, flags_out, flags, context); });
}

RIO_RQ PASCAL RioCreateRequestQueue(SOCKET s, ULONG max_receives, ULONG max_receive_buffers, ULONG max_sends,
                                    ULONG max_send_buffers, RIO_CQ receive_cq, RIO_CQ send_cq,
                                    PVOID context) {
  NetHandler handler;
  const auto original = ExtensionFunctions().RIOCreateRequestQueue.load();
  if (!original) return Fail(RIO_RQ{}, WSAEPROVIDERFAILEDINIT);
  RIO_RQ queue = handler.Real([&] {
    return original(s, max_receives, max_receive_buffers, max_sends, max_send_buffers, receive_cq, send_cq,
                    context);
  });
  if (queue) GetNetMgr().model().SetRequestQueue(s, reinterpret_cast<std::uintptr_t>(queue));
  return queue;
}

void WrapFunction(const GUID& id, void* output) {
  ProviderFunctions& provider = ExtensionFunctions();
  if (IsSameGuid(id, kConnectEx))
    ReplaceOutput(output, provider.ConnectEx, &CNetMgr::ConnectEx, "ConnectEx");
  else if (IsSameGuid(id, kRecvMsg))
    ReplaceOutput(output, provider.WSARecvMsg, &CNetMgr::WSARecvMsg, "RecvMsg");
  else if (IsSameGuid(id, kSendMsg))
    ReplaceOutput(output, provider.WSASendMsg, &CNetMgr::WSASendMsg, "SendMsg");
}

void WrapRioTable(const GUID& id, void* output, DWORD output_bytes) {
  RIO_EXTENSION_FUNCTION_TABLE table;
  if (!IsSameGuid(id, kMultipleRio) || output_bytes < sizeof table) return;
  if (!platform::CopyGuarded(&table, output, sizeof table)) return;
  if (IsDebugLogEnabled())
    VORN_LOG_I("port_forward OnWs232WSAIoctl: get MULTIPLE_RIO, cbSize=%u",
               static_cast<unsigned>(table.cbSize));
  ProviderFunctions& provider = ExtensionFunctions();
  Replace(table.RIOReceive, provider.RIOReceive, &RioReceive);
  Replace(table.RIOReceiveEx, provider.RIOReceiveEx, &RioReceiveEx);
  Replace(table.RIOSend, provider.RIOSend, &RioSend);
  Replace(table.RIOSendEx, provider.RIOSendEx, &RioSendEx);
  Replace(table.RIOCreateRequestQueue, provider.RIOCreateRequestQueue, &RioCreateRequestQueue);
  (void)platform::CopyGuarded(output, &table, sizeof table);
}

}  // namespace

ProviderFunctions& ExtensionFunctions() noexcept {
  static ProviderFunctions functions;
  return functions;
}

int CNetMgr::WSAIoctl(SOCKET s, DWORD dwIoControlCode, LPVOID lpvInBuffer, DWORD cbInBuffer,
                      LPVOID lpvOutBuffer, DWORD cbOutBuffer, LPDWORD lpcbBytesReturned,
                      LPWSAOVERLAPPED lpOverlapped, LPWSAOVERLAPPED_COMPLETION_ROUTINE lpCompletionRoutine,
                      bool*) {
  NetHandler handler;
  const int result = handler.Real([&] {
    return Ws2_32::CallOriginalWSAIoctl(s, dwIoControlCode, lpvInBuffer, cbInBuffer, lpvOutBuffer,
                                        cbOutBuffer, lpcbBytesReturned, lpOverlapped, lpCompletionRoutine);
  });
  GUID id;
  if (result != 0 || cbInBuffer < sizeof id || !lpvOutBuffer ||
      !platform::CopyGuarded(&id, lpvInBuffer, sizeof id))
    return result;
  if (dwIoControlCode == SIO_GET_EXTENSION_FUNCTION_POINTER) WrapFunction(id, lpvOutBuffer);
  if (dwIoControlCode == SIO_GET_MULTIPLE_EXTENSION_FUNCTION_POINTER)
    WrapRioTable(id, lpvOutBuffer, cbOutBuffer);
  return result;
}

BOOL WSAAPI CNetMgr::ConnectEx(SOCKET s, const sockaddr* name, int namelen, PVOID send_buffer,
                               DWORD send_length, LPDWORD bytes_sent, LPOVERLAPPED overlapped) {
  NetHandler handler;
  const auto original = ExtensionFunctions().ConnectEx.load();
  if (!original) return Fail(FALSE, WSAEPROVIDERFAILEDINIT);
  if (!GetNetMgr().CheckConnect(s, name, static_cast<std::uint32_t>(namelen)))
    return Fail(FALSE, WSAENETUNREACH);
  return handler.Real(
      [&] { return original(s, name, namelen, send_buffer, send_length, bytes_sent, overlapped); });
}

INT WSAAPI CNetMgr::WSASendMsg(SOCKET s, LPWSAMSG message, DWORD flags, LPDWORD bytes_sent,
                               LPWSAOVERLAPPED overlapped, LPWSAOVERLAPPED_COMPLETION_ROUTINE routine) {
  NetHandler handler;
  const auto original = ExtensionFunctions().WSASendMsg.load();
  if (!original) return Fail(SOCKET_ERROR, WSAEPROVIDERFAILEDINIT);
  CNetMgr& manager = GetNetMgr();
  WSAMSG copy;
  if (message && platform::ReadGuarded(message, copy)) {
    manager.CountSend(s, copy.dwBufferCount);
    if (!manager.CheckTraffic(s, copy.name, static_cast<std::uint32_t>(copy.namelen), AuditType::kSend))
      return Fail(SOCKET_ERROR, WSAENETUNREACH);
  }
  return handler.Real([&] { return original(s, message, flags, bytes_sent, overlapped, routine); });
}

}  // namespace VornCore
