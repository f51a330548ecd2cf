// Tests that can run longer than they usually do: an environment variable says how long.
#pragma once

#include <windows.h>

#include <string>

namespace vorn::test {

// The number in the variable, or usual when it is not set.
inline int LongForm(const char* variable, int usual) {
  char text[16];
  return GetEnvironmentVariableA(variable, text, sizeof text) ? std::stoi(text) : usual;
}

}  // namespace vorn::test
