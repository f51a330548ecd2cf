#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "Policy/environment_block.h"

namespace vorn::policy {
namespace {

using namespace std::string_literals;

constexpr std::u16string_view kName = u"VORN_SHARED_DATA_NAME";

TEST(EnvironmentBlock, FindsAnEntryInAnyLetterCase) {
  const std::u16string block = u"A=1\0Vorn_Shared_Data_NAME=x\0Z=2\0\0behind"s;
  const EnvironmentScan scan = ScanEnvironment(block, kName);
  EXPECT_EQ(scan.status, EnvironmentStatus::kFound);
  EXPECT_EQ(scan.entry, u"Vorn_Shared_Data_NAME=x");
  EXPECT_EQ(scan.used_bytes, 2u * 33);
  for (const auto& other : {u"VORN_SHARED_DATA_NAME\0\0"s, u"VORN_SHARED_DATA_NAMES=x\0\0"s,
                            u"X=VORN_SHARED_DATA_NAME=\0\0"s, u"\0VORN_SHARED_DATA_NAME=x\0\0"s}) {
    EXPECT_EQ(ScanEnvironment(other, kName).status, EnvironmentStatus::kMissing);
  }
}

TEST(EnvironmentBlock, UnterminatedBlockIsRefused) {
  const std::u16string block = u"A=1\0B=2\0\0"s;
  EXPECT_EQ(ScanEnvironment(block, kName).status, EnvironmentStatus::kMissing);
  for (std::size_t size = 0; size < block.size(); ++size) {
    const std::vector<char16_t> cut(block.begin(), block.begin() + static_cast<std::ptrdiff_t>(size));
    const EnvironmentScan scan = ScanEnvironment(cut, kName);
    EXPECT_EQ(scan.status, EnvironmentStatus::kUnterminated) << size;
    std::vector<char16_t> out(100);
    EXPECT_FALSE(ExtendEnvironment(cut, scan, kName, u"x", out));
  }
}

TEST(EnvironmentBlock, ExtendedBlockKeepsItsEntriesAndIsRoundedUpToEightBytes) {
  for (const auto& old : {u"\0"s, u"A=1\0\0"s, u"A=1\0=C:=C:\\x\0\0junk"s}) {
    for (std::u16string value; value.size() < 9; value += u'v') {
      const EnvironmentScan scan = ScanEnvironment(old, kName);
      ASSERT_EQ(scan.status, EnvironmentStatus::kMissing);
      const std::size_t size = ExtendedEnvironmentSize(scan, kName, value);
      const std::size_t needed = scan.used_bytes + 2 * (kName.size() + 1 + value.size() + 1);
      EXPECT_EQ(size % 8, 0u);
      EXPECT_TRUE(size >= needed && size < needed + 8);

      std::vector<char16_t> out(size / 2, u'?');
      ASSERT_TRUE(ExtendEnvironment(old, scan, kName, value, out));
      std::u16string expected = old.substr(0, scan.used_bytes / 2 - 1);
      expected.append(kName).append(u"=").append(value);
      expected.resize(size / 2);
      EXPECT_EQ(std::u16string(out.begin(), out.end()), expected);
      EXPECT_EQ(ScanEnvironment(out, kName).status, EnvironmentStatus::kFound);

      std::vector<char16_t> small(size / 2 - 1, u'?');
      EXPECT_FALSE(ExtendEnvironment(old, scan, kName, value, small));
      EXPECT_EQ(small, std::vector<char16_t>(size / 2 - 1, u'?'));
    }
  }
}

}  // namespace
}  // namespace vorn::policy
