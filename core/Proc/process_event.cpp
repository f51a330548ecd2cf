#include "Proc/process_event.h"

#include "VornCore/Base/channel.h"
#include "VornCore/Base/clock.h"
#include "VornCore/Base/log.h"
#include "VornCore/Base/process_info.h"
#include "VornCore/Base/strings.h"

namespace VornCore {

void SendProcessEvent(ProcessEventKind kind, HANDLE process, DWORD child_id, DWORD code) noexcept {
  const HeapString image = process ? GetProcessImageFileName(process) : nullptr;
  SendProcessEvent(kind, image ? std::wstring_view(image.get()) : std::wstring_view(), child_id, code);
}

void SendProcessEvent(ProcessEventKind kind, std::wstring_view image, DWORD child_id, DWORD code) noexcept {
  const std::wstring_view base = image.substr(image.rfind(L'\\') + 1);
  const HeapText name = WideToUtf8(base.data(), static_cast<std::int32_t>(base.size() * sizeof(wchar_t)));
  const vorn::policy::ProcessEvent event{
      .reporter_pid = GetCurrentProcessId(),
      .kind = static_cast<std::uint32_t>(kind),
      .child_pid = child_id,
      .code = code,
      .image_name = name ? std::string_view(name.get()) : std::string_view(),
  };
  const std::size_t size = vorn::policy::EncodedSize(event);
  const platform::HeapPtr<std::byte> message(static_cast<std::byte*>(malloc(size)));
  if (!message) {
    VORN_LOG_E("pTIPHeader is NULL");
    return;
  }
  const vorn::policy::MessageOrigin origin{.time_ms = GetPreciseTimeMicros() / 1000,
                                           .pid = GetCurrentProcessId()};
  if (vorn::policy::Encode(event, origin, {message.get(), size}))
    SendToHost(message.get(), static_cast<std::uint32_t>(size));
}

}  // namespace VornCore
