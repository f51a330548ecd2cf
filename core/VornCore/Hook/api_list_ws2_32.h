// The intercepted functions of ws2_32, in slot order, which is also the order in which they are attached.
// Rows as in api_list_ntdll.h.
#pragma once

// clang-format off
#define VORN_WS2_32_API(ROW) \
  ROW(FailSocket, int, bind, SOCKET, s, const sockaddr*, name, int, namelen) \
  ROW(FailSocket, int, closesocket, SOCKET, s) \
  ROW(FailSocket, int, connect, SOCKET, s, const sockaddr*, name, int, namelen) \
  ROW(FailSocket, int, recv, SOCKET, s, char*, buf, int, len, int, flags) \
  ROW(FailSocket, int, recvfrom, SOCKET, s, char*, buf, int, len, int, flags, sockaddr*, from, int*, fromlen) \
  ROW(FailSocket, int, send, SOCKET, s, const char*, buf, int, len, int, flags) \
  ROW(FailSocket, int, sendto, SOCKET, s, const char*, buf, int, len, int, flags, const sockaddr*, to, int, tolen) \
  ROW(FailSocket, int, WSAConnect, SOCKET, s, const sockaddr*, name, int, namelen, LPWSABUF, lpCallerData, LPWSABUF, lpCalleeData, LPQOS, lpSQOS, LPQOS, lpGQOS) \
  ROW(FailSocket, int, WSAIoctl, SOCKET, s, DWORD, dwIoControlCode, LPVOID, lpvInBuffer, DWORD, cbInBuffer, LPVOID, lpvOutBuffer, DWORD, cbOutBuffer, LPDWORD, lpcbBytesReturned, LPWSAOVERLAPPED, lpOverlapped, LPWSAOVERLAPPED_COMPLETION_ROUTINE, lpCompletionRoutine) \
  ROW(FailSocket, int, WSARecv, SOCKET, s, LPWSABUF, lpBuffers, DWORD, dwBufferCount, LPDWORD, lpNumberOfBytesRecvd, LPDWORD, lpFlags, LPWSAOVERLAPPED, lpOverlapped, LPWSAOVERLAPPED_COMPLETION_ROUTINE, lpCompletionRoutine) \
  ROW(FailSocket, int, WSARecvFrom, SOCKET, s, LPWSABUF, lpBuffers, DWORD, dwBufferCount, LPDWORD, lpNumberOfBytesRecvd, LPDWORD, lpFlags, sockaddr*, lpFrom, LPINT, lpFromlen, LPWSAOVERLAPPED, lpOverlapped, LPWSAOVERLAPPED_COMPLETION_ROUTINE, lpCompletionRoutine) \
  ROW(FailSocket, int, WSASend, SOCKET, s, LPWSABUF, lpBuffers, DWORD, dwBufferCount, LPDWORD, lpNumberOfBytesSent, DWORD, dwFlags, LPWSAOVERLAPPED, lpOverlapped, LPWSAOVERLAPPED_COMPLETION_ROUTINE, lpCompletionRoutine) \
  ROW(FailSocket, int, WSASendTo, SOCKET, s, LPWSABUF, lpBuffers, DWORD, dwBufferCount, LPDWORD, lpNumberOfBytesSent, DWORD, dwFlags, const sockaddr*, lpTo, int, iTolen, LPWSAOVERLAPPED, lpOverlapped, LPWSAOVERLAPPED_COMPLETION_ROUTINE, lpCompletionRoutine) \
  ROW(FailWinsockCode, int, WSAStartup, WORD, wVersionRequested, LPWSADATA, lpWSAData) \
  ROW(FailSocketHandle, SOCKET, WSASocketW, int, af, int, type, int, protocol, LPWSAPROTOCOL_INFOW, lpProtocolInfo, GROUP, g, DWORD, dwFlags) \
  ROW(FailBool, BOOL, WSAGetOverlappedResult, SOCKET, s, LPWSAOVERLAPPED, lpOverlapped, LPDWORD, lpcbTransfer, BOOL, fWait, LPDWORD, lpdwFlags) \
  ROW(FailWinsockCode, INT, GetAddrInfoW, PCWSTR, pNodeName, PCWSTR, pServiceName, const ADDRINFOW*, pHints, PADDRINFOW*, ppResult) \
  ROW(FailWinsockCode, INT, GetAddrInfoExW, PCWSTR, pName, PCWSTR, pServiceName, DWORD, dwNameSpace, LPGUID, lpNspId, const ADDRINFOEXW*, hints, PADDRINFOEXW*, ppResult, timeval*, timeout, LPOVERLAPPED, lpOverlapped, LPLOOKUPSERVICE_COMPLETION_ROUTINE, lpCompletionRoutine, LPHANDLE, lpHandle) \
  ROW(FailNull, hostent*, gethostbyname, const char*, name)
