// A temp folder of one run alone.
#pragma once

#include <string>

namespace vorn::host {

// Where the run's temp folder lies: below %LOCALAPPDATA%\Vorn\temp. Empty when that variable is not set.
std::wstring PrivateTempPath(const std::string& run);

// Made with the object, removed with it and all that lies in it: links are removed themselves and never
// followed.
class PrivateTemp {
 public:
  explicit PrivateTemp(std::wstring path);  // throws std::system_error when it cannot be made
  ~PrivateTemp();
  PrivateTemp(const PrivateTemp&) = delete;
  PrivateTemp& operator=(const PrivateTemp&) = delete;

 private:
  const std::wstring path_;
};

}  // namespace vorn::host
