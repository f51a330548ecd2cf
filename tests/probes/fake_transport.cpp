#include "fake_transport.h"

#include <cwchar>

namespace {

FakeTransport& State() {
  static auto* state = reinterpret_cast<GetFakeTransportFunction*>(
      GetProcAddress(GetModuleHandleW(nullptr), "GetFakeTransport"))();
  return *state;
}

class Transport final : public vorn::ipc::IPC {
 public:
  bool __stdcall Init(const wchar_t* local_port, const wchar_t* server_port,
                      const vorn::ipc::IpcCallbacks* callbacks) override {
    FakeTransport& state = State();
    state.on_call("Init");
    std::wcsncpy(state.local_port, local_port, 299);
    std::wcsncpy(state.server_port, server_port, 299);
    state.callbacks = *callbacks;
    return state.init_succeeds;
  }
  void __stdcall UnInit() override { State().on_call("UnInit"); }
  bool __stdcall RecvLoop() override {
    WaitForSingleObject(State().stopped, INFINITE);
    return true;
  }
  bool __stdcall Stop() override {
    State().on_call("Stop");
    return SetEvent(State().stopped);
  }
  bool __stdcall Send(const void* data, std::uint32_t bytes, std::uint32_t) override {
    State().on_send(data, bytes);
    return true;
  }
};

}  // namespace

extern "C" __declspec(dllexport) bool __stdcall CreateIPCInterface2(vorn::ipc::IPC** ipc) {
  static Transport transport;
  if (!State().create_succeeds) return false;
  *ipc = &transport;
  return true;
}

extern "C" __declspec(dllexport) void __stdcall DestroyIPCInterface(vorn::ipc::IPC*) {
  State().on_call("Destroy");
}

BOOL WINAPI DllMain(HINSTANCE, DWORD reason, LPVOID process_ends) {
  if (reason == DLL_PROCESS_DETACH && process_ends && State().at_process_end) State().at_process_end();
  return TRUE;
}
