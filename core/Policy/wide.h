// The one place where wchar_t and char16_t meet. On Windows both are UTF-16 units of the same size; the
// kernel speaks char16_t so that it also builds where wchar_t is wider.
#pragma once

#ifdef _WIN32

#include <string_view>

namespace vorn::policy {

static_assert(sizeof(wchar_t) == sizeof(char16_t));

inline const char16_t* U16(const wchar_t* s) noexcept { return reinterpret_cast<const char16_t*>(s); }
inline char16_t* U16(wchar_t* s) noexcept { return reinterpret_cast<char16_t*>(s); }
inline std::u16string_view U16(std::wstring_view s) noexcept { return {U16(s.data()), s.size()}; }

inline const wchar_t* W(const char16_t* s) noexcept { return reinterpret_cast<const wchar_t*>(s); }
inline wchar_t* W(char16_t* s) noexcept { return reinterpret_cast<wchar_t*>(s); }
inline std::wstring_view W(std::u16string_view s) noexcept { return {W(s.data()), s.size()}; }

}  // namespace vorn::policy

#endif
