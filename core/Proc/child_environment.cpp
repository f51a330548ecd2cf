#include "Proc/child_environment.h"

#include <cstring>
#include <span>
#include <string_view>

#include "Platform/guard.h"
#include "Platform/heap.h"
#include "Policy/environment_block.h"
#include "Policy/wide.h"
#include "VornCore/Base/log.h"
#include "VornCore/Base/shared_data.h"
#include "windows/known_names.h"

namespace VornCore {
namespace {

namespace policy = vorn::policy;

using vorn::windows::kSectionVariable;

constexpr DWORD kMaxValueUnits = 256;  // terminator included

// Whether a child has the section of its creator, whatever its environment says.
bool IsSectionFixed() { return GetSection().Has(policy::SectionOption::kRulesHoldPlaces); }

// The name of this process's section; returns its length, 0 for none.
DWORD OwnSection(wchar_t (&value)[kMaxValueUnits]) {
  if (!IsSectionFixed()) return GetEnvironmentVariableW(kSectionVariable, value, kMaxValueUnits);
  wcscpy(value, GetSectionName());
  return static_cast<DWORD>(wcslen(value));
}

bool NamesOwnSection(std::u16string_view entry) {
  wchar_t value[kMaxValueUnits];
  const DWORD units = OwnSection(value);
  return entry.substr(entry.find(u'=') + 1) == std::u16string_view(policy::U16(value), units);
}

// A copy of the block without what it says about the section; null when memory is short.
platform::HeapPtr<char16_t> WithoutSection(std::span<const char16_t> block, std::u16string_view variable,
                                           policy::EnvironmentScan& scan) {
  platform::HeapPtr<char16_t> copy(static_cast<char16_t*>(malloc(scan.used_bytes)));
  if (!copy) return copy;
  const std::span<char16_t> units(copy.get(), scan.used_bytes / sizeof(char16_t));
  memcpy(units.data(), block.data(), scan.used_bytes);
  while ((scan = policy::ScanEnvironment(units, variable)).status == policy::EnvironmentStatus::kFound) {
    auto* const entry = const_cast<char16_t*>(scan.entry.data());
    const char16_t* const behind = entry + scan.entry.size() + 1;
    const char16_t* const end = units.data() + scan.used_bytes / sizeof(char16_t);
    memmove(entry, behind, static_cast<std::size_t>(end - behind) * sizeof(char16_t));
  }
  return copy;
}

}  // namespace

wchar_t* GetExtraEnvironment(wchar_t* block, SIZE_T* size) noexcept {
  if (!block || !size || !*size) return block;
  const std::u16string_view variable = policy::U16(std::wstring_view(kSectionVariable));
  // The caller's memory: the stated size may be more than is there, and other threads may write to it.
  std::span<const char16_t> entries(policy::U16(block), *size / sizeof(char16_t));
  policy::EnvironmentScan scan;
  if (!platform::Guarded([&] { scan = policy::ScanEnvironment(entries, variable); }) ||
      scan.status == policy::EnvironmentStatus::kUnterminated) {
    VORN_LOG_W("GetExtraEnvironment: the environment block does not end within its %llu bytes",
               static_cast<unsigned long long>(*size));
    return block;
  }
  platform::HeapPtr<char16_t> cleaned;
  if (scan.status == policy::EnvironmentStatus::kFound) {
    bool own = true;
    const bool readable = platform::Guarded([&] {
      own = !IsSectionFixed() || NamesOwnSection(scan.entry);
      if (!own) cleaned = WithoutSection(entries, variable, scan);
    });
    if (!readable || own || !cleaned || scan.status != policy::EnvironmentStatus::kMissing) return block;
    entries = {cleaned.get(), scan.used_bytes / sizeof(char16_t)};
  }

  wchar_t value[kMaxValueUnits];
  const DWORD units = OwnSection(value);
  if (units == 0 || units >= kMaxValueUnits) {
    VORN_LOG_W("GetExtraEnvironment: VORN_SHARED_DATA_ENV_NAME not found in current environment, code %lu",
               GetLastError());
    return block;
  }
  const std::u16string_view section_name(policy::U16(value), units);
  const std::size_t new_size = policy::ExtendedEnvironmentSize(scan, variable, section_name);
  platform::HeapPtr<char16_t> extended(static_cast<char16_t*>(malloc(new_size)));
  if (!extended) {
    VORN_LOG_W("GetExtraEnvironment: malloc failed for new environment block");
    return block;
  }
  const std::span<char16_t> out(extended.get(), new_size / sizeof(char16_t));
  bool written = false;
  const bool readable = platform::Guarded(
      [&] { written = policy::ExtendEnvironment(entries, scan, variable, section_name, out); });
  if (!readable || !written) return block;  // the caller's other threads took the block away in the meantime
  *size = new_size;
  return policy::W(extended.release());
}

}  // namespace VornCore
