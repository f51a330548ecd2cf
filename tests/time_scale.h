// Time limits on a slow machine: VORN_TIME_SCALE says how many times longer than usual they are (default 1).
#pragma once

#include <chrono>

#include "tests/unit/long_form.h"

namespace vorn::test {

// A limit for what always happens: on a machine of usual speed as it stands.
inline unsigned long Scaled(unsigned long milliseconds) {
  static const int scale = LongForm("VORN_TIME_SCALE", 1);
  return milliseconds * static_cast<unsigned long>(scale);
}
inline std::chrono::milliseconds Scaled(std::chrono::milliseconds limit) {
  return std::chrono::milliseconds(Scaled(static_cast<unsigned long>(limit.count())));
}

}  // namespace vorn::test
