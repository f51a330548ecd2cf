// UTF-16 as UTF-8, without the system's help. Pure; any thread.
#pragma once

#include <string>
#include <string_view>

namespace vorn::host {

// A surrogate without its other half becomes U+FFFD.
std::string Utf8FromUtf16(std::u16string_view text);

}  // namespace vorn::host
