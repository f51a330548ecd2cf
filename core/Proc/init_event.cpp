#include "Proc/init_event.h"

#include <cstring>

#include "Policy/section_format.h"
#include "VornCore/Base/log.h"
#include "VornCore/Base/shared_data.h"
#include "VornCore/Base/strings.h"
#include "VornCore/Hook/ntdll.h"

namespace VornCore {
namespace {

constexpr std::size_t kNameUnits = 261;     // terminator included
constexpr ULONG kSynchronizationEvent = 1;  // EVENT_TYPE: resets itself

// Full NT object name of a process's init event.
class InitEventName {
 public:
  explicit InitEventName(DWORD pid) noexcept {
    std::uint32_t bytes = 0;
    const wchar_t* prefix = GetCreateProcessEventPrefix(&bytes);
    const std::size_t prefix_units = bytes / sizeof(wchar_t);
    if (!prefix || prefix_units >= vorn::policy::kMaxInitEventPrefix) return;
    wchar_t digits[33];
    const std::size_t digit_units = wcslen(UIntToWide(pid, 10, digits));
    if (prefix_units + digit_units >= kNameUnits) return;
    memcpy(text_, prefix, prefix_units * sizeof(wchar_t));  // the prefix may lie at an odd address
    memcpy(text_ + prefix_units, digits, digit_units * sizeof(wchar_t));
    name_ = nt::CountedString(text_, (prefix_units + digit_units) * sizeof(wchar_t));
  }
  InitEventName(const InitEventName&) = delete;
  InitEventName& operator=(const InitEventName&) = delete;

  bool usable() const noexcept { return name_.Buffer != nullptr; }
  OBJECT_ATTRIBUTES attributes() noexcept { return nt::NamedObject(&name_); }

 private:
  wchar_t text_[kNameUnits] = {};
  UNICODE_STRING name_ = {};
};

}  // namespace

HANDLE CreateSubProcessEvent(HANDLE child) noexcept {
  const DWORD pid = GetProcessId(child);
  InitEventName name(pid);
  if (!name.usable()) {
    VORN_LOG_W("CreateSubProcessEvent: GetCreateProcessEventPrefix failed");
    return nullptr;
  }
  OBJECT_ATTRIBUTES attributes = name.attributes();
  HANDLE event = nullptr;
  const NTSTATUS status = NtCreateEvent(&event, EVENT_ALL_ACCESS, &attributes, kSynchronizationEvent, FALSE);
  if (nt::Success(status)) return event;
  VORN_LOG_W("create init event for pid %ld failed, status 0x%lX", pid, status);
  return nullptr;
}

bool SetInitEvent() noexcept {
  InitEventName name(GetCurrentProcessId());
  if (!name.usable()) return false;
  OBJECT_ATTRIBUTES attributes = name.attributes();
  HANDLE event = nullptr;
  const NTSTATUS status = NtOpenEvent(&event, EVENT_MODIFY_STATE, &attributes);
  if (!nt::Success(status)) {
    VORN_LOG_W("open init event failed, status 0x%lX", status);
    return false;
  }
  SetEvent(event);
  Ntdll::CallOriginalNtClose(event);
  return true;
}

}  // namespace VornCore
