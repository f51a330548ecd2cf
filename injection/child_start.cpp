#include "injection/child_start.h"

#include <cstring>

namespace vorn::injection {

InitEventName::InitEventName(const void* prefix, std::size_t prefix_bytes, DWORD pid) noexcept {
  prefix_bytes -= prefix_bytes % sizeof(wchar_t);
  wchar_t digits[kMaxProcessIdDigits];
  std::size_t digit = kMaxProcessIdDigits;
  do digits[--digit] = static_cast<wchar_t>(L'0' + pid % 10);
  while (pid /= 10);
  const std::size_t digits_bytes = (kMaxProcessIdDigits - digit) * sizeof(wchar_t);
  if (!prefix || prefix_bytes + digits_bytes > policy::kMaxInitEventPrefix * sizeof(wchar_t)) return;
  memcpy(text_, prefix, prefix_bytes);
  memcpy(text_ + prefix_bytes / sizeof(wchar_t), digits + digit, digits_bytes);
  name_ = nt::CountedString(text_, prefix_bytes + digits_bytes);
}

NTSTATUS InitEventName::Create(HANDLE* event, PSECURITY_DESCRIPTOR security) noexcept {
  constexpr ULONG kSynchronizationEvent = 1;  // EVENT_TYPE: resets itself
  OBJECT_ATTRIBUTES attributes = nt::NamedObject(&name_);
  attributes.SecurityDescriptor = security;
  return NtCreateEvent(event, EVENT_ALL_ACCESS, &attributes, kSynchronizationEvent, FALSE);
}

NTSTATUS InitEventName::Open(HANDLE* event) noexcept {
  OBJECT_ATTRIBUTES attributes = nt::NamedObject(&name_);
  return NtOpenEvent(event, EVENT_MODIFY_STATE, &attributes);
}

Start WaitForStart(HANDLE event, HANDLE process, DWORD timeout_ms) noexcept {
  const HANDLE either[] = {event, process};
  Start start{StartOutcome::kFailed, WaitForMultipleObjects(2, either, FALSE, timeout_ms), STILL_ACTIVE};
  if (start.wait == WAIT_OBJECT_0) start.outcome = StartOutcome::kReady;
  if (start.wait == WAIT_OBJECT_0 + 1) start.outcome = StartOutcome::kEnded;
  if (start.wait == WAIT_TIMEOUT) start.outcome = StartOutcome::kTimeout;
  (void)GetExitCodeProcess(process, &start.exit_code);
  return start;
}

}  // namespace vorn::injection
