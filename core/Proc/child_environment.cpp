#include "Proc/child_environment.h"

#include <span>
#include <string_view>

#include "Platform/guard.h"
#include "Platform/heap.h"
#include "Policy/environment_block.h"
#include "Policy/wide.h"
#include "VornCore/Base/log.h"
#include "windows/known_names.h"

namespace VornCore {
namespace {

namespace policy = vorn::policy;

using vorn::windows::kSectionVariable;

constexpr DWORD kMaxValueUnits = 256;  // terminator included

}  // namespace

wchar_t* GetExtraEnvironment(wchar_t* block, SIZE_T* size) noexcept {
  if (!block || !size || !*size) return block;
  const std::u16string_view variable = policy::U16(std::wstring_view(kSectionVariable));
  // The caller's memory: the stated size may be more than is there, and other threads may write to it.
  const std::span<const char16_t> entries(policy::U16(block), *size / sizeof(char16_t));
  policy::EnvironmentScan scan;
  if (!platform::Guarded([&] { scan = policy::ScanEnvironment(entries, variable); }) ||
      scan.status == policy::EnvironmentStatus::kUnterminated) {
    VORN_LOG_W("GetExtraEnvironment: the environment block does not end within its %llu bytes",
               static_cast<unsigned long long>(*size));
    return block;
  }
  if (scan.status == policy::EnvironmentStatus::kFound) return block;

  wchar_t value[kMaxValueUnits];
  const DWORD units = GetEnvironmentVariableW(kSectionVariable, value, kMaxValueUnits);
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
