// The import table that an injection gives to an image, seen with the eyes of a loader; its undoing; and
// images that lie.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "detours/code/pe_import_plan.h"
#include "tests/unit/pe_builder.h"

namespace detours::pe_test {
namespace {

pe::DataDirectory DirectoryOf(const Memory& memory, uint32_t index) {
  pe::Image image;
  EXPECT_EQ(pe::ReadImage(memory, &image), pe::Status::kOk);
  return image.directory[index];
}

std::string TextAt(const Memory& memory, uint32_t rva) {
  std::string text;
  for (char c; memory.Read(rva, &c) && c; ++rva) text += c;
  return text;
}

// "name#ordinal" of every import in the order in which a loader meets them. Fails where the loader would:
// name and address table must agree before the addresses are filled in, and the stamp must not claim bound
// addresses.
std::vector<std::string> LoaderView(const Memory& memory, bool is_64) {
  std::vector<std::string> seen;
  const uint32_t width = is_64 ? 8 : 4;
  for (uint32_t rva = DirectoryOf(memory, pe::kImportDirectory).rva;; rva += sizeof(pe::ImportDescriptor)) {
    pe::ImportDescriptor d;
    if (!memory.Read(rva, &d)) return {"unreadable"};
    if (!d.name || !d.first_thunk) return seen;
    EXPECT_EQ(d.time_date_stamp, 0u);
    for (uint32_t i = 0;; ++i) {
      uint64_t name_entry = 0, address_entry = 0;
      if (!memory.Read(d.original_first_thunk + i * width, &name_entry, width)) return {"unreadable"};
      if (!memory.Read(d.first_thunk + i * width, &address_entry, width)) return {"unreadable"};
      EXPECT_EQ(name_entry, address_entry);
      if (!name_entry) break;
      EXPECT_EQ(name_entry >> (width * 8 - 1), 1u);
      seen.push_back(TextAt(memory, d.name) + "#" + std::to_string(name_entry & 0xffff));
    }
  }
}

class PeImages : public testing::TestWithParam<bool> {
 protected:
  BuildOptions Options() const { return {.is_64 = GetParam()}; }
};
INSTANTIATE_TEST_SUITE_P(BothWidths, PeImages, testing::Bool(),
                         [](const auto& info) { return info.param ? "x64" : "x86"; });

TEST_P(PeImages, OurDllsComeFirstAndTheImageIsRestored) {
  const Dlls two = {"C:\\a\\one.dll", "two.dll"};
  const bool wide = GetParam();
  const BuildOptions cases[] = {
      {.is_64 = wide},
      {.is_64 = wide, .import_size_is_zero = true},
      {.is_64 = wide, .bound = true},
      {.is_64 = wide, .dlls = {}},
      {.is_64 = wide, .with_iat_directory = false},
      {.is_64 = wide, .clr_flags = 9},  // managed code only
      {.is_64 = wide, .dlls = std::vector<std::string>(50, "m.dll")},
  };
  for (const BuildOptions& options : cases) {
    SCOPED_TRACE(&options - cases);
    Memory memory(BuildImage(options));
    const std::vector<uint8_t> original = memory.image();
    pe::ImportPlan plan;
    ASSERT_EQ(Inject(memory, two, kBlock, &plan), pe::Status::kOk);
    EXPECT_EQ(plan.repaired_size, options.import_size_is_zero);
    std::vector<std::string> expected = {"C:\\a\\one.dll#1", "two.dll#1"};
    for (const std::string& own : options.dlls) expected.push_back(own + "#7");
    EXPECT_EQ(LoaderView(memory, wide), expected);
    EXPECT_EQ(DirectoryOf(memory, pe::kImportDirectory).size, (expected.size() + 1) * 20);
    EXPECT_EQ(DirectoryOf(memory, pe::kBoundImportDirectory), pe::DataDirectory{});
    pe::ClrHeader managed{};
    ASSERT_TRUE(memory.Read(kClr, &managed));
    EXPECT_EQ(managed.flags, options.clr_flags & 8) << "the flag that hides its imports is gone";
    ASSERT_TRUE(Restore(memory));
    EXPECT_EQ(memory.image(), original);
    EXPECT_FALSE(Restore(memory)) << "restored, there is nothing left to restore";
  }
}

TEST_P(PeImages, TwoUpdatesAreUndoneByOneRestoration) {
  Memory memory(
      BuildImage({.is_64 = GetParam(), .bound = true, .with_iat_directory = false, .clr_flags = 1}));
  const std::vector<uint8_t> original = memory.image();
  ASSERT_EQ(Inject(memory, {"one.dll"}), pe::Status::kOk);
  ASSERT_EQ(Inject(memory, {"two.dll"}, 0x20000), pe::Status::kOk);
  EXPECT_EQ(LoaderView(memory, GetParam()),
            (std::vector<std::string>{"two.dll#1", "one.dll#1", "KERNEL32.dll#7", "msvcrt.dll#7"}));
  ASSERT_TRUE(Restore(memory));
  EXPECT_EQ(memory.image(), original);
}

TEST_P(PeImages, HeadersThatLieEndWithTheirReason) {
  const uint32_t optional = kNt + 24;
  const uint32_t directories =
      optional + (GetParam() ? pe::kDirectoryCountField64 : pe::kDirectoryCountField32) + 4;
  const uint32_t import = directories + 8 * pe::kImportDirectory;
  const uint32_t clr = directories + 8 * pe::kClrDirectory;
  const struct {
    const char* what;
    uint32_t rva, bytes, value;
    pe::Status status;
  } lies[] = {
      {"no MZ", 0, 2, 0x4D5A, pe::Status::kNotAnImage},
      {"NT headers far away", pe::kNtOffsetField, 4, 0x0fff'fff0, pe::Status::kUnreadable},
      {"NT headers behind the base", pe::kNtOffsetField, 4, 0xffff'fff0, pe::Status::kBadHeaders},
      {"NT headers cut off by the end", pe::kNtOffsetField, 4, kImageSize - 6, pe::Status::kNotAnImage},
      {"no PE", kNt, 4, 0x454E, pe::Status::kNotAnImage},
      {"another processor", kNt + 4, 2, 0xAA64, pe::Status::kUnsupportedMachine},
      {"the other width", optional, 2, GetParam() ? 0x10Bu : 0x20Bu, pe::Status::kUnsupportedMachine},
      {"optional header too small", kNt + 4 + 16, 2, 60, pe::Status::kBadHeaders},
      {"image smaller than its headers", optional + pe::kSizeOfImageField, 4, 0x100, pe::Status::kBadHeaders},
      {"too few directories", directories - 4, 4, pe::kIatDirectory, pe::Status::kNoDirectorySlot},
      {"import table beyond the image", import, 4, kImageSize + 4, pe::Status::kBadImportTable},
      {"import table at the last byte", import, 4, kImageSize - 1, pe::Status::kBadImportTable},
      {"import table at the end of the reach", import, 4, 0xffff'fffe, pe::Status::kBadImportTable},
      {"image larger than its memory", optional + pe::kSizeOfImageField, 4, 0x7000'0000, pe::Status::kOk},
      {"image that fills its whole reach", optional + pe::kSizeOfImageField, 4, 0xffff'fff0,
       pe::Status::kOutOfReach},
      {"more directories than exist", directories - 4, 4, 0xffff'ffff, pe::Status::kOk},
      {"import directory size too large", import + 4, 4, 0xffff'ffff, pe::Status::kOk},
      {"import directory size too small", import + 4, 4, 1, pe::Status::kOk},
      {"CLR header over the headers", clr, 4, pe::kNtOffsetField - 16, pe::Status::kBadClrHeader},
      {"CLR header beyond the image", clr, 4, kImageSize - 8, pe::Status::kBadClrHeader},
  };
  for (const auto& lie : lies) {
    SCOPED_TRACE(lie.what);
    std::vector<uint8_t> bytes = BuildImage(Options());
    memcpy(bytes.data() + lie.rva, &lie.value, lie.bytes);
    Memory memory(bytes);
    EXPECT_EQ(Inject(memory, {"a.dll"}), lie.status);
    EXPECT_EQ(Restore(memory), lie.status == pe::Status::kOk);
    EXPECT_EQ(memory.image(), bytes);
  }
}

TEST_P(PeImages, BlockOfTheFileItselfIsIgnored) {
  Memory injected(BuildImage(Options()));
  ASSERT_EQ(Inject(injected, {"a.dll"}), pe::Status::kOk);
  pe::BlockHeader header;
  ASSERT_TRUE(injected.Read(kBlock, &header));
  memset(&header.original, 0xEE, sizeof(header.original));

  std::vector<uint8_t> bytes = BuildImage(Options());
  memcpy(bytes.data() + kSection - pe::kTableOffset, &header, sizeof(header));
  Memory memory(bytes);
  EXPECT_FALSE(Restore(memory));
  ASSERT_EQ(Inject(memory, {"a.dll"}), pe::Status::kOk);
  ASSERT_TRUE(Restore(memory));
  EXPECT_EQ(memory.image(), bytes);
}

TEST_P(PeImages, TruncatedMemoryAtEveryLengthEndsWithAStatus) {
  const std::vector<uint8_t> whole = BuildImage(Options());
  const uint32_t needed = kSection + 3 * sizeof(pe::ImportDescriptor);
  for (uint32_t length = 0; length < kSection + 128; ++length) {
    Memory memory({whole.begin(), whole.begin() + length});
    EXPECT_EQ(Inject(memory, {"a.dll"}) == pe::Status::kOk, length >= needed) << length;
  }
}

}  // namespace
}  // namespace detours::pe_test
