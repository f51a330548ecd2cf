// Any bytes as a crash dump: what is read from it can be asked for names and places.
#include <cstdint>
#include <span>

#include "fuzz/require.h"
#include "vorn/minidump.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using namespace vorn::host;
  const auto parsed = ParseMinidump(std::as_bytes(std::span(data, size)));
  if (const auto* error = std::get_if<MinidumpError>(&parsed)) {
    Require(!error->reason.empty() && error->offset <= size);
    return 0;
  }
  const auto& dump = std::get<Minidump>(parsed);
  if (dump.exception) {
    (void)PlaceText(dump, dump.exception->address);
    (void)FaultText(*dump.exception);
  }
  for (const MinidumpModule& module : dump.modules) Require(module.size == 0 || ModuleAt(dump, module.base));
  return 0;
}
