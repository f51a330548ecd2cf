// Network rules for tests.
#pragma once

#include <utility>

#include "vorn/section.h"

namespace vorn::test {

// The verdict of exactly this address.
inline host::NetRule AddressRule(std::uint32_t verdict, std::vector<std::uint8_t> address,
                                 std::vector<std::uint16_t> ports = {}) {
  const auto prefix = static_cast<std::uint32_t>(address.size() * 8);
  return {verdict, policy::NetRuleKind::kAddress, std::move(address), prefix, std::move(ports)};
}
inline host::NetRule DomainRule(std::uint32_t verdict, std::wstring domain,
                                std::vector<std::uint16_t> ports = {}) {
  return {verdict, policy::NetRuleKind::kDomain, {}, 0, std::move(ports), std::move(domain)};
}
inline host::NetRule DefaultRule(std::uint32_t verdict) { return {.verdict = verdict}; }

}  // namespace vorn::test
