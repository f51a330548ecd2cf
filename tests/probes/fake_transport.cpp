// A transport library that leads to the transport of the program that loads it, which exports these three
// functions (tests/unit/base_channel_test.cpp).
#include <windows.h>

#include "ipc/ipc_interface.h"

namespace {

template <class Function>
Function* OfProgram(const char* name) {
  return reinterpret_cast<Function*>(GetProcAddress(GetModuleHandleW(nullptr), name));
}

}  // namespace

extern "C" __declspec(dllexport) bool __stdcall CreateIPCInterface2(vorn::ipc::IPC** ipc) {
  *ipc = OfProgram<vorn::ipc::IPC*()>("CreateTransport")();
  return true;
}

extern "C" __declspec(dllexport) void __stdcall DestroyIPCInterface(vorn::ipc::IPC*) {
  OfProgram<void()>("DestroyTransport")();
}

BOOL WINAPI DllMain(HINSTANCE, DWORD reason, LPVOID process_ends) {
  if (reason == DLL_PROCESS_DETACH && process_ends) OfProgram<void()>("AtProcessEnd")();
  return TRUE;
}
