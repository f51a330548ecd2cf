// What the network rules say about an address, about a name, and by default. Of each kind, the first rule in
// the table that matches address or name, and port, counts. destination_decision.h puts them together.
//
// Nothing is allocated or cached: the section's current content decides. Any thread.
#pragma once

#include <array>
#include <cstdint>
#include <string_view>

#include "Policy/section_view.h"

namespace vorn::policy {

// A destination address, free of any socket structure.
struct IpAddress {
  std::uint32_t family = 0;  // kFamilyIPv4, kFamilyIPv6; with any other value no address rule matches
  std::array<std::uint8_t, 16> bytes{};  // network order; IPv4 uses the first four
  std::uint16_t port = 0;                // host order
};

// Whether 16 address bytes are an IPv4-mapped IPv6 address (::ffff:a.b.c.d), whose last 4 bytes are the IPv4
// address.
[[nodiscard]] bool IsMappedIPv4(const std::uint8_t* host) noexcept;

// An IPv4 address that an IPv6 address carries (::ffff:a.b.c.d) as IPv4, anything else unchanged.
[[nodiscard]] IpAddress UnwrapMappedIPv4(const IpAddress& address) noexcept;

struct NetRuleMatch {
  bool decided = false;
  std::uint32_t verdict = kVerdictDeny;
  std::uint32_t rule_index = 0;  // meaningful when decided
};

struct AddressRuleMatch : NetRuleMatch {
  // The deciding rule's address and prefix length as stored; family 0 when no rule matched.
  IpAddress rule_address = {};
  std::uint32_t prefix_length = 0;
};

struct DomainRuleMatch : NetRuleMatch {
  // The last pattern that matched by name, also when its ports did not; null data() when none did. It points
  // into the section and may lie at an odd address.
  std::u16string_view pattern = {};
};

[[nodiscard]] AddressRuleMatch MatchAddressRules(const SectionView& section,
                                                 const IpAddress& address) noexcept;

// `port` in host order, 0 when there is no usable address.
[[nodiscard]] DomainRuleMatch MatchDomainRules(const SectionView& section, std::u16string_view domain,
                                               std::uint16_t port) noexcept;

[[nodiscard]] NetRuleMatch MatchDefaultRule(const SectionView& section) noexcept;

// Whether a rule's pattern names a domain. A pattern names the domain it spells; what follows its first "*"
// is a suffix of "." + domain, so *.example.com names example.com and all below it. Units behind a NUL do not
// count. A pattern without its terminator names every domain that begins with it.
[[nodiscard]] bool DomainMatches(std::u16string_view pattern, std::u16string_view domain) noexcept;

}  // namespace vorn::policy
