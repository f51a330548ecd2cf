// Any bytes as the message of a process: its line can be printed and its JSON read, whatever the process
// says.
#include <cstdint>
#include <cstdlib>
#include <nlohmann/json.hpp>
#include <span>

#include "vorn/event.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const auto event = vorn::host::DecodeEvent(std::as_bytes(std::span(data, size)), 7);
  for (const char c : vorn::host::EventLine(event)) {
    if (static_cast<unsigned char>(c) < 0x20 || c == 0x7F) std::abort();
  }
  const auto json = nlohmann::json::parse(vorn::host::EventJson(event));
  if (json["pid"] != 7) std::abort();
  return 0;
}
