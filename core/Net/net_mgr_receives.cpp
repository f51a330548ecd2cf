// Receives. A datagram's source is known only once it was taken from the socket, so the real call reports it
// into a buffer of the library's own; a datagram from a refused source is wiped before the caller sees it.
#include <cstring>

#include "Net/net_mgr.h"
#include "Net/net_mgr_extensions.h"
#include "Net/net_mgr_handler.h"
#include "Platform/untrusted.h"

namespace VornCore {
namespace {

using net_helper::SocketAddress;

bool IsReadableArray(const WSABUF* buffers, DWORD count) noexcept {
  const std::uint64_t bytes = std::uint64_t{count} * sizeof(WSABUF);
  return bytes <= SIZE_MAX && platform::IsReadable(buffers, static_cast<std::size_t>(bytes));
}

// Each buffer as far as it can be written.
void WipeBuffers(const WSABUF* buffers, DWORD count) noexcept {
  for (DWORD i = 0; i < count; ++i) {
    WSABUF buffer;
    if (!platform::ReadGuarded(buffers + i, buffer)) return;
    platform::WipeGuarded(buffer.buf, buffer.len);
  }
}

// A datagram that did not fit: the call fails as it always does, but its beginning lies in the caller's
// buffers.
bool IsCutShort(int result) noexcept { return result == SOCKET_ERROR && GetLastError() == WSAEMSGSIZE; }

// The source to the caller, when there is room for it.
void HandOverSource(const SocketAddress& source, int length, sockaddr* from, int* fromlen) noexcept {
  int capacity = length;
  if (fromlen && !platform::ReadGuarded(fromlen, capacity)) return;
  if (from && capacity >= length)
    (void)platform::CopyGuarded(from, source.bytes, static_cast<std::size_t>(length));
  if (fromlen) platform::WriteGuarded(fromlen, length);
}

}  // namespace

int CNetMgr::recv(SOCKET s, char* buf, int len, int flags, bool* bPassOn) {
  NetHandler handler;
  if (GetSocketProtocol(s) == kProtocolUdp) return recvfrom(s, buf, len, flags, nullptr, nullptr, bPassOn);
  return handler.Real([&] { return Ws2_32::CallOriginalrecv(s, buf, len, flags); });
}

int CNetMgr::recvfrom(SOCKET s, char* buf, int len, int flags, sockaddr* from, int* fromlen, bool*) {
  NetHandler handler;
  if (!buf || !len)
    return handler.Real([&] { return Ws2_32::CallOriginalrecvfrom(s, buf, len, flags, from, fromlen); });

  SocketAddress source{};
  int source_length = sizeof source.bytes;
  const int result = handler.Real(
      [&] { return Ws2_32::CallOriginalrecvfrom(s, buf, len, flags, source.get(), &source_length); });
  const bool cut = IsCutShort(result);
  if (result <= 0 && !cut) return result;
  if (!CheckTraffic(s, source.get(), static_cast<std::uint32_t>(source_length), AuditType::kRecv)) {
    platform::WipeGuarded(buf, static_cast<std::size_t>(cut ? len : result));
    return cut ? result : Fail(SOCKET_ERROR, WSAEADDRNOTAVAIL);
  }
  if (cut) return result;
  HandOverSource(source, source_length, from, fromlen);
  return result;
}

int CNetMgr::WSARecv(SOCKET s, LPWSABUF lpBuffers, DWORD dwBufferCount, LPDWORD lpNumberOfBytesRecvd,
                     LPDWORD lpFlags, LPWSAOVERLAPPED lpOverlapped,
                     LPWSAOVERLAPPED_COMPLETION_ROUTINE lpCompletionRoutine, bool* bPassOn) {
  NetHandler handler;
  if (lpBuffers && dwBufferCount && GetSocketProtocol(s) == kProtocolUdp)
    return WSARecvFrom(s, lpBuffers, dwBufferCount, lpNumberOfBytesRecvd, lpFlags, nullptr, nullptr,
                       lpOverlapped, lpCompletionRoutine, bPassOn);
  return handler.Real([&] {
    return Ws2_32::CallOriginalWSARecv(s, lpBuffers, dwBufferCount, lpNumberOfBytesRecvd, lpFlags,
                                       lpOverlapped, lpCompletionRoutine);
  });
}

int CNetMgr::WSARecvFrom(SOCKET s, LPWSABUF lpBuffers, DWORD dwBufferCount, LPDWORD lpNumberOfBytesRecvd,
                         LPDWORD lpFlags, sockaddr* lpFrom, LPINT lpFromlen, LPWSAOVERLAPPED lpOverlapped,
                         LPWSAOVERLAPPED_COMPLETION_ROUTINE lpCompletionRoutine, bool*) {
  NetHandler handler;
  // (an array that cannot be read fails the real call too)
  if (!lpBuffers || !dwBufferCount || IsUncheckedSocket(s) || !IsReadableArray(lpBuffers, dwBufferCount))
    return handler.Real([&] {
      return Ws2_32::CallOriginalWSARecvFrom(s, lpBuffers, dwBufferCount, lpNumberOfBytesRecvd, lpFlags,
                                             lpFrom, lpFromlen, lpOverlapped, lpCompletionRoutine);
    });
  if (lpOverlapped)
    return ReceiveOverlapped(s, lpBuffers, dwBufferCount, lpNumberOfBytesRecvd, lpFlags, lpFrom, lpFromlen,
                             lpOverlapped, lpCompletionRoutine);

  SocketAddress source{};
  int source_length = sizeof source.bytes;
  const int result = handler.Real([&] {
    return Ws2_32::CallOriginalWSARecvFrom(s, lpBuffers, dwBufferCount, lpNumberOfBytesRecvd, lpFlags,
                                           source.get(), &source_length, nullptr, lpCompletionRoutine);
  });
  const bool cut = IsCutShort(result);
  if (result != 0 && !cut) return result;
  if (!CheckTraffic(s, source.get(), static_cast<std::uint32_t>(source_length), AuditType::kRecv)) {
    if (lpNumberOfBytesRecvd) platform::WriteGuarded(lpNumberOfBytesRecvd, DWORD{0});
    WipeBuffers(lpBuffers, dwBufferCount);
    return cut ? result : Fail(SOCKET_ERROR, WSAEADDRNOTAVAIL);
  }
  if (cut) return result;
  HandOverSource(source, source_length, lpFrom, lpFromlen);
  return result;
}

// A context for the receive, or null with the last error of a call that cannot be made.
OverlappedContext* CNetMgr::StartReceive(SOCKET s, LPWSAOVERLAPPED overlapped, const WSABUF* buffers,
                                         DWORD count, LPWSAOVERLAPPED_COMPLETION_ROUTINE routine) noexcept {
  OverlappedContext* context = contexts_.AcquireContext(overlapped, s);
  if (!context) return Fail<OverlappedContext*>(nullptr, WSAENOBUFS);
  if (!context->buffers.Capture(buffers, count)) {
    contexts_.ReleaseContext(overlapped);
    return Fail<OverlappedContext*>(nullptr, WSAENOBUFS);
  }
  context->source_length = net_helper::kAddressBytes;
  context->caller_routine = routine;
  return context;
}

int CNetMgr::ReceiveOverlapped(SOCKET s, LPWSABUF buffers, DWORD count, LPDWORD bytes, LPDWORD flags,
                               sockaddr* from, LPINT fromlen, LPWSAOVERLAPPED overlapped,
                               LPWSAOVERLAPPED_COMPLETION_ROUTINE routine) {
  NetHandler handler;
  OverlappedContext* context = StartReceive(s, overlapped, buffers, count, routine);
  if (!context) return SOCKET_ERROR;
  context->caller_source = from;
  context->caller_source_length = fromlen;
  const std::uint64_t ticket = context->ticket;
  const int result = handler.Real([&] {
    return Ws2_32::CallOriginalWSARecvFrom(s, buffers, count, bytes, flags, context->source.get(),
                                           &context->source_length, overlapped,
                                           routine ? &CNetMgr::OnReceiveComplete : nullptr);
  });
  return AfterReceiveCall(result, overlapped, ticket, bytes);
}

// The end of the call itself: the operation is pending, has failed, or has completed at once. Another thread
// may have learned of the completion, and may have finished it, before the call returned.
int CNetMgr::AfterReceiveCall(int result, LPWSAOVERLAPPED overlapped, std::uint64_t ticket,
                              LPDWORD bytes) noexcept {
  const DWORD error = GetLastError();
  if (result == SOCKET_ERROR && error == WSA_IO_PENDING) return result;
  OverlappedContext* context = contexts_.FindContext(overlapped, ticket);
  if (!context) return result;
  if (result != 0) {
    HandBackMessage(context);
    if (error == WSAEMSGSIZE &&
        !CheckTraffic(context->socket, context->source.get(),
                      static_cast<std::uint32_t>(context->source_length), AuditType::kRecv))
      context->buffers.Wipe();
    contexts_.ReleaseContext(overlapped);
    return Fail(result, static_cast<int>(error));
  }
  HandBackMessage(context);
  const bool allowed = FinishReceive(context->socket, context, bytes);
  context->completed_at_once = true;
  context->refused_at_once = !allowed;
  context->caller_routine ? contexts_.LeaveContext(overlapped) : contexts_.ReleaseContext(overlapped);
  return allowed ? 0 : Fail(SOCKET_ERROR, WSAEADDRNOTAVAIL);
}

// ---- WSARecvMsg ----

INT WSAAPI CNetMgr::WSARecvMsg(SOCKET s, LPWSAMSG message, LPDWORD bytes_received, LPWSAOVERLAPPED overlapped,
                               LPWSAOVERLAPPED_COMPLETION_ROUTINE routine) {
  NetHandler handler;
  const auto original = ExtensionFunctions().WSARecvMsg.load();
  if (!original) return Fail(SOCKET_ERROR, WSAEPROVIDERFAILEDINIT);
  CNetMgr& manager = GetNetMgr();
  WSAMSG copy;
  if (!message || (!bytes_received && !overlapped) || manager.IsUncheckedSocket(s) ||
      !platform::ReadGuarded(message, copy) || !IsReadableArray(copy.lpBuffers, copy.dwBufferCount))
    return handler.Real([&] { return original(s, message, bytes_received, overlapped, routine); });
  if (overlapped) return manager.ReceiveMessageOverlapped(s, message, bytes_received, overlapped, routine);
  return manager.ReceiveMessage(s, message, bytes_received);
}

int CNetMgr::ReceiveMessage(SOCKET s, LPWSAMSG message, LPDWORD bytes) {
  NetHandler handler;
  SocketAddress source{};
  sockaddr* const name = message->name;
  const int name_length = message->namelen;
  int source_length = 0;
  const int result = handler.Real([&] {
    message->name = source.get();
    message->namelen = sizeof source.bytes;
    const int received = ExtensionFunctions().WSARecvMsg.load()(s, message, bytes, nullptr, nullptr);
    source_length = message->namelen;
    message->name = name;
    message->namelen = name_length;
    return received;
  });
  const bool cut = IsCutShort(result);
  if (result != 0 && !cut) return result;
  if (!CheckTraffic(s, source.get(), static_cast<std::uint32_t>(source_length), AuditType::kRecv)) {
    platform::WriteGuarded(bytes, DWORD{0});
    WipeBuffers(message->lpBuffers, message->dwBufferCount);
    return cut ? result : Fail(SOCKET_ERROR, WSAEADDRNOTAVAIL);
  }
  if (cut) return result;
  HandOverSource(source, source_length, name, &message->namelen);
  return result;
}

int CNetMgr::ReceiveMessageOverlapped(SOCKET s, LPWSAMSG message, LPDWORD bytes, LPWSAOVERLAPPED overlapped,
                                      LPWSAOVERLAPPED_COMPLETION_ROUTINE routine) {
  NetHandler handler;
  OverlappedContext* context =
      StartReceive(s, overlapped, message->lpBuffers, message->dwBufferCount, routine);
  if (!context) return SOCKET_ERROR;
  context->caller_source = message->name;
  context->caller_source_length = &message->namelen;
  context->caller_name_length = message->namelen;
  context->caller_message = message;
  const std::uint64_t ticket = context->ticket;
  const int result = handler.Real([&] {
    message->name = context->source.get();
    message->namelen = context->source_length;
    return ExtensionFunctions().WSARecvMsg.load()(s, message, bytes, overlapped,
                                                  routine ? &CNetMgr::OnReceiveComplete : nullptr);
  });
  return AfterReceiveCall(result, overlapped, ticket, bytes);
}

// ---- Judging what was received ----

bool CNetMgr::FinishReceive(SOCKET s, OverlappedContext* context, LPDWORD bytes) noexcept {
  if (CheckTraffic(s, context->source.get(), static_cast<std::uint32_t>(context->source_length),
                   AuditType::kRecv)) {
    HandOverSource(context->source, context->source_length, context->caller_source,
                   context->caller_source_length);
    return true;
  }
  if (bytes) platform::WriteGuarded(bytes, DWORD{0});
  context->buffers.Wipe();
  return false;
}

}  // namespace VornCore
