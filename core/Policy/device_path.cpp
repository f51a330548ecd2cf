#include "Policy/device_path.h"

#include <algorithm>
#include <array>

#include "Policy/text.h"

namespace vorn::policy {
namespace {

constexpr std::u16string_view kNamedPipePrefix = u"\\device\\namedpipe\\";
constexpr std::u16string_view kMailslotPrefix = u"\\device\\mailslot\\";
constexpr std::u16string_view kPipeAlias = u"\\??\\pipe";
constexpr std::u16string_view kDosDevicesPipeAlias = u"\\DosDevices\\pipe";
constexpr std::u16string_view kPipeComponent = u"\\PIPE";

// A device path shorter than these is not looked at further.
constexpr std::size_t kMinPipePath = 18;
constexpr std::size_t kMinNetDevicePath = 10;
constexpr std::size_t kMinRecycleBinPath = 24;
constexpr std::size_t kMinNetworkDrivePath = 9;
constexpr std::size_t kMinQuietCheckPath = 5;

constexpr std::size_t kMaxShortName = 12;

constexpr std::array<std::u16string_view, 10> kQuietFailureTexts = {
    u"STORAGE#VolumeSnapshot#HarddiskVolumeSnapshot",
    u"STORAGE#Volume#",
    u".exe.Local",
    u".exe.mun",
    u".dll.mun",
    u".dll.Config",
    u".dll.config",
    u".dll.dll",
    u"USBSTOR#CdRom&Ven_Linux&Prod_File-CD_Gadget&Rev",
    u"\\Device\\000000",
};

constexpr std::uint32_t kStatusObjectNameNotFound = 0xC0000034;
constexpr std::uint32_t kStatusObjectNameCollision = 0xC0000035;
constexpr std::uint32_t kStatusObjectPathNotFound = 0xC000003A;
constexpr std::uint32_t kStatusFileIsADirectory = 0xC00000BA;

// The text from unit `at` on; `at` is at most its length.
std::u16string_view From(std::u16string_view text, std::size_t at) noexcept {
  return {text.data() + at, text.size() - at};
}

// The text from the next backslash at or after `from`, empty when there is none.
std::u16string_view FromBackslash(std::u16string_view path, std::size_t from) noexcept {
  return From(path, std::min(path.find(u'\\', from), path.size()));
}

// `text` begins with `prefix`, and a component ends there.
bool StartsWithComponents(std::u16string_view text, std::u16string_view prefix,
                          Letters letters = Letters::kAToZ) noexcept {
  return StartsWithNoCase(text, prefix, letters) &&
         (text.size() == prefix.size() || text[prefix.size()] == u'\\');
}

}  // namespace

DeviceKind ClassifyDevicePath(std::u16string_view path) noexcept {
  if (path.size() >= kMinPipePath) {
    if (StartsWithNoCase(path, kNamedPipePrefix)) return DeviceKind::kPipe;
    if (StartsWithNoCase(path, kMailslotPrefix)) return DeviceKind::kMailslot;
    for (std::u16string_view redirector : {kLanmanRedirectorPrefix, kMupPrefix}) {
      if (StartsWithNoCase(path, redirector) && IsPipeComponent(FromBackslash(path, redirector.size()))) {
        return DeviceKind::kPipe;
      }
    }
  }
  if (path.size() >= kMinNetDevicePath && StartsWithNoCase(path, kDevicePrefix) &&
      IsNetDeviceName(From(path, kDevicePrefix.size()))) {
    return DeviceKind::kNetworkDevice;
  }
  if (StartsWithNoCase(path, kPipeAlias) || StartsWithNoCase(path, kDosDevicesPipeAlias)) {
    return DeviceKind::kPipe;
  }
  return DeviceKind::kNone;
}

bool IsPipeComponent(std::u16string_view text) noexcept { return StartsWithComponents(text, kPipeComponent); }

bool IsNetDeviceName(std::u16string_view name) noexcept {
  const auto is_one_of = [name](auto... names) noexcept { return (EqualsNoCase(name, names) || ...); };
  using namespace std::string_view_literals;
  switch (name.size()) {
    case 12:
      return StartsWithNoCase(name, u"afd"sv);
    case 6:
      return is_one_of(u"rawip6"sv);
    case 5:
      return is_one_of(u"rawip"sv);
    case 4:
      return is_one_of(u"http"sv, u"tcp6"sv, u"udp6"sv);
    case 3:
      return is_one_of(u"tcp"sv, u"udp"sv, u"ip6"sv, u"afd"sv, u"nsi"sv);
    case 2:
      return is_one_of(u"ip"sv);
    default:
      return false;
  }
}

std::size_t CollapseBackslashes(std::span<char16_t> path) noexcept {
  const auto end = std::unique(path.begin(), path.end(),
                               [](char16_t a, char16_t b) noexcept { return a == u'\\' && b == u'\\'; });
  return static_cast<std::size_t>(end - path.begin());
}

bool IsUnder(std::u16string_view path, std::u16string_view directory, Letters letters) noexcept {
  if (!directory.empty() && directory.back() == u'\\') directory.remove_suffix(1);
  return !directory.empty() && StartsWithComponents(path, directory, letters);
}

bool IsRecycleBinPath(std::u16string_view path) noexcept {
  return path.size() >= kMinRecycleBinPath && StartsWithNoCase(path, kHardDiskVolumePrefix) &&
         StartsWithNoCase(FromBackslash(path, kHardDiskVolumePrefix.size()), kRecycleBinFolder);
}

bool IsHardDiskVolumeOrMup(std::u16string_view path) noexcept {
  if (StartsWithNoCase(path, kHardDiskVolumePrefix)) return true;
  return StartsWithNoCase(path, kMupPrefix) && ClassifyDevicePath(path) == DeviceKind::kNone;
}

PlaceAlias FindPlaceAlias(std::u16string_view path) noexcept {
  const auto next = [path](std::size_t from) { return std::min(path.find(u'\\', from), path.size()); };
  if (StartsWithNoCase(path, kShadowCopyPrefix)) return {0, next(kShadowCopyPrefix.size())};
  if (!StartsWithNoCase(path, kMupPrefix)) return {};
  std::size_t server = kMupPrefix.size();
  // The connection of a drive letter, and the name of a provider.
  while (server < path.size() && path[server] == u';') server = std::min(next(server) + 1, path.size());
  const std::size_t share = next(server) + 1, end = next(std::min(share, path.size()));
  if (end != share + 2 || path[share + 1] != u'$') return {};
  const char16_t letter = FoldCase(path[share]);
  if (letter < u'a' || letter > u'z') return {};
  return {static_cast<char16_t>(letter - u'a' + u'A'), end};
}

bool IsVolumeOrDisk(std::u16string_view path) noexcept {
  if (StartsWithNoCase(path, kHardDiskVolumePrefix))
    return path.find(u'\\', kHardDiskVolumePrefix.size()) == kNotFound;
  const char16_t number = path.size() > kDiskPrefix.size() ? path[kDiskPrefix.size()] : u'\0';
  return StartsWithNoCase(path, kDiskPrefix) && number >= u'0' && number <= u'9';
}

std::size_t FindLastComponent(std::u16string_view path) noexcept {
  if (path.size() < 2) return kNotFound;
  if (path.back() == u'\\') path.remove_suffix(1);
  if (path.size() < 2) return kNotFound;
  const std::size_t separator = path.rfind(u'\\');
  return separator == kNotFound || separator == 0 ? kNotFound : separator + 1;
}

std::size_t MatchNetworkDrive(std::u16string_view path, std::u16string_view drive) noexcept {
  if (path.size() < kMinNetworkDrivePath || drive.size() < kMinNetworkDrivePath) return kNotFound;
  if (!StartsWithNoCase(path, kDevicePrefix) || !StartsWithNoCase(drive, kDevicePrefix)) return kNotFound;
  const std::size_t device_end = path.find(u'\\', kDevicePrefix.size());
  if (device_end == kNotFound || drive.find(u'\\', kDevicePrefix.size()) != device_end) return kNotFound;
  if (!EqualsNoCase({path.data(), device_end}, {drive.data(), device_end})) return kNotFound;
  const std::u16string_view connection = From(drive, device_end + 1);
  if (connection.empty() || connection.front() != u';') return kNotFound;
  const std::u16string_view share = FromBackslash(connection, 1);
  if (share.empty() || !StartsWithComponents(From(path, device_end), share)) return kNotFound;
  return device_end + share.size();
}

ShortNameComponent FindShortName(std::u16string_view path, std::size_t from) noexcept {
  for (std::size_t tilde = path.find(u'~', from); tilde != kNotFound;) {
    const std::size_t separator = path.rfind(u'\\', tilde);
    const std::size_t begin = separator == kNotFound ? 0 : separator + 1;
    const std::size_t end = std::min(path.find(u'\\', tilde), path.size());
    const auto dots = std::count(path.begin() + static_cast<std::ptrdiff_t>(tilde),
                                 path.begin() + static_cast<std::ptrdiff_t>(end), u'.');
    if (begin != tilde && end - begin <= kMaxShortName && dots < 2) return {begin, end};
    tilde = path.find(u'~', end);
  }
  return {};
}

bool IsQuietFailurePath(std::u16string_view path) noexcept {
  if (path.size() < kMinQuietCheckPath) return true;
  return std::any_of(kQuietFailureTexts.begin(), kQuietFailureTexts.end(),
                     [path](std::u16string_view text) noexcept { return path.find(text) != kNotFound; });
}

bool IsQuietFailureStatus(std::int32_t status) noexcept {
  switch (static_cast<std::uint32_t>(status)) {
    case kStatusObjectNameNotFound:
    case kStatusObjectNameCollision:
    case kStatusObjectPathNotFound:
    case kStatusFileIsADirectory:
      return true;
    default:
      return status >= 0;
  }
}

}  // namespace vorn::policy
