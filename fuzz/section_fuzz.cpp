// Any bytes as a configuration section: every accessor stays inside it, and the rules read from it give the
// answers of the plain scan.
#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include "Policy/destination_decision.h"
#include "Policy/file_rules.h"
#include "Policy/net_rules.h"
#include "fuzz/require.h"
#include "tests/unit/reference_rules.h"

namespace {

using namespace vorn::policy;

// A copy, which reads the text to its last unit.
std::u16string Copy(SectionText text) {
  std::u16string copy;
  for (std::size_t i = 0; i < text.text.size(); ++i) copy += UnitAt(text.text.data() + i);
  return copy;
}

// Counts and offsets as drawn leave the section nearly always; reduced, they leave it about every second
// time.
void Tame(std::vector<std::byte>& memory) {
  const auto limit = static_cast<std::uint32_t>(memory.size()) * 2;
  const auto reduce = [limit](SharedU32& field, std::uint32_t below) {
    field = field % (below < limit ? below : limit);
  };
  auto* header = reinterpret_cast<SharedDataHeader*>(memory.data());
  if (memory.size() % 8 == 1 && memory.size() >= sizeof *header + sizeof(SectionOptions)) {
    auto* options = reinterpret_cast<SectionOptions*>(header + 1);
    options->id = kSectionOptionsId;
    options->size = sizeof *options;
  }
  reduce(header->log_directory.length, 64);
  reduce(header->log_directory.offset, limit);
  reduce(header->file_rule_count, 64);
  reduce(header->file_rule_offset, limit);
  reduce(header->net_rule_count, 64);
  reduce(header->net_rule_offset, limit);
  const SectionView section{memory};
  for (const FileRuleRecord& shared : section.FileRules()) {
    auto& rule = const_cast<FileRuleRecord&>(shared);
    reduce(rule.path.length, 64);
    reduce(rule.path.offset, limit);
  }
  for (const FileRuleRecord& shared : section.FileRules()) {
    auto& rule = const_cast<FileRuleRecord&>(shared);
    if (rule.access % 8 == 7) continue;
    // Paths of few different units, so that prefixes, duplicates and near misses abound.
    constexpr char16_t kUnits[] = u"\\\\aA\u00E4\u00C4";
    const std::u16string_view path = section.PathOf(rule).text;
    for (std::size_t i = 0; i < path.size(); ++i) {
      const char16_t tame = kUnits[UnitAt(path.data() + i) % 6];
      std::memcpy(static_cast<void*>(const_cast<char16_t*>(path.data() + i)), &tame, sizeof tame);
    }
  }
  for (const FileRuleRecord& shared : section.FileRules()) {
    auto& rule = const_cast<FileRuleRecord&>(shared);
    if (rule.access % 8 >= 6) continue;
    rule.access = rule.access % 8;
    rule.path_hash = HashPathNoCase(Copy(section.PathOf(rule)), section.LettersOfPaths());
  }
  for (const NetRuleRecord& shared : section.NetRules()) {
    auto& rule = const_cast<NetRuleRecord&>(shared);
    reduce(rule.kind, 4);
    reduce(rule.prefix_length, 160);
    rule.family = rule.family % 2 ? kFamilyIPv4 : kFamilyIPv6;
    for (SharedString* part : {&rule.address, &rule.ports, &rule.domain}) {
      reduce(part->length, 40);
      reduce(part->offset, limit);
    }
  }
}

void CheckFileRules(const SectionView& section) {
  std::u16string last;
  for (std::uint32_t i = 0; i < section.FileRules().size() && i < 64; ++i) {
    const std::u16string rule = Copy(section.FileRuleAt(i).path);
    std::u16string other_case = rule;
    for (char16_t& unit : other_case)
      unit = unit == u'\u00E4' ? u'\u00C4' : unit == u'\u00C4' ? u'\u00E4' : unit;
    std::u16string deep = rule;  // more prefixes than are looked for at once
    for (std::uint32_t n = 0; n < 2 * i; ++n) deep += u"\\aA";
    for (const std::u16string& path : {rule, other_case, rule + u"\\x", rule + u"x", rule + u'\\' + rule,
                                       rule + u"\\A\\\\b\\" + last, deep}) {
      const FileRuleMatch match = CheckFileACL(section, path);
      const FileRuleMatch literal = test::ReferenceCheckFileACL(section, path);
      Require(match.found == literal.found && match.access == literal.access &&
              match.invalid_access == literal.invalid_access && match.rule_index == literal.rule_index);
    }
    last = rule;
  }
}

void CheckNetRules(const SectionView& section) {
  for (std::uint32_t i = 0; i < section.NetRules().size() && i < 64; ++i) {
    const NetRuleRecord* rule = section.NetRuleAt(i);
    IpAddress address{.family = rule->family == kFamilyIPv6 ? kFamilyIPv6 : kFamilyIPv4,
                      .bytes = {},
                      .port = static_cast<std::uint16_t>(i)};
    const NetRuleAddress own = section.AddressOf(*rule);
    for (std::size_t k = 0; k < own.bytes.size() && k < 16; ++k)
      address.bytes[k] = static_cast<std::uint8_t>(own.bytes[k]);
    const NetRulePorts ports = section.PortsOf(*rule);
    for (std::uint32_t k = 0; k < ports.size(); ++k) address.port = ports[k];
    constexpr std::uint32_t kNone = 128;
    const std::uint32_t prefix = rule->prefix_length;
    // Also where one bit differs, just inside and just behind the prefix.
    for (const std::uint32_t bit : {kNone, prefix - 1, prefix}) {
      IpAddress near = address;
      if (bit < kNone) near.bytes[bit / 8] ^= static_cast<std::uint8_t>(0x80 >> bit % 8);
      const AddressRuleMatch match = MatchAddressRules(section, near);
      const NetRuleMatch literal = test::ReferenceMatchAddressRules(section, near);
      Require(match.decided == literal.decided && match.verdict == literal.verdict &&
              match.rule_index == literal.rule_index);
    }

    const std::u16string domain = u"a." + Copy(section.DomainOf(*rule));
    DestinationContext context;
    const DestinationDecision decision =
        DecideDestination(section, {.address = &address, .name = domain}, context);
    Require(decision.rule == kNoRule || decision.rule < section.NetRules().size());
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const auto* bytes = reinterpret_cast<const std::byte*>(data);
  std::vector<std::byte> memory(bytes, bytes + size);
  if (size >= sizeof(SharedDataHeader) && size % 4 != 0) Tame(memory);
  const SectionView section{memory};
  (void)section.Check();
  for (const SectionText text : {section.LogDirectory(), section.DumpDirectory(), section.ServerPortName(),
                                 section.CreateProcessEventPrefix(), section.BizDllPathX64(),
                                 section.BizDllPathX86(), section.IPC64FullPath(), section.IPC32FullPath()}) {
    (void)Copy(text);
  }
  CheckFileRules(section);
  CheckNetRules(section);
  return 0;
}
