// A process's end of the transport: a connection to the host's server port, on which it sends, and a local
// port of its own, through which the host reaches it.
//
// Init and Send run on the caller's thread and wait for no other thread of the process. RecvLoop watches both
// pipes and the stop event; it is the only reader.
#pragma once

#include <atomic>

#include "ipc/ipc_interface.h"
#include "ipc/port/pipe.h"

namespace vorn::ipc {

class ProcessPort final : public IPC {
 public:
  bool __stdcall Init(const wchar_t* local_port, const wchar_t* server_port,
                      const IpcCallbacks* callbacks) override;
  void __stdcall UnInit() override;
  bool __stdcall RecvLoop() override;
  bool __stdcall Stop() override;
  bool __stdcall Send(const void* data, std::uint32_t bytes, std::uint32_t reserved) override;

 private:
  // A peer, as the callbacks hear of it.
  struct Peer {
    std::uint32_t pid = 0;
    std::uint32_t tid = 0;
    char port_name[256] = {};  // UTF-8
  };

  bool OpenLocalPort(const wchar_t* name);
  bool ConnectToServer(const wchar_t* server_port, const wchar_t* local_port);
  bool ShakeHands(const wchar_t* local_port);

  DWORD SendLocked(const void* data, std::uint32_t bytes);
  DWORD SendAtProcessEnd(const void* data, std::uint32_t bytes);

  // The local port's life: waiting for the host, then reading what it sends, again and again.
  void Listen();
  void OnLocalEvent();
  bool HostConnected();
  void StopReading();
  void SetServerReading(bool alive);

  // Hands over what is complete and starts the next read. False: the pipe is at its end.
  bool Deliver(HANDLE pipe, MessageReader& reader);
  bool Authenticate(const Peer& peer);
  // "what failed, error N: ..." through OnIpcError; returns false.
  bool Report(const char* what, DWORD error);
  bool ReportText(const char* text);

  IpcCallbacks callbacks_{};
  UniqueHandle stop_;        // manual-reset
  UniqueHandle send_event_;  // manual-reset, used under send_lock_
  SRWLOCK send_lock_ = SRWLOCK_INIT;
  OVERLAPPED send_{};                           // under send_lock_: of the last message
  std::atomic<const void*> sending_ = nullptr;  // the last message's data

  UniqueHandle server_;
  UniqueHandle server_event_;  // manual-reset, of server_reader_
  MessageReader server_reader_;
  Peer server_peer_;

  UniqueHandle local_;
  UniqueHandle local_event_;  // manual-reset, of connect_ or local_reader_, whichever is under way
  OVERLAPPED connect_{};
  MessageReader local_reader_;
  Peer local_peer_;
  enum class LocalState { kClosed, kListening, kReading } local_state_ = LocalState::kClosed;
  bool server_reading_ = false;
};

}  // namespace vorn::ipc
