// The rules read the plain way, as the reference for tests and benches: one table scan per prefix of a path,
// one byte-wise comparison per address.
#pragma once

#include <bit>
#include <cstdint>
#include <cstring>
#include <string>
#include <string_view>

#include "Policy/file_rules.h"
#include "Policy/net_rules.h"
#include "Policy/path_hash.h"
#include "Policy/text.h"

namespace vorn::policy::test {

inline FileRuleMatch ReferenceCheckConfigPermission(const SectionView& section, std::u16string_view path,
                                                    std::size_t length) {
  const Letters letters = section.LettersOfPaths();
  const std::uint32_t hash = HashPathNoCase(path.substr(0, length), letters);
  if (hash == 0) return {};
  const auto rules = section.FileRules();
  for (std::size_t i = 0; i < rules.size(); ++i) {
    if (rules[i].path_hash != hash) continue;
    const SectionText rule = section.PathOf(rules[i]);
    if (!rule.Present() || !StartsWithNoCase(path, rule.text, letters)) continue;
    const std::uint32_t access = rules[i].access;
    const bool invalid = access >= 4;
    return {invalid ? FileACL::kUnknown : static_cast<FileACL>(access), true, invalid,
            static_cast<std::uint32_t>(i)};
  }
  return {};
}

inline FileRuleMatch ReferenceCheckFileACL(const SectionView& section, std::u16string_view path) {
  if (path.empty()) return {};
  std::size_t length = path.size() - (path.back() == u'\\' ? 1 : 0);
  for (;;) {
    const FileRuleMatch match = ReferenceCheckConfigPermission(section, path, length);
    if (match.found) return match;
    do {
      if (length == 0) return {};
      --length;
    } while (path[length] != u'\\');
    if (length == 0) return {};
  }
}

inline std::uint32_t HostOrder(const void* bytes) {
  std::uint32_t value;
  std::memcpy(&value, bytes, sizeof value);
  return __builtin_bswap32(value);
}

inline bool ReferenceAddressMatches(const NetRuleAddress& rule, const IpAddress& address) {
  const std::uint32_t prefix = rule.prefix_length;
  if (prefix == 0) return true;
  if (address.family == kFamilyIPv4) {
    const std::uint32_t mask = prefix >= 32 ? 0xFFFFFFFF : 0xFFFFFFFFu << (32 - prefix);
    return (HostOrder(rule.bytes.data()) & mask) == (HostOrder(address.bytes.data()) & mask);
  }
  if (prefix >= 128) return std::memcmp(rule.bytes.data(), address.bytes.data(), 16) == 0;
  const std::uint32_t whole = prefix / 8;
  if (std::memcmp(rule.bytes.data(), address.bytes.data(), whole) != 0) return false;
  if (prefix % 8 == 0) return true;
  const std::uint8_t mask = static_cast<std::uint8_t>(0xFF << (8 - prefix % 8));
  return (static_cast<std::uint8_t>(rule.bytes[whole]) & mask) == (address.bytes[whole] & mask);
}

inline NetRuleMatch ReferenceMatchAddressRules(const SectionView& section, const IpAddress& address) {
  const std::uint32_t needed = address.family == kFamilyIPv4 ? 4 : 16;
  const auto rules = section.NetRules();
  for (std::uint32_t i = 0; i < rules.size(); ++i) {
    const NetRuleRecord& rule = rules[i];
    if (rule.kind != static_cast<std::uint32_t>(NetRuleKind::kAddress)) continue;
    const NetRuleAddress rule_address = section.AddressOf(rule);
    if (!rule_address.bytes.data() || rule_address.length < needed || rule_address.length > 128) continue;
    if (rule_address.family != address.family || !ReferenceAddressMatches(rule_address, address)) continue;
    const NetRulePorts ports = section.PortsOf(rule);
    bool admitted = ports.Readable() && ports.size() == 0;
    for (std::uint32_t p = 0; p < ports.size(); ++p) admitted = admitted || ports[p] == address.port;
    if (admitted) return {true, rule.verdict, i};
  }
  return {};
}

}  // namespace vorn::policy::test
