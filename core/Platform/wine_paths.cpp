#include "Platform/wine_paths.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <iterator>

#include "Platform/guard.h"
#include "Policy/device_path.h"
#include "Policy/text.h"
#include "Policy/wide.h"
#include "windows/unique_handle.h"

namespace VornCore::platform::wine {
namespace {

using vorn::policy::kDriveUnits;
using vorn::policy::StartsWithNoCase;
using vorn::policy::U16;

constexpr std::wstring_view kDosPrefix = L"\\??\\";
constexpr std::wstring_view kVolumePrefix = L"\\Device\\HarddiskVolume";
constexpr std::wstring_view kMup = L"\\Device\\Mup";
constexpr std::wstring_view kUnc = L"\\??\\UNC";
constexpr std::wstring_view kUnix = L"\\??\\unix";
constexpr wchar_t kUnixDrive = L'Z';  // Wine maps it to the root of the Unix file system

bool StartsWith(std::wstring_view text, std::wstring_view prefix) {
  return StartsWithNoCase(U16(text), U16(prefix));
}

// Whether path is directory itself or something below it.
bool IsBelow(std::wstring_view path, std::wstring_view directory) {
  return vorn::policy::IsUnder(U16(path), U16(directory));
}

class DriveDevices {
 public:
  DriveDevices() {
    wchar_t link_name[] = L"\\??\\A:";
    for (wchar_t letter = L'A'; letter <= L'Z'; ++letter) {
      link_name[4] = letter;
      if (Read(link_name, devices_[letter - L'A'])) letters_ |= 1u << (letter - L'A');
    }
  }

  DWORD letters() const { return letters_; }  // bit 0: A

  std::wstring_view Of(wchar_t letter) const {
    const wchar_t upper = letter & ~0x20;
    if (upper < L'A' || upper > L'Z') return {};
    const Device& device = devices_[upper - L'A'];
    return {device.text, device.units};
  }

  // The letter whose device path begins at path; 0 when there is none.
  wchar_t LetterOf(std::wstring_view path) const {
    for (wchar_t letter = L'A'; letter <= L'Z'; ++letter)
      if (IsBelow(path, Of(letter))) return letter;
    return 0;
  }

 private:
  struct Device {
    wchar_t text[40];
    std::size_t units;
  };

  // False when the letter means nothing.
  static bool Read(wchar_t* link_name, Device& device) {
    UNICODE_STRING name = nt::CountedString(link_name, kDriveUnits * sizeof(wchar_t));
    OBJECT_ATTRIBUTES attributes = nt::NamedObject(&name);
    vorn::windows::UniqueHandle link;
    if (!nt::Success(::NtOpenSymbolicLinkObject(link.put(), SYMBOLIC_LINK_QUERY, &attributes))) return false;
    UNICODE_STRING target{0, sizeof device.text, device.text};
    if (nt::Success(::NtQuerySymbolicLinkObject(link.get(), &target, nullptr)) &&
        StartsWith({device.text, target.Length / sizeof(wchar_t)}, kVolumePrefix))
      device.units = target.Length / sizeof(wchar_t);
    return true;
  }

  Device devices_[26] = {};
  DWORD letters_ = 0;
};

const DriveDevices& Drives() {
  static const DriveDevices drives;
  return drives;
}

wchar_t* Put(wchar_t* out, std::wstring_view text) {
  memcpy(out, text.data(), text.size() * sizeof(wchar_t));
  return out + text.size();
}

// Replaces the first count units of the text by head.
std::size_t ReplaceHead(wchar_t* text, std::size_t units, std::size_t count, std::wstring_view head,
                        std::size_t capacity) {
  const std::size_t result = units - count + head.size();
  if (result > capacity) return result;
  memmove(text + head.size(), text + count, (units - count) * sizeof(wchar_t));
  Put(text, head);
  return result;
}

}  // namespace

DWORD WINAPI LogicalDrives() noexcept { return Drives().letters(); }

std::size_t ToWineSpelling(std::wstring_view path, wchar_t* out) noexcept {
  wchar_t* end = out;
  if (StartsWith(path, kVolumePrefix)) {
    const wchar_t letter = Drives().LetterOf(path);
    if (!letter) return 0;
    const std::wstring_view rest = path.substr(Drives().Of(letter).size());
    end = Put(end, kDosPrefix);
    *end++ = letter;
    *end++ = L':';
    end = Put(end, rest.empty() ? L"\\" : rest);
  } else if (IsBelow(path, kMup)) {
    end = Put(Put(end, kUnc), path.substr(kMup.size()));
  } else {
    return 0;
  }
  *end = 0;
  return static_cast<std::size_t>(end - out);
}

std::size_t ToDevicePath(wchar_t* text, std::size_t units, std::size_t capacity) noexcept {
  const std::wstring_view name(text, units);
  if (!StartsWith(name, kDosPrefix)) return units;
  if (IsBelow(name, kUnix)) {
    const std::wstring_view device = Drives().Of(kUnixDrive);
    return device.empty() ? units : ReplaceHead(text, units, kUnix.size(), device, capacity);
  }
  if (IsBelow(name, kUnc)) return ReplaceHead(text, units, kUnc.size(), kMup, capacity);
  if (units < kDriveUnits || text[5] != L':') return units;
  const std::wstring_view device = Drives().Of(text[4]);
  return device.empty() ? units : ReplaceHead(text, units, kDriveUnits, device, capacity);
}

std::size_t AliasTarget(std::wstring_view name, wchar_t* target, std::size_t units) noexcept {
  std::wstring_view head, rest;
  if (IsBelow(name, kUnc)) {
    head = kMup;
    rest = name.substr(kUnc.size());
  } else if (StartsWith(name, kUnix) &&
             (name.size() == kUnix.size() || name[kUnix.size()] == L'\\' || name[kUnix.size()] == L'/')) {
    head = Drives().Of(kUnixDrive);
    rest = name.substr(kUnix.size());
  }
  if (head.empty() || head.size() + rest.size() > units) return 0;
  wchar_t* tail = Put(target, head);
  // A Unix name may be written with either slash.
  std::replace(tail, Put(tail, rest), L'/', L'\\');
  return head.size() + rest.size();
}

WineName::WineName(const OBJECT_ATTRIBUTES* attributes) noexcept
    : attributes_(const_cast<OBJECT_ATTRIBUTES*>(attributes)) {
  if (!attributes) return;
  const bool readable = Guarded([&] {
    const UNICODE_STRING* name = attributes->ObjectName;
    if (attributes->RootDirectory || !name || !name->Buffer) return;
    const std::wstring_view path(name->Buffer, name->Length / sizeof(wchar_t));
    if (path.size() <= kMup.size() || (path[1] | 0x20) != L'd') return;
    copy_ = *attributes;
    Spell(path);
  });
  if (!readable || !changed()) return;
  name_ = nt::CountedString(text_, units_ * sizeof(wchar_t));
  copy_.ObjectName = &name_;
  attributes_ = &copy_;
}

WineName::~WineName() {
  if (text_ != inline_) free(text_);
}

void WineName::Spell(std::wstring_view path) noexcept {
  if (path.size() + 2 > std::size(inline_)) {
    auto* longer = static_cast<wchar_t*>(malloc((path.size() + 2) * sizeof(wchar_t)));
    if (!longer) return;
    text_ = longer;
  }
  units_ = ToWineSpelling(path, text_);
}

}  // namespace VornCore::platform::wine
