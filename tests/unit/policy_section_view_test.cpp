#include <gtest/gtest.h>

#include "Policy/file_rules.h"
#include "Policy/section_view.h"
#include "section_builder.h"

namespace vorn::policy {
namespace {

using test::SectionBuilder;

SectionView View(const std::vector<std::byte>& memory) { return SectionView{memory}; }

TEST(PathHash, FoldsOnlyTheLettersAToZ) {
  EXPECT_EQ(HashPathNoCase(u""), 0u);
  EXPECT_EQ(HashPathNoCase(u"a"), 5381u * 33 + 'a');
  EXPECT_EQ(HashPathNoCase(u"\\Device\\HarddiskVolume3"), HashPathNoCase(u"\\dEVICE\\hARDDISKvOLUME3"));
  EXPECT_NE(HashPathNoCase(u"\u00C4"), HashPathNoCase(u"\u00E4"));
  EXPECT_NE(HashPathNoCase(u"["), HashPathNoCase(u"{"));
  EXPECT_NE(HashPathNoCase(u"@"), HashPathNoCase(u"`"));
}

TEST(SectionView, IsValidOnlyWithAWholeHeader) {
  const auto memory = SectionBuilder().Build();
  EXPECT_TRUE(View(memory).Valid());
  EXPECT_EQ(SectionView().Check(), SectionStatus::kTooSmall);
  EXPECT_EQ(SectionView(std::span(memory).first(99)).Check(), SectionStatus::kTooSmall);
}

TEST(SectionView, ReadsEveryHeaderStringAtAnyAlignment) {
  struct Case {
    SharedString SharedDataHeader::*field;
    SectionText (SectionView::*get)() const noexcept;
  };
  const Case cases[] = {
      {&SharedDataHeader::log_directory, &SectionView::LogDirectory},
      {&SharedDataHeader::dump_directory, &SectionView::DumpDirectory},
      {&SharedDataHeader::server_port_name, &SectionView::ServerPortName},
      {&SharedDataHeader::create_process_event_prefix, &SectionView::CreateProcessEventPrefix},
      {&SharedDataHeader::biz_dll_path_x64, &SectionView::BizDllPathX64},
      {&SharedDataHeader::biz_dll_path_x86, &SectionView::BizDllPathX86},
      {&SharedDataHeader::ipc_path_64, &SectionView::IPC64FullPath},
      {&SharedDataHeader::ipc_path_32, &SectionView::IPC32FullPath},
  };
  for (const bool misaligned : {false, true}) {
    SectionBuilder builder;
    if (misaligned) builder.Misalign();
    std::u16string text = u"C:\\folder";
    for (const Case& c : cases) builder.String(c.field, text += u'x');
    const auto memory = builder.Build();
    text = u"C:\\folder";
    for (const Case& c : cases) {
      const SectionText read = (View(memory).*c.get)();
      EXPECT_TRUE(EqualsNoCase(read.text, text += u'x'));
      EXPECT_EQ(read.byte_length, text.size() * 2);
    }
  }
}

TEST(SectionView, StringsThatLeaveTheMappingAreAbsent) {
  SectionBuilder builder;
  builder.String(&SharedDataHeader::log_directory, u"12345678");
  const auto size = static_cast<std::uint32_t>(builder.Build().size());
  const struct {
    std::uint32_t length, offset;
    bool present;
  } cases[] = {
      {0, 100, false},         {16, 100, true},      {16, size - 16, true},  {16, size - 15, false},
      {2, size, false},        {2, size + 1, false}, {0xFFFFFFFF, 1, false}, {0xFFFFFFFF, 0xFFFFFFFF, false},
      {16, 0xFFFFFFF8, false}, {size, 0, true},      {size + 1, 0, false},   {1, 100, true},
  };
  for (const auto& c : cases) {
    builder.header().log_directory = {c.length, c.offset};
    const auto memory = builder.Build();
    const SectionText text = View(memory).LogDirectory();
    EXPECT_EQ(text.Present(), c.present) << c.length << " at " << c.offset;
    EXPECT_EQ(text.byte_length, c.length);
    EXPECT_EQ(text.text.size(), c.present ? c.length / 2 : 0);
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
  SectionOptions good{kSectionOptionsId, sizeof(SectionOptions), kBit};
  SectionOptions longer = good, others = good, shorter = good, stranger = good;
  longer.size = 4096;  // of a newer host
  others.enabled = ~kBit;
  shorter.size = sizeof(SectionOptions) - 1;
  stranger.id[15] ^= 1;
  const struct {
    const char* what;
    SectionOptions block;
    bool on;
  } kCases[] = {{"whole", good, true},
                {"longer than known", longer, true},
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

}  // namespace
}  // namespace vorn::policy
