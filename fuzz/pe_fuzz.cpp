// Input: how to build an image, then changes to it (offset, value). Whatever results ends with a status, or
// with an update whose block names exactly the bytes that it replaces.
#include <vector>

#include "detours/code/pe_import_plan.h"
#include "fuzz/require.h"
#include "tests/unit/pe_builder.h"

using namespace detours;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size < 1) return 0;
  pe_test::BuildOptions options;
  options.is_64 = data[0] & 1;
  options.bound = data[0] & 2;
  options.with_iat_directory = data[0] & 4;
  options.clr_flags = data[0] >> 3 & 1;
  options.import_size_is_zero = data[0] & 16;
  if (data[0] & 32) options.dlls.clear();
  std::vector<uint8_t> bytes = pe_test::BuildImage(options);
  constexpr size_t kTables[][2] = {{0, 0x240}, {pe_test::kSection, 0x80}, {pe_test::kClr, 24}};
  for (size_t at = 1; at + 6 <= size; at += 6) {
    uint16_t where;
    memcpy(&where, data + at, sizeof(where));
    const auto& [begin, length] = kTables[where % 3];
    memcpy(bytes.data() + begin + where / 3 % length, data + at + 2, 4);
  }
  pe_test::Memory memory(bytes);
  const bool updated = pe_test::Inject(memory, {"C:\\one.dll", "two.dll"}) == pe::Status::kOk;
  Require(!updated || pe_test::Restore(memory));
  Require(memory.image() == bytes);
  return 0;
}
