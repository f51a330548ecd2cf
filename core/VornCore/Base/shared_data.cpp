#include "VornCore/Base/shared_data.h"

#include "Policy/section_format.h"
#include "windows/unique_handle.h"

namespace VornCore {
namespace {

using vorn::policy::SectionStatus;
using vorn::policy::SectionText;
using vorn::policy::SectionView;

// Both are kept for the life of the process.
SectionView gs_section;
HANDLE gs_section_handle = nullptr;
wchar_t gs_section_name[256];

const wchar_t* Units(const SectionText& field) { return reinterpret_cast<const wchar_t*>(field.text.data()); }

const wchar_t* Counted(const SectionText& field, std::uint32_t* bytes) {
  if (bytes && GetSharedView()) *bytes = field.byte_length;
  return Units(field);
}

// A library path goes to functions that look for its terminator, so the terminator must be in the section
// too.
const wchar_t* Terminated(const SectionText& field, std::uint32_t* bytes) {
  const wchar_t* text = Counted(field, bytes);
  if (!text) return nullptr;
  const auto mapping = gs_section.Mapping();
  const auto* end = reinterpret_cast<const std::byte*>(text + field.text.size());
  const auto* mapping_end = mapping.data() + mapping.size();
  if (mapping_end - end < static_cast<std::ptrdiff_t>(sizeof(wchar_t))) return nullptr;
  return text[field.text.size()] == L'\0' ? text : nullptr;
}

}  // namespace

DWORD OpenSharedData(const wchar_t* name) noexcept {
  if (!name) return ERROR_INVALID_PARAMETER;
  UNICODE_STRING counted;
  RtlInitUnicodeString(&counted, name);
  OBJECT_ATTRIBUTES attributes = nt::NamedObject(&counted);
  vorn::windows::UniqueHandle handle;
  NTSTATUS status = NtOpenSection(handle.put(), SECTION_MAP_READ | SECTION_MAP_WRITE, &attributes);
  const bool read_only = status == STATUS_ACCESS_DENIED;
  if (read_only) status = NtOpenSection(handle.put(), SECTION_MAP_READ, &attributes);
  if (!nt::Success(status)) return RtlNtStatusToDosErrorNoTeb(status);

  constexpr ULONG kViewUnmap = 2;  // children do not inherit the view
  void* base = nullptr;
  SIZE_T size = 0;
  status = NtMapViewOfSection(handle.get(), GetCurrentProcess(), &base, 0, 0, nullptr, &size, kViewUnmap, 0,
                              read_only ? PAGE_READONLY : PAGE_READWRITE);
  if (!nt::Success(status)) return RtlNtStatusToDosErrorNoTeb(status);
  const SectionView section({static_cast<const std::byte*>(base), size});
  if (section.Check() != SectionStatus::kOk) {
    NtUnmapViewOfSection(GetCurrentProcess(), base);
    return ERROR_PRODUCT_VERSION;
  }
  gs_section = section;
  if (counted.Length < sizeof gs_section_name) wcscpy(gs_section_name, name);
  gs_section_handle = handle.release();
  return ERROR_SUCCESS;
}

const wchar_t* GetSectionName() noexcept { return gs_section_name; }
const void* GetSharedView() noexcept { return gs_section.Mapping().data(); }
const SectionView& GetSection() noexcept { return gs_section; }

const wchar_t* GetLogDirectory(std::uint32_t* bytes) noexcept {
  return Counted(gs_section.LogDirectory(), bytes);
}
const wchar_t* GetDumpDirectory(std::uint32_t* bytes) noexcept {
  return Counted(gs_section.DumpDirectory(), bytes);
}
const wchar_t* GetServerPortName(std::uint32_t* bytes) noexcept {
  return Counted(gs_section.ServerPortName(), bytes);
}
const wchar_t* GetCreateProcessEventPrefix(std::uint32_t* bytes) noexcept {
  return Counted(gs_section.CreateProcessEventPrefix(), bytes);
}
const wchar_t* GetBizDllPathX64(std::uint32_t* bytes) noexcept {
  return Terminated(gs_section.BizDllPathX64(), bytes);
}
const wchar_t* GetBizDllPathX86(std::uint32_t* bytes) noexcept {
  return Terminated(gs_section.BizDllPathX86(), bytes);
}
const wchar_t* GetIPC64FullPath(std::uint32_t* bytes) noexcept {
  return Terminated(gs_section.IPC64FullPath(), bytes);
}
const wchar_t* GetIPC32FullPath(std::uint32_t* bytes) noexcept {
  return Terminated(gs_section.IPC32FullPath(), bytes);
}

std::uint32_t GetLogLevelMask() noexcept { return gs_section.LogLevelMask(); }
bool IsDebugLogEnabled() noexcept { return gs_section.IsDebugLogEnabled(); }
bool IsFileCreateCheckOff() noexcept { return gs_section.IsFileCreateCheckOff(); }
bool IsNetCheckOff() noexcept { return gs_section.IsNetCheckOff(); }

std::uint32_t GetFileRuleCount() noexcept {
  return static_cast<std::uint32_t>(gs_section.FileRules().size());
}

const wchar_t* GetFileRule(std::uint32_t index, std::uint32_t* path_bytes, std::uint32_t* access,
                           std::uint32_t* hash) noexcept {
  const vorn::policy::FileRule rule = gs_section.FileRuleAt(index);
  if (!rule.in_table) return nullptr;
  if (path_bytes) *path_bytes = rule.path.byte_length;
  if (access) *access = rule.access;
  if (hash) *hash = rule.hash;
  return Units(rule.path);
}

std::uint32_t GetNetRuleCount() noexcept { return static_cast<std::uint32_t>(gs_section.NetRules().size()); }
bool HasNetRules() noexcept { return gs_section.HasNetRules(); }

}  // namespace VornCore
