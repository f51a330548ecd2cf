#include "Policy/environment_block.h"

#include <algorithm>

#include "Policy/text.h"

namespace vorn::policy {
namespace {

constexpr std::size_t kUnit = sizeof(char16_t);

}  // namespace

EnvironmentScan ScanEnvironment(std::span<const char16_t> block, std::u16string_view name) noexcept {
  EnvironmentScan scan;
  bool found = false;
  auto at = block.begin();
  while (at != block.end() && *at != 0) {
    const auto end = std::find(at, block.end(), u'\0');
    if (end == block.end()) return {};
    const std::u16string_view entry(&*at, static_cast<std::size_t>(end - at));
    if (!found && entry.size() > name.size() && entry[name.size()] == u'=' && StartsWithNoCase(entry, name)) {
      found = true;
      scan.entry = entry;
    }
    at = end + 1;
  }
  if (at == block.end()) return {};
  scan.status = found ? EnvironmentStatus::kFound : EnvironmentStatus::kMissing;
  scan.used_bytes = static_cast<std::size_t>(at - block.begin() + 1) * kUnit;
  return scan;
}

std::size_t ExtendedEnvironmentSize(const EnvironmentScan& scan, std::u16string_view name,
                                    std::u16string_view value) noexcept {
  // The old entries with the final terminator, the new entry, its terminator, and 7 to round up.
  const std::size_t entry_bytes = (name.size() + 1 + value.size()) * kUnit;
  return (scan.used_bytes + entry_bytes + kUnit + 7) & ~std::size_t{7};
}

bool ExtendEnvironment(std::span<const char16_t> block, const EnvironmentScan& scan, std::u16string_view name,
                       std::u16string_view value, std::span<char16_t> out) noexcept {
  const std::size_t size = ExtendedEnvironmentSize(scan, name, value) / kUnit;
  const std::size_t used = scan.used_bytes / kUnit;
  if (scan.status == EnvironmentStatus::kUnterminated || used == 0 || used > block.size() ||
      out.size() < size) {
    return false;
  }
  auto at = std::copy_n(block.begin(), used - 1, out.begin());
  at = std::copy(name.begin(), name.end(), at);
  *at++ = u'=';
  at = std::copy(value.begin(), value.end(), at);
  std::fill(at, out.begin() + static_cast<std::ptrdiff_t>(size), u'\0');
  return true;
}

}  // namespace vorn::policy
