#include "File/object_link.h"

#include <cstring>

#include "File/scratch_path.h"
#include "Platform/native.h"
#include "Policy/device_path.h"
#include "Policy/text.h"
#include "Policy/wide.h"
#include "VornCore/Hook/own_handle.h"

namespace VornCore {
namespace {

using vorn::policy::ClassifyDevicePath;
using vorn::policy::DeviceKind;
using vorn::policy::StartsWithNoCase;
using vorn::policy::U16;

constexpr std::size_t kMinClassifiedUnits = 9;
constexpr std::size_t kMinPipeAliasUnits = 13;  // a pipe alias in front of a device has more than these
constexpr std::size_t kLongestDevicePath = 64;  // what an alias stands for, at most
constexpr std::wstring_view kPipeAlias = L"\\??\\pipe";
constexpr std::wstring_view kNamedPipeDevice = L"\\device\\namedpipe";

// \??\pipe\Device\NamedPipe\x names the device itself.
std::wstring_view SkipPipeAlias(std::wstring_view path) {
  const bool alias = path.size() > kMinPipeAliasUnits && StartsWithNoCase(U16(path), U16(kPipeAlias)) &&
                     StartsWithNoCase(U16(path.substr(kPipeAlias.size())), U16(kNamedPipeDevice));
  return alias ? path.substr(kPipeAlias.size()) : path;
}

OwnHandle OpenLink(std::wstring_view name) {
  UNICODE_STRING text = nt::CountedString(name.data(), name.size() * sizeof(wchar_t));
  OBJECT_ATTRIBUTES attributes = nt::NamedObject(&text);
  HANDLE link;
  const NTSTATUS status =
      platform::Native().NtOpenSymbolicLinkObject(&link, SYMBOLIC_LINK_QUERY, &attributes);
  return OwnHandle(nt::Success(status) ? link : nullptr);
}

// The longest prefix of path that is a link and ends before a backslash or at the end; null when there is
// none.
OwnHandle OpenLongestLink(std::wstring_view path, std::size_t* prefix_units) {
  std::size_t units = path.size();
  while (units >= 2) {
    if (OwnHandle link = OpenLink(path.substr(0, units))) {
      *prefix_units = units;
      return link;
    }
    const std::size_t separator = path.find_last_of(L'\\', units - 1);
    if (separator == path.npos) break;
    units = separator;
  }
  return {};
}

// The target of link followed by rest, in slot 0; empty when it cannot be read.
std::wstring_view ReadTarget(HANDLE link, std::wstring_view rest) {
  UNICODE_STRING target{0, 0, nullptr};
  ULONG bytes = 0;
  const NTSTATUS status = platform::Native().NtQuerySymbolicLinkObject(link, &target, &bytes);
  if (status != STATUS_BUFFER_TOO_SMALL && !nt::Success(status)) return {};
  if (bytes > kMaxPathUnits * sizeof(wchar_t)) return {};
  wchar_t* buffer = ScratchPath(0, bytes / sizeof(wchar_t) + 1 + rest.size());
  if (!buffer) return {};
  target = {0, static_cast<USHORT>(bytes), buffer};
  if (bytes && !nt::Success(platform::Native().NtQuerySymbolicLinkObject(link, &target, &bytes))) return {};
  const std::size_t units = target.Length / sizeof(wchar_t);
  return TerminatedCopy(buffer, {buffer, units}, rest);
}

}  // namespace

std::optional<TranslatedPath> TranslateSymlinksToTargetPath(std::wstring_view path) noexcept {
  wchar_t* copy = ScratchPath(1, path.size());
  if (!copy) return {};
  std::wstring_view current = TerminatedCopy(copy, path);
  for (int links = 0; links <= kMaxLinkChain; ++links) {
    current = SkipPipeAlias(current);
    std::wstring_view next;
    if (current.size() < kMinClassifiedUnits || ClassifyDevicePath(U16(current)) == DeviceKind::kNone) {
      const std::size_t room = current.size() + kLongestDevicePath;
      wchar_t* target = ScratchPath(0, room);
      if (!target) return {};
      std::size_t prefix = 0;
      if (const std::size_t units = platform::Native().AliasTarget(current, target, room)) {
        target[units] = 0;
        next = {target, units};
      } else if (const OwnHandle link = OpenLongestLink(current, &prefix)) {
        next = ReadTarget(link.get(), current.substr(prefix));
        if (next.empty()) return {};
      }
    }
    if (next.empty()) {
      wchar_t* result = ScratchPath(0, current.size());
      if (!result) return {};
      return TranslatedPath{TerminatedCopy(result, current), links > 0};
    }
    copy = ScratchPath(1, next.size());
    if (!copy) return {};
    current = TerminatedCopy(copy, next);
  }
  return {};
}

}  // namespace VornCore
