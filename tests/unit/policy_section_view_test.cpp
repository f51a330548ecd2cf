#include <gtest/gtest.h>

#include <tuple>

#include "Policy/file_decision.h"
#include "Policy/file_rules.h"
#include "Policy/section_view.h"
#include "section_builder.h"

namespace vorn::policy {
namespace {

using test::SectionBuilder;

TEST(PathHash, FoldsOnlyTheLettersAToZ) {
  EXPECT_EQ(HashPathNoCase(u""), 0u);
  EXPECT_EQ(HashPathNoCase(u"a"), 5381u * 33 + 'a');
  EXPECT_EQ(HashPathNoCase(u"\\Device\\HarddiskVolume3"), HashPathNoCase(u"\\dEVICE\\hARDDISKvOLUME3"));
  EXPECT_NE(HashPathNoCase(u"\u00C4"), HashPathNoCase(u"\u00E4"));
  EXPECT_EQ(HashPathNoCase(u"\u00C4", Letters::kAll), HashPathNoCase(u"\u00E4", Letters::kAll));
  EXPECT_NE(HashPathNoCase(u"["), HashPathNoCase(u"{"));
  EXPECT_NE(HashPathNoCase(u"@"), HashPathNoCase(u"`"));
}

TEST(SectionView, StringsEndWithTheMappingAndNoByteLater) {
  auto memory = SectionBuilder().FileRule(1, u"12345678").Build();
  const auto size = static_cast<std::uint32_t>(memory.size());
  auto* header = reinterpret_cast<SharedDataHeader*>(memory.data());
  for (const auto& [length, offset, present] : {std::tuple(16u, size - 16, true),
                                                {16u, size - 15, false},
                                                {size, 0u, true},
                                                {16u, 0xFFFFFFF8, false}}) {
    header->log_directory = {length, offset};
    EXPECT_EQ(SectionView{memory}.LogDirectory().Present(), present) << length << " at " << offset;
  }
}

TEST(SectionView, RulesOutsideTheTableOrTheMappingDoNotExist) {
  SectionBuilder builder;
  builder.FileRule(3, u"\\device\\a").FileRule(1, u"");
  builder.NetRule({.kind = NetRuleKind::kDomain, .ports = {80, 443}, .domain = u"example.com"});
  auto memory = builder.Build();
  const SectionView view{memory};
  EXPECT_TRUE(EqualsNoCase(view.FileRuleAt(0).path.text, u"\\device\\a"));
  EXPECT_TRUE(view.FileRuleAt(1).in_table);
  EXPECT_FALSE(view.FileRuleAt(1).path.Present());
  EXPECT_FALSE(view.FileRuleAt(2).in_table);
  ASSERT_NE(view.NetRuleAt(0), nullptr);
  EXPECT_EQ(view.NetRuleAt(1), nullptr);

  auto* header = reinterpret_cast<SharedDataHeader*>(memory.data());
  header->net_rule_count = 0xFFFFFFFF;
  EXPECT_EQ(view.NetRuleCount(), 1u) << "a loop over the rules must end";
  EXPECT_EQ(view.NetRuleAt(1), nullptr);
  header->net_rule_offset = static_cast<std::uint32_t>(memory.size() - sizeof(NetRuleRecord) + 1);
  EXPECT_EQ(view.NetRuleAt(0), nullptr);
  header->net_rule_offset = 0xFFFFFFFF;
  EXPECT_EQ(view.NetRuleCount(), 0u);
  EXPECT_TRUE(view.HasNetRules()) << "rules that cannot be read must not lift the confinement";
  header->net_rule_count = 0;
  EXPECT_FALSE(view.HasNetRules());
}

TEST(SectionView, OptionsCountOnlyInABlockThatIsWholeAndOfTheRightKind) {
  constexpr auto kWanted = SectionOption::kDecisionInAudit;
  constexpr auto kBit = static_cast<std::uint32_t>(kWanted);
  constexpr std::uint32_t kToTheBits = offsetof(SectionOptions, run);
  SectionOptions good{};
  good.id = kSectionOptionsId;
  good.size = sizeof(SectionOptions);
  good.enabled = kBit;
  SectionOptions longer = good, older = good, others = good, shorter = good, stranger = good;
  longer.size = 4096;  // of a newer host
  older.size = kToTheBits;
  others.enabled = ~kBit;
  shorter.size = kToTheBits - 1;
  stranger.id[15] ^= 1;
  const struct {
    const char* what;
    SectionOptions block;
    bool on;
  } kCases[] = {{"whole", good, true},
                {"longer than known", longer, true},
                {"of an older host", older, true},
                {"other options", others, false},
                {"too short for its field", shorter, false},
                {"another identifier", stranger, false}};
  for (const auto& [what, block, on] : kCases) {
    SectionBuilder builder;
    builder.BehindHeader(std::as_bytes(std::span(&block, 1))).FileRule(1, u"\\Device\\a");
    const auto memory = builder.Build();
    EXPECT_EQ(SectionView{memory}.Has(kWanted), on) << what;
    EXPECT_TRUE(CheckFileACL(SectionView{memory}, u"\\Device\\a").found) << what;
    const std::span<const std::byte> cut = std::span(memory).first(sizeof(SharedDataHeader) + 23);
    EXPECT_FALSE(SectionView{cut}.Has(kWanted)) << what << ", cut off by the end of the section";
  }
  EXPECT_FALSE(SectionView{SectionBuilder().FileRule(1, u"\\Device\\a").Build()}.Has(kWanted)) << "none";
}

TEST(FileRules, TheCaseOfOtherLettersCountsUnlessTheSectionFoldsAll) {
  const struct {
    const char16_t *rule, *path;
    bool same;  // with all letters folded; without, none is
  } kCases[] = {{u"\\d\\\u00C4B", u"\\D\\\u00E4b\\f.txt", true},
                {u"\\d\\stra\u00DFe", u"\\d\\STRASSE", false},
                {u"\\d\\\u0416\u03A3\\x", u"\\d\\\u0436\u03C3\\x", true},
                {u"\\d\\\u212A", u"\\d\\k", false},  // the sign of the unit Kelvin
                {u"\\d\\\u0130", u"\\d\\i", false},
                {u"\\d\\\u00E4", u"\\d\\\u00F6", false}};
  for (const auto& [rule, path, same] : kCases) {
    for (const std::uint32_t options :
         {0u, OptionBits(SectionOption::kFoldAllLetters, SectionOption::kRulesHoldPlaces)}) {
      const auto memory = SectionBuilder().Options(options).FileRule(1, rule).Build();
      const bool found = same && options;
      EXPECT_EQ(CheckFileACL(SectionView{memory}, path).found, found);
      const auto upper = SectionBuilder().Options(options).FileRule(1, path).Build();
      EXPECT_EQ(FindStricterRuleWithin(SectionView{upper}, rule, FileACL::kReadWrite).found, found);
    }
  }
}

TEST(FileDecision, OtherWaysToALocalPlaceAreNoMoreOpenThanThePlace) {
  struct Drives final : FileContext {
    std::u16string_view PathOnDrive(char16_t letter, std::u16string_view rest) noexcept override {
      if (letter != u'C' && letter != u'D') return {};
      path = (letter == u'C' ? u"\\Device\\HarddiskVolume3" : u"\\Device\\HarddiskVolume4") +
             std::u16string(rest);
      return path;
    }
    std::u16string path;
  };
  const auto section = [](std::uint32_t options) {
    SectionBuilder builder;
    builder.Options(options).FileRule(1, u"\\Device\\HarddiskVolume3\\secret");
    return builder.FileRule(3, u"\\Device\\HarddiskVolume4").FileRule(3, u"\\Device\\Mup\\me\\c$\\w").Build();
  };
  using enum FileACL;
  using enum DecidingFact;
  const struct {
    const char16_t* path;
    FileACL access;
    DecidingFact fact;
  } kCases[] = {{u"\\Device\\Mup\\localhost\\C$\\secret\\s.txt", kDeny, kSamePlace},
                {u"\\Device\\Mup\\127.0.0.1\\c$\\SECRET", kDeny, kSamePlace},
                {u"\\Device\\Mup\\;LanmanRedirector\\;X:0000\\me\\C$\\secret", kDeny, kSamePlace},
                {u"\\Device\\Mup\\me\\C$\\w\\f", kRead, kSamePlace},  // no rule opens C:\w
                {u"\\Device\\Mup\\me\\D$\\secret", kRead, kNoFileRule},
                {u"\\Device\\Mup\\me\\C$x\\secret", kRead, kNoFileRule},
                {u"\\Device\\Mup\\me\\E$\\secret", kRead, kNoFileRule},
                {u"\\Device\\Mup\\me", kRead, kNoFileRule},
                {u"\\Device\\HarddiskVolumeShadowCopy7\\secret\\s.txt", kDeny, kSamePlace},
                {u"\\Device\\HarddiskVolumeShadowCopy7\\open", kRead, kNoFileRule},
                {u"\\Device\\HarddiskVolumeShadowCopy7", kDeny, kRuleBelow},
                {u"\\Device\\HarddiskVolume3", kDeny, kRuleBelow},
                {u"\\Device\\HarddiskVolume3\\", kRead, kNoFileRule},  // the root folder
                {u"\\Device\\HarddiskVolume4", kReadWrite, kRule},
                {u"\\Device\\Harddisk0\\DR0", kDeny, kRuleBelow}};
  const auto with = section(OptionBits(SectionOption::kOneAccessPerPlace, SectionOption::kPlacesFromRules));
  const auto without = section(OptionBits(SectionOption::kPlacesFromRules));
  for (const auto& [path, access, fact] : kCases) {
    Drives drives;
    const FileVerdict verdict = DecideFile(SectionView{with}, {.path = path}, drives).file;
    EXPECT_EQ(verdict.access, access) << testing::PrintToString(std::u16string(path));
    EXPECT_EQ(verdict.fact, fact) << testing::PrintToString(std::u16string(path));
    EXPECT_NE(DecideFile(SectionView{without}, {.path = path}, drives).file.access, kDeny) << "plain";
  }
}

}  // namespace
}  // namespace vorn::policy
