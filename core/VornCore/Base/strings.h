// Conversions between UTF-16, the ANSI code page and UTF-8. Every result is a new heap block of the caller's,
// or null (also for an empty input, where so stated). Native functions only, so they can run inside
// intercepted calls.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>

#include "Platform/heap.h"
#include "windows/nt.h"

namespace VornCore {

using platform::HeapString;
using platform::HeapText;

// Null for null or empty.
HeapText WideToAnsi(const wchar_t* text) noexcept;
// Null without buffer or length.
HeapText UnicodeStringToAnsi(const UNICODE_STRING* text) noexcept;
// The same for a counted text, at any alignment.
HeapText CountedToAnsi(std::wstring_view text) noexcept;
HeapString AnsiToWide(const char* text) noexcept;
// bytes of text; null for null and for no or a negative length.
HeapText WideToUtf8(const wchar_t* text, std::int32_t bytes) noexcept;
HeapString WideDup(const wchar_t* text) noexcept;
// At least two NUL bytes follow the copy; null for a count of 0.
platform::HeapPtr<void> CopyBytesZ(const void* bytes, std::size_t count) noexcept;

// Digits of value in base 2 to 36, lowercase, terminated, into buffer (room for 33 units); null for a bad
// base or buffer, else buffer.
wchar_t* UIntToWide(std::uint32_t value, std::uint32_t base, wchar_t* buffer) noexcept;

// False when suffix is empty or longer than text. Without case, only A to Z are folded.
bool WideEndsWith(const wchar_t* text, const wchar_t* suffix, bool ignore_case) noexcept;

inline void FreeIfNotNull(void* block) noexcept {
  if (block) free(block);
}

// For log lines: the text, or a stand-in when there is none.
inline const char* OrNil(const HeapText& text) noexcept { return text ? text.get() : "nil"; }
inline const char* OrNull(const HeapText& text) noexcept { return text ? text.get() : "null"; }

}  // namespace VornCore
