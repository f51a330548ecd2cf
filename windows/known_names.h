// Names that processes of different kinds agree on.
#pragma once

namespace vorn::windows {

// The environment variable that tells a confined process the NT name of its section.
inline constexpr wchar_t kSectionVariable[] = L"VORN_SHARED_DATA_NAME";

}  // namespace vorn::windows
