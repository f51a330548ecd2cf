#include "Proc/process_event.h"

#include "VornCore/Base/channel.h"
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
      .kind = kind,
      .child_pid = child_id,
      .code = code,
      .image_name = name ? std::string_view(name.get()) : std::string_view(),
  };
  if (!EncodeAndSend(event)) VORN_LOG_E("pTIPHeader is NULL");
}

}  // namespace VornCore
