// What the library and its transport to the host share: the interface object of vorn_ipc.dll, the callbacks
// that its user hands in, and the exports that make and destroy the object.
//
//   vorn::ipc::IPC* ipc = nullptr;
//   create(&ipc);                                   // CreateIPCInterface2
//   ipc->Init(L"local name", L"server name", &callbacks);
//   ipc->Send(message, bytes, 0);                   // any thread
//   ipc->RecvLoop();                                // a thread of its own, until Stop
//   ipc->UnInit();
//   destroy(ipc);                                   // DestroyIPCInterface
//
// The order of the operations and of the callbacks is the binary contract between two separately built files;
// so are the calling conventions, which are spelled out because the x86 defaults differ.
#pragma once

#include <cstdint>

namespace vorn::ipc {

// A longer message is refused with an error text, in both directions.
inline constexpr std::uint32_t kMaxMessageBytes = 1024 * 1024;

// Called on the thread that runs RecvLoop, except: OnConnectAuth for the server is asked during Init, on the
// thread that calls it; OnIpcError comes from whichever thread met the error. Each callback gets context as
// its first argument. A null callback is not called (an absent OnConnectAuth accepts).
struct IpcCallbacks {
  // One message of the peer. data is valid during the call.
  void(__stdcall* OnRecvData)(void* context, const void* data, std::uint32_t bytes);
  // A readable text (ASCII, terminated), valid during the call.
  void(__stdcall* OnIpcError)(void* context, const char* text);
  // A peer connects: pid as the system knows it, a thread of it (0 when the system does not tell), and the
  // name of the port it connects to (the peer's port when this side connects). False refuses it.
  bool(__stdcall* OnConnectAuth)(void* context, std::uint32_t pid, std::uint32_t tid, const char* port_name);
  // The server went away; same arguments. Told once, and not when this side ended the connection.
  void(__stdcall* OnDisconnectNotify)(void* context, std::uint32_t pid, std::uint32_t tid,
                                      const char* port_name);
  void* context;
};

// The object lives in vorn_ipc.dll and is freed only by DestroyIPCInterface (there is no virtual destructor:
// it would take slots of the table).
class IPC {
 public:
  // Connects to the server port and opens the local port, through which the host reaches this process. Names:
  // UTF-16, terminated, copied; callbacks are copied too. Waits at most ten seconds for each step of a busy
  // server (free instance, greeting, answer) and for no thread of its own process, so that it may be called
  // during process attach. True: messages can be sent.
  virtual bool __stdcall Init(const wchar_t* local_port, const wchar_t* server_port,
                              const IpcCallbacks* callbacks) = 0;
  // Closes both ports. Not while RecvLoop or Send runs: call Stop first and let them return (or end their
  // threads).
  virtual void __stdcall UnInit() = 0;
  // Delivers messages and peer events through the callbacks until Stop. One thread. False when not
  // initialised.
  virtual bool __stdcall RecvLoop() = 0;
  // Makes RecvLoop return, also one that starts later. Any thread.
  virtual bool __stdcall Stop() = 0;
  // Sends one message as one unit and returns when the system has taken it. reserved is 0. False, with an
  // error text through OnIpcError, when the message is empty or too long or the host is gone. Any thread,
  // also the last one of a process that detaches its DLLs (after Stop it does not wait for the host).
  virtual bool __stdcall Send(const void* data, std::uint32_t bytes, std::uint32_t reserved) = 0;
};

using CreateIPCInterface2Function = bool(__stdcall*)(IPC** ipc);
using DestroyIPCInterfaceFunction = void(__stdcall*)(IPC* ipc);
inline constexpr char kCreateIPCInterface2[] = "CreateIPCInterface2";
inline constexpr char kDestroyIPCInterface[] = "DestroyIPCInterface";

}  // namespace vorn::ipc
