// Exports of vorn_ipc.dll.
#include <new>

#include "ipc/port/process_port.h"

extern "C" {

bool __stdcall CreateIPCInterface2(vorn::ipc::IPC** ipc) {
  if (!ipc) return false;
  *ipc = new (std::nothrow) vorn::ipc::ProcessPort;
  return *ipc != nullptr;
}

void __stdcall DestroyIPCInterface(vorn::ipc::IPC* ipc) { delete static_cast<vorn::ipc::ProcessPort*>(ipc); }
}

BOOL WINAPI DllMain(HINSTANCE module, DWORD reason, LPVOID) {
  if (reason == DLL_PROCESS_ATTACH) DisableThreadLibraryCalls(module);
  return TRUE;
}
