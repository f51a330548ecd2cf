#include <gtest/gtest.h>

#include <random>

#include "Policy/file_rules.h"
#include "reference_rules.h"
#include "section_builder.h"

namespace vorn::policy {
namespace {

using test::SectionBuilder;

FileRuleMatch Check(const SectionBuilder& builder, std::u16string_view path) {
  const auto memory = builder.Build();
  return CheckFileACL(SectionView{memory}, path);
}

FileACL Access(const SectionBuilder& builder, std::u16string_view path) {
  return Check(builder, path).access;
}

TEST(FileRules, TheMostSpecificRuleWins) {
  SectionBuilder builder;
  builder.FileRule(1, u"\\device\\harddiskvolume3\\users")
      .FileRule(3, u"\\device\\harddiskvolume3")
      .FileRule(3, u"\\device\\harddiskvolume3\\users\\a")
      .FileRule(2, u"\\device\\harddiskvolume3\\windows");
  const struct {
    std::u16string_view path;
    FileACL access;
  } cases[] = {
      {u"\\Device\\HarddiskVolume3\\Users\\A\\f.txt", FileACL::kReadWrite},
      {u"\\device\\harddiskvolume3\\users\\a", FileACL::kReadWrite},
      {u"\\device\\harddiskvolume3\\users\\a\\", FileACL::kReadWrite},
      {u"\\device\\harddiskvolume3\\users\\ab", FileACL::kDeny},
      {u"\\device\\harddiskvolume3\\users", FileACL::kDeny},
      {u"\\device\\harddiskvolume3\\windows\\x.dll", FileACL::kRead},
      {u"\\device\\harddiskvolume3\\windowsx\\y", FileACL::kReadWrite},
      {u"\\device\\harddiskvolume3", FileACL::kReadWrite},
      {u"\\device\\harddiskvolume33", FileACL::kRead},
      {u"", FileACL::kRead},
      {u"\\", FileACL::kRead},
  };
  for (const auto& c : cases)
    EXPECT_EQ(Access(builder, c.path), c.access) << std::string(c.path.begin(), c.path.end());
  EXPECT_EQ(CheckFileACL(SectionView(), u"\\device\\harddiskvolume3\\x").access, FileACL::kRead);
}

TEST(FileRules, ARuleWithATrailingBackslashNeverMatches) {
  SectionBuilder builder;
  builder.FileRule(3, u"\\device\\v\\");
  EXPECT_FALSE(Check(builder, u"\\device\\v\\x").found);
  EXPECT_FALSE(Check(builder, u"\\device\\v\\").found);
}

TEST(FileRules, EqualHashIsNotEnough) {
  ASSERT_EQ(HashPathNoCase(u"\\device\\a_"), HashPathNoCase(u"\\device\\b>"));
  SectionBuilder builder;
  builder.FileRule(1, u"\\device\\b>").FileRule(3, u"\\device\\a_");
  EXPECT_EQ(Access(builder, u"\\device\\a_\\x"), FileACL::kReadWrite);
}

TEST(FileRules, CheckConfigPermissionLooksAtOnePrefixOnly) {
  SectionBuilder builder;
  builder.FileRule(1, u"\\device\\v");
  const auto memory = builder.Build();
  const SectionView section{memory};
  EXPECT_EQ(CheckConfigPermission(section, u"\\device\\v\\x", 9).access, FileACL::kDeny);
  EXPECT_FALSE(CheckConfigPermission(section, u"\\device\\v\\x", 11).found);
  EXPECT_FALSE(CheckConfigPermission(section, u"\\device\\v\\x", 0).found);
  EXPECT_FALSE(CheckConfigPermission(section, u"\\device\\v", 10).found);
}

TEST(FileRules, DeepPathsFindTheirShallowRules) {
  for (const std::size_t depth : {31u, 32u, 33u, 63u, 64u, 65u, 70u, 100u, 500u, 16000u}) {
    SectionBuilder builder;
    builder.FileRule(1, u"\\device").FileRule(3, u"\\device\\v");
    std::u16string path = u"\\device\\v";
    for (std::size_t i = 2; i < depth; ++i) path += u"\\d";
    EXPECT_EQ(Check(builder, path).rule_index, 1u) << depth;
    builder.FileRule(2, std::u16string_view(path).substr(0, 9 + 2 * ((depth - 2) / 2)));
    EXPECT_EQ(Check(builder, path).rule_index, 2u) << depth;
  }
}

// Random tables and paths from few components, so that prefixes, duplicates and near misses abound; hashes,
// lengths and offsets are falsified now and then.
class RandomRules {
 public:
  explicit RandomRules(std::uint32_t seed) : random_(seed) {}

  std::vector<std::byte> Section() {
    SectionBuilder builder;
    if (Chance(2)) builder.Misalign();
    for (std::size_t rules = Below(Chance(8) ? 200 : 40); rules > 0; --rules) {
      if (Chance(16)) {
        builder.FileRule(Below(6), Path(10), HashPathNoCase(Path(6)));
      } else {
        builder.FileRule(Below(6), Path(10));
      }
    }
    auto& rules = builder.file_rules();
    for (FileRuleRecord& rule : rules) {
      if (Chance(40)) rule.path.length = Below(40);
      if (Chance(40)) rule.path.offset = Chance(2) ? Below(4000) : 0xFFFFFFFF - Below(40);
      if (Chance(40)) rule.path_hash = 0;
    }
    auto section = builder.Build();
    auto* header = reinterpret_cast<SharedDataHeader*>(section.data());
    if (Chance(40)) header->file_rule_count = header->file_rule_count + Below(5);
    return section;
  }

  std::u16string Path(std::size_t max_depth) {
    static constexpr std::u16string_view kComponents[] = {u"a",     u"A",      u"b", u"device",
                                                          u"Users", u"\u00C4", u"",  u"harddiskvolume3"};
    std::u16string path = Chance(30) ? u"x" : u"";
    for (std::size_t depth = Below(max_depth) + 1; depth > 0; --depth) {
      path += u'\\';
      path += kComponents[Below(std::size(kComponents))];
    }
    return Chance(8) ? path + u'\\' : path;
  }

  bool Chance(std::uint32_t one_in) { return random_() % one_in == 0; }
  std::uint32_t Below(std::size_t limit) { return static_cast<std::uint32_t>(random_() % limit); }

 private:
  std::mt19937 random_;
};

TEST(FileRules, GiveTheAnswerOfTheScanPrefixByPrefix) {
  RandomRules rules(1);
  int found = 0;
  for (int i = 0; i < 10'000; ++i) {
    const auto memory = rules.Section();
    const SectionView section{memory};
    for (int k = 0; k < 50; ++k) {
      const std::u16string path = rules.Path(rules.Chance(10) ? 90 : 12);
      const FileRuleMatch match = CheckFileACL(section, path);
      const FileRuleMatch literal = test::ReferenceCheckFileACL(section, path);
      ASSERT_EQ(match.found, literal.found) << i << "/" << k;
      ASSERT_EQ(match.access, literal.access);
      ASSERT_EQ(match.invalid_access, literal.invalid_access);
      ASSERT_EQ(match.rule_index, literal.rule_index);
      found += match.found ? 1 : 0;
    }
  }
  EXPECT_GT(found, 100'000) << "the random cases hardly match anything";
  EXPECT_LT(found, 450'000) << "the random cases hardly miss anything";
}

}  // namespace
}  // namespace vorn::policy
