// What a crash dump of the library is called and what it carries besides the format's own streams: shared by
// the writer in the process and the reader at the host.
//
// File name: process id, id of the writing thread, tick count, each as 8 lower-case hexadecimal digits:
//   00001f40-00002a10-0037c2e8.vrn.dmp
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <string_view>

namespace vorn::policy {

inline constexpr std::u16string_view kDumpFileTag = u"vrn";

// The user stream of every dump.
inline constexpr std::uint32_t kDumpUserStream = 0x06472002;
struct DumpUserStream {
  std::uint32_t crashing_thread_id;
  std::uint32_t dump_thread_id;
  std::uint32_t flag;  // hook depth of the crashing thread; not 0: inside one of the library's handlers
};
static_assert(sizeof(DumpUserStream) == 12);

inline constexpr std::size_t kDumpNameDigits = 8, kDumpTagUnits = 3;
inline constexpr std::u16string_view kDumpExtension = u".dmp";
inline constexpr std::size_t kDumpNameUnits =
    3 * kDumpNameDigits + 2 + 1 + kDumpTagUnits + kDumpExtension.size();

// tag: its first three units are used; it has at least as many.
[[nodiscard]] constexpr std::array<char16_t, kDumpNameUnits> DumpFileName(
    std::uint32_t process_id, std::uint32_t thread_id, std::uint32_t tick_count,
    std::u16string_view tag = kDumpFileTag) noexcept {
  std::array<char16_t, kDumpNameUnits> name{};
  std::size_t at = 0;
  for (const std::uint32_t value : {process_id, thread_id, tick_count}) {
    if (at != 0) name[at++] = u'-';
    for (int shift = 28; shift >= 0; shift -= 4) name[at++] = u"0123456789abcdef"[(value >> shift) & 0xF];
  }
  name[at++] = u'.';
  for (std::size_t i = 0; i < kDumpTagUnits; ++i) name[at++] = tag[i];
  for (const char16_t unit : kDumpExtension) name[at++] = unit;
  return name;
}

}  // namespace vorn::policy
