// Any bytes as a crash dump, or written over a good one (offset, value): what is read from it can be asked
// for names and places.
#include <cstdint>
#include <cstring>
#include <span>
#include <vector>

#include "fuzz/require.h"
#include "tests/unit/minidump_builder.h"
#include "vorn/minidump.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using namespace vorn::host;
  std::vector<std::byte> bytes(reinterpret_cast<const std::byte*>(data),
                               reinterpret_cast<const std::byte*>(data) + size);
  if (size % 4 != 0) {
    static const std::vector<std::byte> good = vorn::test::BuildMinidump({});
    bytes = good;
    for (std::size_t at = 0; at + 6 <= size; at += 6) {
      std::uint16_t where;
      std::memcpy(&where, data + at, sizeof where);
      std::memcpy(bytes.data() + where % (good.size() - 3), data + at + 2, 4);
    }
  }
  const auto parsed = ParseMinidump(bytes);
  if (const auto* error = std::get_if<MinidumpError>(&parsed)) {
    Require(!error->reason.empty() && error->offset <= bytes.size());
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
