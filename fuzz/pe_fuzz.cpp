// Input: how to build an image, then changes to it (offset, value). Whatever results ends with a status, or
// with an update whose block names exactly the bytes that it replaces.
#include <cstdlib>
#include <vector>

#include "detours/code/pe_import_plan.h"
#include "tests/unit/pe_builder.h"

using namespace detours;

namespace {

void Require(bool condition) {
  if (!condition) abort();
}

}  // namespace

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
  for (size_t at = 1; at + 6 <= size; at += 6) {
    uint16_t where;
    memcpy(&where, data + at, sizeof(where));
    memcpy(bytes.data() + where % (bytes.size() - 3), data + at + 2, 4);
  }
  const std::vector<uint8_t> original = bytes;
  pe_test::Memory memory(std::move(bytes));

  const char* const dlls[] = {"C:\\one.dll", "two.dll"};
  pe::Image image;
  pe::ImportPlan plan;
  pe::HeaderFields after;
  if (pe::ReadImage(memory, &image) != pe::Status::kOk) return 0;
  if (pe::PlanImports(memory, image, dlls, &plan) != pe::Status::kOk) return 0;
  const uint32_t block_rva = image.size_of_image > 0x100000 ? image.size_of_image : 0x100000;
  std::vector<uint8_t> block(plan.block_size);
  if (pe::BuildImports(memory, image, plan, dlls, block_rva, block, &after) != pe::Status::kOk) return 0;
  memory.Add(block_rva, std::move(block));
  Require(memory.Write(image, after));
  pe::BlockHeader header;
  Require(pe::ReadImage(memory, &image) == pe::Status::kOk && pe::FindBlock(memory, image, &header));
  Require(memory.Write(image, header.original));
  Require(memory.image() == original);
  return 0;
}
