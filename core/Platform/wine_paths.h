// How Wine spells paths, and how Windows does.
//
//   \Device\HarddiskVolume1\a   \??\C:\a       Wine opens only the right spelling and reports only that one
//   \Device\HarddiskVolume1     \??\C:\        (without the backslash Wine opens the raw device)
//   \Device\Mup\srv\share       \??\UNC\srv\share
//   …Volume2\tmp\f (Z:)         \??\unix\tmp\f, also with forward slashes: accepted, reported as \??\Z:\…
//
// Which drive is which device is read once, from the \??\X: links. Any thread.
#pragma once

#include <cstddef>
#include <string_view>

#include "windows/nt.h"

namespace VornCore::platform::wine {

// The spelling that Wine opens for a device path, in at most path.size() + 1 units (+ terminator) at out.
// 0 when Wine opens path as it stands.
std::size_t ToWineSpelling(std::wstring_view path, wchar_t* out) noexcept;

// Turns the units at text from Wine's spelling into the device path, in place. Returns the new length; when
// it is above capacity, nothing has been written. Names that are spelled alike keep their length.
std::size_t ToDevicePath(wchar_t* text, std::size_t units, std::size_t capacity) noexcept;

// As GetLogicalDrives, which asks Wine's server for every entry of the directory again.
DWORD WINAPI LogicalDrives() noexcept;

// What \??\UNC and \??\unix names mean (see NativeApi::AliasTarget).
std::size_t AliasTarget(std::wstring_view name, wchar_t* target, std::size_t units) noexcept;

// A counted name in the spelling that Wine opens: the caller's own, or a copy that this object owns. Reading
// an unreadable name leaves the answer to the real function.
class WineName {
 public:
  explicit WineName(std::wstring_view path) noexcept { Spell(path); }
  explicit WineName(const OBJECT_ATTRIBUTES* attributes) noexcept;
  ~WineName();
  WineName(const WineName&) = delete;
  WineName& operator=(const WineName&) = delete;

  bool changed() const noexcept { return units_ != 0; }
  std::wstring_view text() const noexcept { return {text_, units_}; }  // when changed
  OBJECT_ATTRIBUTES* attributes() noexcept { return attributes_; }

 private:
  void Spell(std::wstring_view path) noexcept;

  wchar_t inline_[264];
  wchar_t* text_ = inline_;
  std::size_t units_ = 0;
  UNICODE_STRING name_;
  OBJECT_ATTRIBUTES copy_;
  OBJECT_ATTRIBUTES* attributes_ = nullptr;
};

}  // namespace VornCore::platform::wine
