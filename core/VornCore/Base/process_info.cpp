#include "VornCore/Base/process_info.h"

#include <cstring>

#include "Platform/native.h"
#include "windows/process_facts.h"
#include "windows/unique_handle.h"

namespace VornCore {
namespace {

std::uint32_t IntegrityOfToken(HANDLE token) noexcept {
  ULONG size = 0;
  if (NtQueryInformationToken(token, nt::kTokenIntegrityLevel, nullptr, 0, &size) != STATUS_BUFFER_TOO_SMALL)
    return 0;
  platform::HeapPtr<TOKEN_MANDATORY_LABEL> label(static_cast<TOKEN_MANDATORY_LABEL*>(malloc(size)));
  if (!label) return 0;
  if (!nt::Success(NtQueryInformationToken(token, nt::kTokenIntegrityLevel, label.get(), size, &size)))
    return 0;
  const auto* sid = static_cast<const SID*>(label->Label.Sid);
  if (!RtlValidSid(const_cast<SID*>(sid)) || sid->SubAuthorityCount == 0) return 0;
  return sid->SubAuthority[sid->SubAuthorityCount - 1];
}

}  // namespace

std::uint32_t GetIntegrityLevel() noexcept {
  vorn::windows::UniqueHandle token;
  if (!nt::Success(NtOpenProcessToken(GetCurrentProcess(), TOKEN_QUERY, token.put()))) return 0;
  return IntegrityOfToken(token.get());
}

std::uint32_t GetParentProcessId() noexcept {
  static const std::uint32_t pid = vorn::windows::ParentProcessIdOf(GetCurrentProcess());
  return pid;
}

const wchar_t* GetImageBaseName() noexcept {
  const LIST_ENTRY* first = nt::CurrentLdr()->InLoadOrderModuleList.Flink;
  return CONTAINING_RECORD(first, nt::LdrEntry, InLoadOrderLinks)->BaseDllName.Buffer;
}

platform::HeapString GetProcessImageFileName(HANDLE process) noexcept {
  const auto query = platform::Native().NtQueryInformationProcess;
  ULONG size = 0;
  if (query(process, nt::kProcessImageFileName, nullptr, 0, &size) != STATUS_INFO_LENGTH_MISMATCH)
    return nullptr;
  platform::HeapPtr<UNICODE_STRING> name(static_cast<UNICODE_STRING*>(malloc(size)));
  if (!name) return nullptr;
  if (!nt::Success(query(process, nt::kProcessImageFileName, name.get(), size, &size))) return nullptr;
  if (!name->Buffer || name->Length == 0) return nullptr;
  platform::HeapString path(static_cast<wchar_t*>(malloc(name->Length + sizeof(wchar_t))));
  if (!path) return nullptr;
  std::memcpy(path.get(), name->Buffer, name->Length);
  path.get()[name->Length / sizeof(wchar_t)] = L'\0';
  return path;
}

}  // namespace VornCore
