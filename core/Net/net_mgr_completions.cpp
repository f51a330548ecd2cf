// The ways in which an application learns that an overlapped receive has ended. The first one judges the
// datagram. An operation without a context (a send, a stream, a closed socket) is none of the library's
// business.
#include "Net/net_mgr.h"
#include "Net/net_mgr_handler.h"
#include "Platform/last_error.h"
#include "Platform/untrusted.h"

namespace VornCore {
namespace {

// A wait that ended before the operation did. (Winsock has the same numbers for the first two.)
bool IsUnfinished(BOOL result) noexcept {
  if (result) return false;
  const DWORD error = GetLastError();
  return error == ERROR_IO_INCOMPLETE || error == ERROR_IO_PENDING || error == WAIT_TIMEOUT ||
         error == WAIT_IO_COMPLETION;
}

// The system's own word. A call with a bad handle fails while the operation goes on, and a wait on the handle
// succeeds when another operation of that handle ends.
bool IsPending(const OVERLAPPED* overlapped) noexcept {
  ULONG_PTR status = 0;
  return platform::ReadGuarded(&overlapped->Internal, status) &&
         status == static_cast<ULONG_PTR>(STATUS_PENDING);
}

}  // namespace

// A context with a completion routine is left to the routine.
void CNetMgr::FinishCompletion(SOCKET s, LPOVERLAPPED overlapped, LPDWORD bytes) noexcept {
  platform::LastErrorKeeper keep;
  OverlappedContext* context = contexts_.FindContext(overlapped);
  if (!context) return;
  if (IsPending(overlapped)) return contexts_.LeaveContext(overlapped);
  HandBackMessage(context);
  FinishReceive(s == INVALID_SOCKET ? context->socket : s, context, bytes);
  context->caller_routine ? contexts_.LeaveContext(overlapped) : contexts_.ReleaseContext(overlapped);
}

BOOL CNetMgr::GetOverlappedResult(HANDLE hFile, LPOVERLAPPED lpOverlapped, LPDWORD lpNumberOfBytesTransferred,
                                  BOOL bWait, bool*) {
  NetHandler handler;
  const BOOL result = handler.Real([&] {
    return KernelBase::CallOriginalGetOverlappedResult(hFile, lpOverlapped, lpNumberOfBytesTransferred,
                                                       bWait);
  });
  if (lpOverlapped && !IsUnfinished(result))
    FinishCompletion(INVALID_SOCKET, lpOverlapped, lpNumberOfBytesTransferred);
  return result;
}

BOOL CNetMgr::GetOverlappedResultEx(HANDLE hFile, LPOVERLAPPED lpOverlapped,
                                    LPDWORD lpNumberOfBytesTransferred, DWORD dwMilliseconds, BOOL bAlertable,
                                    bool*) {
  NetHandler handler;
  const BOOL result = handler.Real([&] {
    return KernelBase::CallOriginalGetOverlappedResultEx(hFile, lpOverlapped, lpNumberOfBytesTransferred,
                                                         dwMilliseconds, bAlertable);
  });
  if (lpOverlapped && !IsUnfinished(result))
    FinishCompletion(INVALID_SOCKET, lpOverlapped, lpNumberOfBytesTransferred);
  return result;
}

BOOL CNetMgr::WSAGetOverlappedResult(SOCKET s, LPWSAOVERLAPPED lpOverlapped, LPDWORD lpcbTransfer, BOOL fWait,
                                     LPDWORD lpdwFlags, bool*) {
  NetHandler handler;
  const BOOL result = handler.Real([&] {
    return Ws2_32::CallOriginalWSAGetOverlappedResult(s, lpOverlapped, lpcbTransfer, fWait, lpdwFlags);
  });
  if (lpOverlapped && !IsUnfinished(result)) FinishCompletion(s, lpOverlapped, lpcbTransfer);
  return result;
}

BOOL CNetMgr::GetQueuedCompletionStatus(HANDLE CompletionPort, LPDWORD lpNumberOfBytesTransferred,
                                        PULONG_PTR lpCompletionKey, LPOVERLAPPED* lpOverlapped,
                                        DWORD dwMilliseconds, bool*) {
  NetHandler handler;
  const BOOL result = handler.Real([&] {
    return KernelBase::CallOriginalGetQueuedCompletionStatus(CompletionPort, lpNumberOfBytesTransferred,
                                                             lpCompletionKey, lpOverlapped, dwMilliseconds);
  });
  LPOVERLAPPED overlapped = nullptr;
  if (result == TRUE && lpOverlapped && platform::ReadGuarded(lpOverlapped, overlapped) && overlapped)
    FinishCompletion(INVALID_SOCKET, overlapped, lpNumberOfBytesTransferred);
  return result;
}

BOOL CNetMgr::GetQueuedCompletionStatusEx(HANDLE CompletionPort, LPOVERLAPPED_ENTRY lpCompletionPortEntries,
                                          ULONG ulCount, PULONG ulNumEntriesRemoved, DWORD dwMilliseconds,
                                          BOOL fAlertable, bool*) {
  NetHandler handler;
  const BOOL result = handler.Real([&] {
    return KernelBase::CallOriginalGetQueuedCompletionStatusEx(
        CompletionPort, lpCompletionPortEntries, ulCount, ulNumEntriesRemoved, dwMilliseconds, fAlertable);
  });
  ULONG removed = 0;
  if (result != TRUE || !lpCompletionPortEntries || !ulNumEntriesRemoved ||
      !platform::ReadGuarded(ulNumEntriesRemoved, removed))
    return result;
  for (ULONG i = 0; i < removed && i < ulCount; ++i) {
    OVERLAPPED_ENTRY entry;
    if (!platform::ReadGuarded(lpCompletionPortEntries + i, entry)) break;
    if (entry.lpOverlapped)
      FinishCompletion(INVALID_SOCKET, entry.lpOverlapped,
                       &lpCompletionPortEntries[i].dwNumberOfBytesTransferred);
  }
  return result;
}

void CALLBACK CNetMgr::OnReceiveComplete(DWORD error, DWORD bytes, LPWSAOVERLAPPED overlapped, DWORD flags) {
  NetHandler handler;
  GetNetMgr().ReceiveCompleted(error, bytes, overlapped, flags);
}

// What Winsock runs in place of the caller's completion routine.
void CNetMgr::ReceiveCompleted(DWORD error, DWORD bytes, LPWSAOVERLAPPED overlapped, DWORD flags) {
  OverlappedContext* context = contexts_.FindContext(overlapped);
  if (!context) return;
  HandBackMessage(context);
  const auto routine = context->caller_routine;
  if (!routine) return contexts_.LeaveContext(overlapped);
  bool call = true;
  if (context->completed_at_once) {
    call = !context->refused_at_once;  // the caller knows: its call failed with 10049
  } else if (error == 0 && !FinishReceive(context->socket, context, nullptr)) {
    bytes = 0;
    error = WSAEADDRNOTAVAIL;
  }
  // Before the routine runs: it may start the next receive with the same OVERLAPPED.
  contexts_.ReleaseContext(overlapped);
  if (call) routine(error, bytes, overlapped, flags);
}

}  // namespace VornCore
