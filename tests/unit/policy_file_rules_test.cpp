#include <gtest/gtest.h>

#include <random>

#include "Policy/file_rules.h"
#include "reference_rules.h"
#include "section_builder.h"

namespace vorn::policy {
namespace {

using test::SectionBuilder;

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
