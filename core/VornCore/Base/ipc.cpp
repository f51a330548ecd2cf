#include "VornCore/Base/ipc.h"

#include "VornCore/Base/log.h"
#include "VornCore/Base/shared_data.h"
#include "windows/nt.h"
#include "windows/process_facts.h"

namespace VornCore {
namespace {

HMODULE gs_library = nullptr;
vorn::ipc::CreateIPCInterface2Function gs_create = nullptr;
vorn::ipc::DestroyIPCInterfaceFunction gs_destroy = nullptr;
vorn::ipc::IPC* gs_ipc = nullptr;

const wchar_t* GetIPCxxFullPath() noexcept {
  using namespace vorn::windows;
  return ForMachine(MachineOf(GetCurrentProcess()), GetIPC64FullPath(), GetIPC32FullPath());
}

// Everything after the library is loaded; whatever fails here is undone by UnInitIPC.
bool Connect(const wchar_t* local_port, const wchar_t* server_port,
             const vorn::ipc::IpcCallbacks* callbacks) noexcept {
  gs_create = reinterpret_cast<vorn::ipc::CreateIPCInterface2Function>(
      GetProcAddress(gs_library, vorn::ipc::kCreateIPCInterface2));
  if (gs_create)
    gs_destroy = reinterpret_cast<vorn::ipc::DestroyIPCInterfaceFunction>(
        GetProcAddress(gs_library, vorn::ipc::kDestroyIPCInterface));
  if (!gs_create || !gs_destroy) {
    VORN_LOG_E("GetProcAddress CreateIPCInterface2 or DestroyIPCInterface Failed, ErrorCode is %lu",
               GetLastError());
    return false;
  }
  if (!gs_create(&gs_ipc) || !gs_ipc) {
    VORN_LOG_E("CreateIPCInterface2() Failed");
    return false;
  }
  if (!gs_ipc->Init(local_port, server_port, callbacks)) {
    VORN_LOG_E("IPC::Init() Failed");
    return false;
  }
  return true;
}

}  // namespace

bool InitIPC(const wchar_t* local_port, const wchar_t* server_port,
             const vorn::ipc::IpcCallbacks* callbacks) noexcept {
  if (!local_port || !server_port || !callbacks) {
    VORN_LOG_E("InitIPC: invalid parameter(s)");
    return false;
  }
  const wchar_t* path = GetIPCxxFullPath();
  if (!path) {
    VORN_LOG_E("GetIPCxxFullPath returned NULL");
    return false;
  }
  gs_library = LoadLibraryW(path);
  if (!gs_library) {
    VORN_LOG_E("Load vorn_ipc.dll Failed, ErrorCode is %lu", GetLastError());
    return false;
  }
  if (Connect(local_port, server_port, callbacks)) return true;
  UnInitIPC();
  return false;
}

bool UnInitIPC() noexcept {
  if (gs_ipc) {
    gs_ipc->UnInit();
    if (gs_destroy) gs_destroy(gs_ipc);
    gs_ipc = nullptr;
  }
  gs_create = nullptr;
  gs_destroy = nullptr;
  if (gs_library) FreeLibrary(gs_library);
  gs_library = nullptr;
  return true;
}

bool IpcRecvLoop() noexcept { return gs_ipc && gs_ipc->RecvLoop(); }
bool IpcStop() noexcept { return gs_ipc && gs_ipc->Stop(); }
bool IpcSend(const void* data, std::uint32_t bytes) noexcept {
  return gs_ipc && gs_ipc->Send(data, bytes, 0);
}

}  // namespace VornCore
