// What can be told about a native path from its text alone: pipes, mailslots and network devices, local
// volumes and network shares, the recycle bin, paths whose failures are expected.
//
// Paths are counted UTF-16; comparisons ignore the case of A to Z unless a comment says otherwise.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <string_view>

#include "Policy/text.h"

namespace vorn::policy {

inline constexpr std::size_t kNotFound = std::u16string_view::npos;

inline constexpr std::u16string_view kDevicePrefix = u"\\device\\";
inline constexpr std::u16string_view kMupPrefix = u"\\device\\mup\\";
inline constexpr std::u16string_view kLanmanRedirectorPrefix = u"\\device\\mup\\;lanmanredirector\\";
inline constexpr std::u16string_view kHardDiskVolumePrefix = u"\\device\\harddiskvolume";
inline constexpr std::u16string_view kShadowCopyPrefix = u"\\device\\harddiskvolumeshadowcopy";
inline constexpr std::u16string_view kDiskPrefix = u"\\device\\harddisk";  // and a number
inline constexpr std::u16string_view kRecycleBinFolder = u"\\$recycle.bin\\";

inline constexpr std::size_t kDriveUnits = 6;  // \??\C:

enum class DeviceKind : std::uint32_t {
  kNone = 0,  // an ordinary file-system path
  kPipe = 1,
  kMailslot = 2,
  kNetworkDevice = 3,  // a socket or network-stack device directly under \device\.
};

[[nodiscard]] DeviceKind ClassifyDevicePath(std::u16string_view path) noexcept;

// Whether `text` begins with the component \PIPE.
[[nodiscard]] bool IsPipeComponent(std::u16string_view text) noexcept;

// `name` is all that follows \device\.
[[nodiscard]] bool IsNetDeviceName(std::u16string_view name) noexcept;

// Makes one backslash of each run of backslashes, in place, and returns the new length in units. Nothing is
// written behind it.
[[nodiscard]] std::size_t CollapseBackslashes(std::span<char16_t> path) noexcept;

// Whether `path` is `directory` or lies below it. `directory` may end with a backslash; nothing lies below an
// empty one.
[[nodiscard]] bool IsUnder(std::u16string_view path, std::u16string_view directory,
                           Letters letters = Letters::kAToZ) noexcept;

[[nodiscard]] bool IsRecycleBinPath(std::u16string_view path) noexcept;
[[nodiscard]] bool IsHardDiskVolumeOrMup(std::u16string_view path) noexcept;

// Another way to a place of a local drive: the share that the system makes of each drive, whatever the server
// is called (\device\mup\server\C$\x; its names cannot be listed), or the drive in a shadow copy.
struct PlaceAlias {
  char16_t drive = 0;            // 'A' to 'Z'; 0 for a shadow copy, which is of any drive
  std::size_t rest = kNotFound;  // where what follows the drive begins, its backslash included

  [[nodiscard]] bool Found() const noexcept { return rest != kNotFound; }
};
[[nodiscard]] PlaceAlias FindPlaceAlias(std::u16string_view path) noexcept;

// Whether `path` is a volume itself, without any folder, or a disk: what is on it lies below the file system.
[[nodiscard]] bool IsVolumeOrDisk(std::u16string_view path) noexcept;

// Where the last component begins, or kNotFound. One trailing backslash is ignored, and the first unit does
// not count as a separator.
[[nodiscard]] std::size_t FindLastComponent(std::u16string_view path) noexcept;

// Whether `path` lies on the share of a network drive. `drive` is the drive's device path in the redirector
// form \Device\<name>\;<connection>\server\share; paths on it spell \Device\<name>\server\share. Returns the
// index just after the share in `path`, or kNotFound.
[[nodiscard]] std::size_t MatchNetworkDrive(std::u16string_view path, std::u16string_view drive) noexcept;

// A component that may be an 8.3 name: [begin, end) without backslashes.
struct ShortNameComponent {
  std::size_t begin = kNotFound;
  std::size_t end = kNotFound;

  [[nodiscard]] bool Found() const noexcept { return begin != kNotFound; }
};

// The first component at or after unit `from` that a long name may replace: it holds a `~` that is not its
// first unit, has at most 12 units, and at most one dot after the `~`.
[[nodiscard]] ShortNameComponent FindShortName(std::u16string_view path, std::size_t from) noexcept;

// Failures that are part of normal operation and need no attention. The texts that mark such a path are
// compared with case.
[[nodiscard]] bool IsQuietFailurePath(std::u16string_view path) noexcept;
// `status` is an NTSTATUS.
[[nodiscard]] bool IsQuietFailureStatus(std::int32_t status) noexcept;

}  // namespace vorn::policy
