#include "Policy/text.h"

#ifdef _WIN32
// A function over a table of the system's, without a system call.
extern "C" __declspec(dllimport) wchar_t __stdcall RtlUpcaseUnicodeChar(wchar_t unit);
#else
#include <clocale>
#include <cwctype>
#endif

namespace vorn::policy {

char16_t CapitalOf(char16_t unit) noexcept {
#ifdef _WIN32
  return static_cast<char16_t>(::RtlUpcaseUnicodeChar(static_cast<wchar_t>(unit)));
#else
  static const locale_t letters = newlocale(LC_CTYPE_MASK, "C.UTF-8", nullptr);
  const std::wint_t capital = letters ? towupper_l(unit, letters) : unit;
  return capital > 0xFFFF ? unit : static_cast<char16_t>(capital);
#endif
}

}  // namespace vorn::policy
