// What runs leave behind, removed when it is old or too much.
#pragma once

#include <chrono>
#include <cstdint>
#include <string>

namespace vorn::host {

// The most that is kept of one kind of file.
struct KeepLimits {
  std::wstring begin, end;  // of the names of these files; others are left alone
  std::chrono::hours age{};
  std::uint64_t bytes = 0;  // of all together
};

inline constexpr std::chrono::hours kDay{24};
inline const KeepLimits kKeptLogs{L"vorn_core_", L".log", 14 * kDay, std::uint64_t{500} << 20};
inline const KeepLimits kKeptDumps{L"", L".vrn.dmp", 30 * kDay, std::uint64_t{2} << 30};
inline const KeepLimits kKeptJournals{L"", L".jsonl", 90 * kDay, std::uint64_t{100} << 20};

// Deletes the files of this kind in a folder that were last written longer ago, then the oldest until the
// rest is small enough. What cannot be deleted, because a process still writes it, say, stays.
void Prune(const std::wstring& folder, const KeepLimits& limits) noexcept;

}  // namespace vorn::host
