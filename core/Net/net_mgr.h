// The network manager: listens to Winsock, name resolution and completions, decides each call, and follows
// every TCP and UDP socket of the process.
//
//   checked   every connection attempt; every datagram that a UDP socket sends; every datagram that a
//             UDP client socket receives
//   not       TCP traffic once connected; the traffic of UDP sockets that act as servers; sockets that
//             the library did not see created
//
//   net_mgr.cpp              life cycle, modules
//   net_mgr_checks.cpp       destination → verdict, audit
//   net_mgr_sockets.cpp      sockets: creation, binding, connecting, closing
//   net_mgr_sends.cpp        net_mgr_receives.cpp        datagrams
//   net_mgr_extensions.cpp   functions that WSAIoctl hands out
//   net_mgr_contexts.cpp     overlapped receives in flight        net_mgr_completions.cpp   their five ends
//   net_mgr_names.cpp        name resolution
//
// Handlers run on the application's threads, any number at once. They answer what the real function answers,
// or what it answers for a refusal; none passes a call on.
#pragma once

#include <cstdint>
#include <span>

#include "Net/net_mgr_contexts.h"
#include "Net/socket_acl_model.h"
#include "Platform/lock.h"
#include "VornCore/Hook/dnsapi.h"
#include "VornCore/Hook/kernel_base.h"
#include "VornCore/Hook/late_modules.h"
#include "VornCore/Hook/manager.h"
#include "VornCore/Hook/ws2_32.h"

namespace VornCore {

class CNetMgr : public Manager<CNetMgr>,
                public IWs2_32ApiListener,
                public IDnsapiApiListener,
                public IKernelBaseApiListener {
 public:
  // Without network rules in the section nothing is ever intercepted. Always true.
  bool Init() noexcept;
  bool UnInit() noexcept;

  bool enabled() const { return enabled_; }
  SocketACLModel& model() { return model_; }
  OverlappedContexts& contexts() { return contexts_; }

  // The modules whose coming and going decides what is intercepted, for mod::Watch.
  static std::span<ModuleHookEntry> WatchedModules() noexcept;
  // Loaded: installs the module's table, registers this listener, pins the module. Always true.
  static bool OnWs2_32Loaded(HMODULE module, const wchar_t* name);
  static bool OnWs2_32Unloaded(HMODULE module, const wchar_t* name);
  static bool OnDnsapiLoaded(HMODULE module, const wchar_t* name);
  static bool OnDnsapiUnloaded(HMODULE module, const wchar_t* name);

#define ROW(fail, result, api, ...) result api(VORN_PARAMETERS(__VA_ARGS__), bool* bPassOn) override;
  VORN_WS2_32_API(ROW)
  VORN_DNSAPI_API(ROW)
#undef ROW
  BOOL GetOverlappedResult(HANDLE hFile, LPOVERLAPPED lpOverlapped, LPDWORD lpNumberOfBytesTransferred,
                           BOOL bWait, bool* bPassOn) override;
  BOOL GetOverlappedResultEx(HANDLE hFile, LPOVERLAPPED lpOverlapped, LPDWORD lpNumberOfBytesTransferred,
                             DWORD dwMilliseconds, BOOL bAlertable, bool* bPassOn) override;
  BOOL GetQueuedCompletionStatus(HANDLE CompletionPort, LPDWORD lpNumberOfBytesTransferred,
                                 PULONG_PTR lpCompletionKey, LPOVERLAPPED* lpOverlapped, DWORD dwMilliseconds,
                                 bool* bPassOn) override;
  BOOL GetQueuedCompletionStatusEx(HANDLE CompletionPort, LPOVERLAPPED_ENTRY lpCompletionPortEntries,
                                   ULONG ulCount, PULONG ulNumEntriesRemoved, DWORD dwMilliseconds,
                                   BOOL fAlertable, bool* bPassOn) override;

  // What the library hands out in place of extension functions. Each answers its failure value with 10106
  // until the provider's own function is known.
  static BOOL WSAAPI ConnectEx(SOCKET s, const sockaddr* name, int namelen, PVOID send_buffer,
                               DWORD send_length, LPDWORD bytes_sent, LPOVERLAPPED overlapped);
  static INT WSAAPI WSASendMsg(SOCKET s, LPWSAMSG message, DWORD flags, LPDWORD bytes_sent,
                               LPWSAOVERLAPPED overlapped, LPWSAOVERLAPPED_COMPLETION_ROUTINE routine);
  static INT WSAAPI WSARecvMsg(SOCKET s, LPWSAMSG message, LPDWORD bytes_received, LPWSAOVERLAPPED overlapped,
                               LPWSAOVERLAPPED_COMPLETION_ROUTINE routine);

 private:
  using AuditType = vorn::policy::AuditType;

  // Decisions; true means allowed. They keep the thread's last error.
  bool CheckConnect(SOCKET s, const sockaddr* address, std::uint32_t length) noexcept;
  bool CheckTraffic(SOCKET s, const sockaddr* address, std::uint32_t length, AuditType type) noexcept;
  std::uint32_t CheckDestination(AuditType type, const SocketRecord& record, const sockaddr* address,
                                 std::uint32_t length) noexcept;
  void AuditDestination(SOCKET s, NetAuditFacts facts) noexcept;
  std::uint32_t GetSocketProtocol(SOCKET s) noexcept;  // kProtocolUnknown without a record
  bool IsUncheckedSocket(SOCKET s) noexcept;           // unknown, a server, or TCP
  void CountSend(SOCKET s, std::uint32_t length) noexcept;

  // Receives. Last error 10049 goes with a refusal.
  int ReceiveOverlapped(SOCKET s, LPWSABUF buffers, DWORD count, LPDWORD bytes, LPDWORD flags, sockaddr* from,
                        LPINT fromlen, LPWSAOVERLAPPED overlapped,
                        LPWSAOVERLAPPED_COMPLETION_ROUTINE routine);
  int ReceiveMessage(SOCKET s, LPWSAMSG message, LPDWORD bytes);
  int ReceiveMessageOverlapped(SOCKET s, LPWSAMSG message, LPDWORD bytes, LPWSAOVERLAPPED overlapped,
                               LPWSAOVERLAPPED_COMPLETION_ROUTINE routine);
  OverlappedContext* StartReceive(SOCKET s, LPWSAOVERLAPPED overlapped, const WSABUF* buffers, DWORD count,
                                  LPWSAOVERLAPPED_COMPLETION_ROUTINE routine) noexcept;
  int AfterReceiveCall(int result, LPWSAOVERLAPPED overlapped, std::uint64_t ticket, LPDWORD bytes) noexcept;

  // Completions.
  bool FinishReceive(SOCKET s, OverlappedContext* context, LPDWORD bytes) noexcept;
  void FinishCompletion(SOCKET s, LPOVERLAPPED overlapped, LPDWORD bytes) noexcept;
  void ReceiveCompleted(DWORD error, DWORD bytes, LPWSAOVERLAPPED overlapped, DWORD flags);
  static void CALLBACK OnReceiveComplete(DWORD error, DWORD bytes, LPWSAOVERLAPPED overlapped, DWORD flags);

  bool enabled_ = false;
  SocketACLModel model_;
  OverlappedContexts contexts_;
  platform::CriticalSection
      close_lock_;  // before the model's lock: closing follows the removal of the record
};

inline CNetMgr& GetNetMgr() noexcept { return *CNetMgr::GetInstance(); }

}  // namespace VornCore
