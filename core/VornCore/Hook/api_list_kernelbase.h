// The intercepted functions of KernelBase, in slot order, which is also the order in which they are attached.
// Rows as in api_list_ntdll.h.
#pragma once

// clang-format off
#define VORN_KERNELBASE_API(ROW) \
  ROW(FailBool, BOOL, MoveFileWithProgressTransactedW, LPCWSTR, lpExistingFileName, LPCWSTR, lpNewFileName, LPPROGRESS_ROUTINE, lpProgressRoutine, LPVOID, lpData, DWORD, dwFlags, HANDLE, hTransaction) \
  ROW(FailNull, LPTOP_LEVEL_EXCEPTION_FILTER, SetUnhandledExceptionFilter, LPTOP_LEVEL_EXCEPTION_FILTER, lpTopLevelExceptionFilter) \
  ROW(FailBool, BOOL, GetOverlappedResult, HANDLE, hFile, LPOVERLAPPED, lpOverlapped, LPDWORD, lpNumberOfBytesTransferred, BOOL, bWait) \
  ROW(FailBool, BOOL, GetOverlappedResultEx, HANDLE, hFile, LPOVERLAPPED, lpOverlapped, LPDWORD, lpNumberOfBytesTransferred, DWORD, dwMilliseconds, BOOL, bAlertable) \
  ROW(FailBool, BOOL, GetQueuedCompletionStatus, HANDLE, CompletionPort, LPDWORD, lpNumberOfBytesTransferred, PULONG_PTR, lpCompletionKey, LPOVERLAPPED*, lpOverlapped, DWORD, dwMilliseconds) \
  ROW(FailBool, BOOL, GetQueuedCompletionStatusEx, HANDLE, CompletionPort, LPOVERLAPPED_ENTRY, lpCompletionPortEntries, ULONG, ulCount, PULONG, ulNumEntriesRemoved, DWORD, dwMilliseconds, BOOL, fAlertable)
