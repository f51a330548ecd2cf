#include <fmt/xchar.h>

#include <random>

#include "Platform/nt.h"
#include "vorn/message_server.h"

namespace vorn::host {

std::wstring RandomName(const std::wstring& prefix) {
  std::random_device random;  // the system's generator
  return fmt::format(L"{}_{}_{:08x}{:08x}{:08x}{:08x}", prefix, GetCurrentProcessId(), random(), random(),
                     random(), random());
}

}  // namespace vorn::host
