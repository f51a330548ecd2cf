// Destinations as text: 10.0.0.0/8:80,443   [2001:db8::]/32   example.com:443   *.example.com
#include <algorithm>
#include <charconv>

#include "Policy/net_rules.h"
#include "vorn/policy_file.h"

#ifdef _WIN32
#include <winsock2.h>
#include <ws2tcpip.h>
#else
#include <arpa/inet.h>
#endif

namespace vorn::host {
namespace {

constexpr std::size_t kMaxPorts = 4096;

template <class T>
std::optional<T> ParseNumber(std::string_view text, T most) {
  std::uint32_t value = 0;
  auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
  if (text.empty() || error != std::errc() || end != text.data() + text.size() || value > most) return {};
  return static_cast<T>(value);
}

// "80,443,8000-8010"; the error text, or empty.
std::string ParsePorts(std::string_view text, std::vector<std::uint16_t>& ports) {
  while (true) {
    const std::size_t comma = text.find(',');
    const std::string_view part = text.substr(0, comma);
    const std::size_t dash = part.find('-');
    const auto first = ParseNumber<std::uint16_t>(part.substr(0, dash), 65535);
    const auto last =
        dash == std::string_view::npos ? first : ParseNumber<std::uint16_t>(part.substr(dash + 1), 65535);
    if (!first || !last || *first == 0 || *first > *last)
      return "bad port \"" + std::string(part) + "\": a number from 1 to 65535, or a range such as 8000-8010";
    if (ports.size() + (*last - *first) >= kMaxPorts) return "more than 4096 ports in one entry";
    for (std::uint32_t port = *first; port <= *last; ++port)
      ports.push_back(static_cast<std::uint16_t>(port));
    if (comma == std::string_view::npos) return {};
    text.remove_prefix(comma + 1);
  }
}

bool IsHostName(std::string_view name) {
  if (name.empty() || name.size() > 253) return false;
  std::size_t label = 0;
  bool has_letter = false;  // an all-digit name is a mistyped address
  for (char c : name) {
    const bool letter = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || c == '_' || (c & 0x80);
    has_letter |= letter;
    if (c == '.') {
      if (label == 0) return false;
      label = 0;
    } else if ((!letter && !(c >= '0' && c <= '9') && c != '-') || ++label > 63) {
      return false;
    }
  }
  return label != 0 && has_letter;
}

// Clears the bits behind the prefix, so that equal rules compare equal.
void MaskAddress(PolicyNetRule& rule) {
  for (std::size_t i = 0; i < rule.address.size(); ++i) {
    const std::size_t first_bit = i * 8;
    if (first_bit >= rule.prefix)
      rule.address[i] = 0;
    else if (first_bit + 8 > rule.prefix)
      rule.address[i] &= static_cast<std::uint8_t>(0xFF << (first_bit + 8 - rule.prefix));
  }
}

}  // namespace

std::variant<PolicyNetRule, std::string> ParseDestination(std::string_view text) {
  PolicyNetRule rule{};
  rule.text = text;
  std::string_view host = text;
  std::string_view rest;
  int family = AF_INET;
  if (text.starts_with('[')) {
    const std::size_t close = text.find(']');
    if (close == std::string_view::npos) return "\"" + rule.text + "\" has a [ without a ]";
    host = text.substr(1, close - 1);
    rest = text.substr(close + 1);
    family = AF_INET6;
  } else {
    if (std::count(text.begin(), text.end(), ':') > 1)
      return "\"" + rule.text + "\": write an IPv6 address in brackets, as in [2001:db8::1]:443";
    host = text.substr(0, text.find_first_of("/:"));
    rest = text.substr(host.size());
  }

  std::uint8_t bytes[16];
  const std::string name(host);
  const std::string_view domain =
      host.ends_with('.') ? host.substr(0, host.size() - 1) : host;  // the same name
  // (a NUL would hide what follows it)
  const bool is_address = name.find('\0') == std::string::npos && inet_pton(family, name.c_str(), bytes) == 1;
  if (is_address) {
    rule.address.assign(bytes, bytes + (family == AF_INET ? 4 : 16));
    rule.prefix = static_cast<std::uint32_t>(rule.address.size() * 8);
  } else if (family == AF_INET6) {
    return "\"" + name + "\" is not an IPv6 address";
  } else if (!IsHostName(domain.starts_with("*.") ? domain.substr(2) : domain)) {
    return "\"" + name + "\" is neither an address nor a name (names may begin with \"*.\")";
  } else {
    rule.domain = domain;
  }

  if (rest.starts_with('/')) {
    const std::string_view digits = rest.substr(
        1, rest.find(':') == std::string_view::npos ? std::string_view::npos : rest.find(':') - 1);
    if (!is_address) return "\"" + rule.text + "\": a prefix belongs to an address, not to a name";
    const auto prefix = ParseNumber<std::uint32_t>(digits, rule.prefix);
    if (!prefix)
      return "bad prefix \"" + std::string(digits) + "\": a number of bits from 0 to " +
             std::to_string(rule.prefix);
    rule.prefix = *prefix;
    rest.remove_prefix(1 + digits.size());
  }
  if (rest.starts_with(':')) {
    if (std::string error = ParsePorts(rest.substr(1), rule.ports); !error.empty()) return error;
  } else if (!rest.empty()) {
    return "\"" + std::string(rest) + "\" after \"" + name + "\" is not understood";
  }
  MaskAddress(rule);
  if (rule.address.size() == 16 && rule.prefix >= 96 && policy::IsMappedIPv4(rule.address.data()))
    return "\"" + rule.text + "\" is an IPv4 address in IPv6 form: write it as IPv4, which covers both";
  return rule;
}

}  // namespace vorn::host
