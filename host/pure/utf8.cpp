#include "utf8.h"

#include <cstdint>

namespace vorn::host {

std::string Utf8FromUtf16(std::u16string_view text) {
  std::string result;
  result.reserve(text.size());
  const auto put = [&](std::uint32_t byte) { result += static_cast<char>(byte); };
  for (std::size_t i = 0; i < text.size(); ++i) {
    std::uint32_t code = text[i];
    if (code >= 0xD800 && code <= 0xDFFF) {
      const bool pair =
          code <= 0xDBFF && i + 1 < text.size() && text[i + 1] >= 0xDC00 && text[i + 1] <= 0xDFFF;
      code = pair ? 0x10000 + ((code - 0xD800) << 10) + (text[++i] - 0xDC00u) : 0xFFFD;
    }
    if (code < 0x80) {
      put(code);
      continue;
    }
    if (code < 0x800) {
      put(0xC0 | code >> 6);
    } else {
      if (code < 0x10000) {
        put(0xE0 | code >> 12);
      } else {
        put(0xF0 | code >> 18);
        put(0x80 | (code >> 12 & 0x3F));
      }
      put(0x80 | (code >> 6 & 0x3F));
    }
    put(0x80 | (code & 0x3F));
  }
  return result;
}

}  // namespace vorn::host
