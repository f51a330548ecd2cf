#include "Proc/init_event.h"

#include "VornCore/Base/log.h"
#include "VornCore/Base/shared_data.h"
#include "injection/child_start.h"

namespace VornCore {
namespace {

vorn::injection::InitEventName NameFor(DWORD pid) noexcept {
  std::uint32_t bytes = 0;
  const wchar_t* prefix = GetCreateProcessEventPrefix(&bytes);
  return {prefix, bytes, pid};
}

}  // namespace

OwnHandle CreateSubProcessEvent(HANDLE child) noexcept {
  const DWORD pid = GetProcessId(child);
  auto name = NameFor(pid);
  if (!name.usable()) {
    VORN_LOG_W("CreateSubProcessEvent: GetCreateProcessEventPrefix failed");
    return {};
  }
  OwnHandle event;
  const NTSTATUS status = name.Create(event.put(), nullptr);
  if (nt::Success(status)) return event;
  VORN_LOG_W("create init event for pid %ld failed, status 0x%lX", pid, status);
  return {};
}

bool SetInitEvent() noexcept {
  auto name = NameFor(GetCurrentProcessId());
  if (!name.usable()) return false;
  OwnHandle event;
  const NTSTATUS status = name.Open(event.put());
  if (!nt::Success(status)) {
    VORN_LOG_W("open init event failed, status 0x%lX", status);
    return false;
  }
  SetEvent(event.get());
  return true;
}

}  // namespace VornCore
