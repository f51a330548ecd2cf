#include "Policy/net_rules.h"

#include <algorithm>
#include <bit>
#include <cstring>

#include "Policy/text.h"

namespace vorn::policy {
namespace {

constexpr std::size_t kIPv4Bytes = 4;
constexpr std::size_t kIPv6Bytes = 16;

std::uint64_t LoadBigEndian64(const void* at) noexcept {
  std::uint64_t value;
  std::memcpy(&value, at, sizeof value);
  return __builtin_bswap64(value);
}

std::uint32_t LoadBigEndian32(const void* at) noexcept {
  std::uint32_t value;
  std::memcpy(&value, at, sizeof value);
  return __builtin_bswap32(value);
}

// A mask of the leading `bits` bits; all of them from the type's width on.
template <typename Unsigned>
Unsigned LeadingBits(std::uint32_t bits) noexcept {
  constexpr std::uint32_t kWidth = sizeof(Unsigned) * 8;
  if (bits == 0) return 0;
  return bits >= kWidth ? ~Unsigned{0} : static_cast<Unsigned>(~Unsigned{0} << (kWidth - bits));
}

struct IPv4Bits {
  static constexpr std::size_t kBytes = kIPv4Bytes;
  static constexpr std::uint32_t kFamily = kFamilyIPv4;

  std::uint32_t value;

  explicit IPv4Bits(const void* bytes) noexcept : value(LoadBigEndian32(bytes)) {}
  [[nodiscard]] bool Shares(std::uint32_t prefix, const void* other) const noexcept {
    return ((value ^ LoadBigEndian32(other)) & LeadingBits<std::uint32_t>(prefix)) == 0;
  }
};

struct IPv6Bits {
  static constexpr std::size_t kBytes = kIPv6Bytes;
  static constexpr std::uint32_t kFamily = kFamilyIPv6;

  std::uint64_t high;
  std::uint64_t low;

  explicit IPv6Bits(const std::uint8_t* bytes) noexcept
      : high(LoadBigEndian64(bytes)), low(LoadBigEndian64(bytes + 8)) {}
  [[nodiscard]] bool Shares(std::uint32_t prefix, const std::byte* other) const noexcept {
    const std::uint64_t high_mask = LeadingBits<std::uint64_t>(prefix);
    const std::uint64_t low_mask = LeadingBits<std::uint64_t>(prefix > 64 ? prefix - 64 : 0);
    return (((high ^ LoadBigEndian64(other)) & high_mask) |
            ((low ^ LoadBigEndian64(other + 8)) & low_mask)) == 0;
  }
};

template <typename Bits>
AddressRuleMatch MatchFamily(const SectionView& section, const IpAddress& address) noexcept {
  const Bits destination(address.bytes.data());
  AddressRuleMatch match;
  const auto rules = section.NetRules();
  for (std::size_t i = 0; i < rules.size(); ++i) {
    const NetRuleRecord& rule = rules[i];
    if (rule.kind != static_cast<std::uint32_t>(NetRuleKind::kAddress) || rule.family != Bits::kFamily)
      continue;
    const std::uint32_t length = rule.address.length;
    const std::uint32_t offset = rule.address.offset;
    if (length < Bits::kBytes || length > kMaxNetRuleAddress || offset == 0) continue;
    const std::byte* bytes = section.At(offset, length);
    if (!bytes) continue;
    const std::uint32_t prefix = rule.prefix_length;
    if (!destination.Shares(prefix, bytes) || !section.PortsOf(rule).Admit(address.port)) continue;
    match.decided = true;
    match.verdict = rule.verdict;
    match.rule_index = static_cast<std::uint32_t>(i);
    match.rule_address.family = Bits::kFamily;
    std::memcpy(match.rule_address.bytes.data(), bytes, Bits::kBytes);
    match.prefix_length = prefix;
    break;
  }
  return match;
}

// `pattern` up to a NUL.
std::u16string_view BeforeNul(std::u16string_view pattern) noexcept {
  std::size_t length = 0;
  while (length < pattern.size() && UnitAt(pattern.data() + length) != 0) ++length;
  return {pattern.data(), length};
}

// What follows the first "*" of `text`, empty when there is none.
std::u16string_view BehindStar(std::u16string_view text) noexcept {
  for (std::size_t i = 0; i < text.size(); ++i) {
    if (UnitAt(text.data() + i) == u'*') return {text.data() + i + 1, text.size() - i - 1};
  }
  return {};
}

// Whether `suffix` ends "." + `domain`.
bool EndsDottedDomain(std::u16string_view domain, std::u16string_view suffix) noexcept {
  if (suffix.size() <= domain.size()) return EndsWithNoCase(domain, suffix);
  return suffix.size() == domain.size() + 1 && UnitAt(suffix.data()) == u'.' &&
         EqualsNoCase({suffix.data() + 1, domain.size()}, domain);
}

}  // namespace

bool IsMappedIPv4(const std::uint8_t* host) noexcept {
  static constexpr std::uint8_t kMappedPrefix[12] = {0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0xFF, 0xFF};
  return std::equal(kMappedPrefix, kMappedPrefix + 12, host);
}

IpAddress UnwrapMappedIPv4(const IpAddress& address) noexcept {
  if (address.family != kFamilyIPv6 || !IsMappedIPv4(address.bytes.data())) return address;
  IpAddress unwrapped;
  unwrapped.family = kFamilyIPv4;
  std::copy(address.bytes.begin() + 12, address.bytes.end(), unwrapped.bytes.begin());
  unwrapped.port = address.port;
  return unwrapped;
}

AddressRuleMatch MatchAddressRules(const SectionView& section, const IpAddress& address) noexcept {
  switch (address.family) {
    case kFamilyIPv4:
      return MatchFamily<IPv4Bits>(section, address);
    case kFamilyIPv6:
      return MatchFamily<IPv6Bits>(section, address);
    default:
      return {};
  }
}

bool DomainMatches(std::u16string_view pattern, std::u16string_view domain) noexcept {
  const std::u16string_view text = BeforeNul(pattern);
  if (text.empty()) return false;
  const bool terminated = text.size() < pattern.size();
  if (terminated ? EqualsNoCase(text, domain) : StartsWithNoCase(domain, text)) return true;
  const std::u16string_view suffix = BehindStar(text);
  return !suffix.empty() && EndsDottedDomain(domain, suffix);
}

DomainRuleMatch MatchDomainRules(const SectionView& section, std::u16string_view domain,
                                 std::uint16_t port) noexcept {
  DomainRuleMatch match;
  const auto rules = section.NetRules();
  for (std::size_t i = 0; i < rules.size(); ++i) {
    const NetRuleRecord& rule = rules[i];
    if (rule.kind != static_cast<std::uint32_t>(NetRuleKind::kDomain)) continue;
    const SectionText pattern = section.DomainOf(rule);
    if (!pattern.Present() || !DomainMatches(pattern.text, domain)) continue;
    match.pattern = BeforeNul(pattern.text);
    if (!section.PortsOf(rule).Admit(port)) continue;
    match.decided = true;
    match.verdict = rule.verdict;
    match.rule_index = static_cast<std::uint32_t>(i);
    break;
  }
  return match;
}

NetRuleMatch MatchDefaultRule(const SectionView& section) noexcept {
  const auto rules = section.NetRules();
  for (std::size_t i = 0; i < rules.size(); ++i) {
    if (rules[i].kind == static_cast<std::uint32_t>(NetRuleKind::kDefault)) {
      return {true, rules[i].verdict, static_cast<std::uint32_t>(i)};
    }
  }
  return {};
}

}  // namespace vorn::policy
