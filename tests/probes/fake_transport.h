// A transport library whose behaviour the test program decides: the DLL keeps no state and asks the program
// that loaded it, which exports GetFakeTransport.
#pragma once

#include <windows.h>

#include "ipc/ipc_interface.h"

struct FakeTransport {
  bool create_succeeds = true, init_succeeds = true;
  void (*on_call)(const char* operation) = nullptr;  // every operation but Send, as it is called
  void (*on_send)(const void* data, std::uint32_t bytes) = nullptr;
  void (*at_process_end)() = nullptr;  // or null; the program's other threads are gone
  HANDLE stopped = nullptr;            // manual reset; RecvLoop returns when it is set

  // What Init was given.
  wchar_t local_port[300] = {}, server_port[300] = {};
  vorn::ipc::IpcCallbacks callbacks = {};
};

extern "C" using GetFakeTransportFunction = FakeTransport * ();
