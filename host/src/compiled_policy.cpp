#include "vorn/compiled_policy.h"

#include <windows.h>

#include <algorithm>
#include <system_error>
#include <unordered_map>

#include "Policy/device_path.h"
#include "Policy/text.h"
#include "Policy/wide.h"
#include "vorn/nt_path.h"
#include "vorn/text.h"

namespace vorn::host {
namespace {

const char* AccessName(FileAccess access) {
  switch (access) {
    case FileAccess::kDeny:
      return "deny";
    case FileAccess::kRead:
      return "read";
    case FileAccess::kWrite:
      return "write";
  }
  return "";
}

// Places that the kernel takes for the same have the same folded path.
std::wstring Folded(std::wstring path) {
  for (wchar_t& unit : path) unit = static_cast<wchar_t>(policy::FoldCase(static_cast<char16_t>(unit)));
  return path;
}

std::wstring TempDirectory() {
  wchar_t path[MAX_PATH + 1];
  const DWORD length = GetTempPathW(MAX_PATH + 1, path);
  if (length == 0 || length > MAX_PATH) return {};
  try {
    return ToNtPath(path);
  } catch (const std::system_error&) {
    return {};
  }
}

}  // namespace

std::variant<CompiledPolicy, std::vector<PolicyError>> CompiledPolicy::Make(PolicyDocument document) {
  CompiledPolicy compiled(std::move(document));
  std::vector<PolicyError> errors;
  std::unordered_map<std::wstring, const PolicyFileRule*> rule_of;  // by place
  for (const PolicyFileRule& rule : compiled.document_.files) {
    try {
      std::wstring path = ToNtPath(ToWide(rule.path));
      const auto [first, added] = rule_of.emplace(Folded(path), &rule);
      if (!added && first->second->access != rule.access)
        errors.push_back({rule.place, "\"" + rule.path + "\" is the same place as \"" + first->second->path +
                                          "\" in line " + std::to_string(first->second->place.line) +
                                          ", which has another access"});
      compiled.file_rules_.push_back({static_cast<policy::FileACL>(rule.access), std::move(path)});
    } catch (const std::system_error& error) {
      errors.push_back({rule.place, "\"" + rule.path + "\" cannot be used: " +
                                        Win32ErrorText(static_cast<std::uint32_t>(error.code().value()))});
    }
  }
  if (!errors.empty()) return errors;
  compiled.temp_directory_ = TempDirectory();
  SectionContents contents;
  compiled.FillIn(contents);
  compiled.section_ = LayOutSection(contents);
  return compiled;
}

void CompiledPolicy::FillIn(SectionContents& contents) const {
  contents.flags = document_.log_level;
  if (!document_.enforce_files) contents.flags |= policy::kFlagFileCreateCheckOff;
  if (!document_.enforce_network) contents.flags |= policy::kFlagNetCheckOff;
  contents.file_rules = file_rules_;
  contents.net_rules.clear();
  if (!document_.has_network) return;
  for (const PolicyNetRule& rule : document_.network) {
    NetRule& out = contents.net_rules.emplace_back();
    out.verdict = rule.allow ? policy::kVerdictAllow : policy::kVerdictDeny;
    out.kind = rule.domain.empty() ? policy::NetRuleKind::kAddress : policy::NetRuleKind::kDomain;
    out.address = rule.address;
    out.prefix = rule.prefix;
    out.ports = rule.ports;
    out.domain = ToWide(rule.domain);
  }
  // A name that ends with a dot is the same name.
  for (std::size_t i = 0; i < document_.network.size(); ++i) {
    if (document_.network[i].domain.empty()) continue;
    NetRule rooted = contents.net_rules[i];
    rooted.domain += L'.';
    contents.net_rules.push_back(std::move(rooted));
  }
  NetRule& last = contents.net_rules.emplace_back();
  last.kind = policy::NetRuleKind::kDefault;
  last.verdict = document_.network_default_allow ? policy::kVerdictAllow : policy::kVerdictDeny;
}

PathDecision CompiledPolicy::DecidePath(const std::wstring& path) const {
  PathDecision decision;
  decision.nt_path = ToNtPath(path);
  const std::u16string_view nt_path = policy::U16(std::wstring_view(decision.nt_path));
  if (!document_.enforce_files) {
    decision.access = policy::FileACL::kUnknown;
    decision.reason = PathReason::kCheckOff;
  } else if (policy::IsRecycleBinPath(nt_path)) {
    decision.access = policy::FileACL::kReadWrite;
    decision.reason = PathReason::kRecycleBin;
  } else if (policy::IsUnder(nt_path, policy::U16(std::wstring_view(temp_directory_)))) {
    decision.access = policy::FileACL::kReadWrite;
    decision.reason = PathReason::kTemp;
  } else {
    const policy::FileRuleMatch match = policy::CheckFileACL(policy::SectionView(section_), nt_path);
    decision.access = match.access;
    if (match.found) {
      decision.reason = PathReason::kRule;
      decision.rule = &document_.files[match.rule_index];
    }
  }
  return decision;
}

DestinationDecision CompiledPolicy::DecideDestination(const PolicyNetRule& destination) const {
  policy::IpAddress address;
  address.family = destination.address.size() == 4    ? policy::kFamilyIPv4
                   : destination.address.size() == 16 ? policy::kFamilyIPv6
                                                      : 0;
  std::copy(destination.address.begin(), destination.address.end(), address.bytes.begin());
  address.port = destination.ports.empty() ? 0 : destination.ports.front();
  address = policy::UnwrapMappedIPv4(address);
  const std::wstring domain = ToWide(destination.domain);
  const std::u16string_view name = policy::U16(std::wstring_view(domain));
  const policy::SectionView section(section_);
  policy::NetDecision kernel =
      policy::DecideDestination(section, name, destination.address.empty() ? nullptr : &address);
  if (destination.address.empty() && kernel.decider != policy::NetDecider::kNoRules &&
      kernel.decider != policy::NetDecider::kCheckOff) {
    // A name alone: no address rule covers it, but its port counts.
    if (const policy::DomainRuleMatch match = policy::MatchDomainRules(section, name, address.port);
        match.decided)
      kernel = {match.verdict, policy::NetDecider::kDomainRule, match.rule_index};
    else
      kernel = policy::DecideDestination(section, {}, nullptr);
  }
  DestinationDecision decision;
  decision.allow = kernel.verdict == policy::kVerdictAllow;
  decision.decider = kernel.decider;
  if (kernel.decider == policy::NetDecider::kAddressRule || kernel.decider == policy::NetDecider::kDomainRule)
    decision.rule = &NetworkRule(kernel.rule_index);
  return decision;
}

const PolicyNetRule& CompiledPolicy::NetworkRule(std::size_t index) const {
  if (index < document_.network.size()) return document_.network[index];
  index -= document_.network.size();
  return *std::ranges::find_if(
      document_.network, [&](const PolicyNetRule& rule) { return !rule.domain.empty() && index-- == 0; });
}

std::string CompiledPolicy::Describe(const PathDecision& decision) {
  switch (decision.reason) {
    case PathReason::kRule:
      return std::string(AccessName(decision.rule->access)) + " " + decision.rule->path + " (line " +
             std::to_string(decision.rule->place.line) + ")";
    case PathReason::kNoRule:
      return "no rule: read only";
    case PathReason::kTemp:
      return "temp folder: read and write";
    case PathReason::kRecycleBin:
      return "recycle bin: read and write";
    case PathReason::kCheckOff:
      return "files are not enforced";
  }
  return {};
}

std::string CompiledPolicy::Describe(const DestinationDecision& decision) const {
  switch (decision.decider) {
    case policy::NetDecider::kNoRules:
      return "no [network] table: the network is not confined";
    case policy::NetDecider::kCheckOff:
      return "the network is not enforced";
    case policy::NetDecider::kDefaultRule:
    case policy::NetDecider::kNoMatch:
      return std::string("default: ") + (decision.allow ? "allow" : "deny");
    default:
      return std::string(decision.rule->allow ? "allow " : "deny ") + decision.rule->text + " (line " +
             std::to_string(decision.rule->place.line) + ")";
  }
}

}  // namespace vorn::host
