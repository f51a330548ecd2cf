#include "vorn/compiled_policy.h"

#include <fmt/format.h>

#include <algorithm>
#include <system_error>
#include <unordered_map>

#include "Platform/native.h"
#include "Policy/device_path.h"
#include "Policy/path_hash.h"
#include "Policy/text.h"
#include "Policy/wide.h"
#include "vorn/text.h"
#include "windows/unique_handle.h"

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

std::u16string_view PathOf(const FileRule& rule) { return policy::U16(std::wstring_view(rule.path)); }

// Whether the kernel takes two paths for the same place.
struct SamePlace {
  std::size_t operator()(std::u16string_view path) const {
    return policy::HashPathNoCase(path, policy::Letters::kAll);
  }
  bool operator()(std::u16string_view a, std::u16string_view b) const {
    return policy::EqualsNoCase(a, b, policy::Letters::kAll);
  }
};

bool Holds(std::u16string_view folder, std::u16string_view path) {
  return policy::IsUnder(path, folder, policy::Letters::kAll);
}

// Where the other names of a file matter, for a system that cannot list them.
const std::vector<FileRule>* g_link_folders;
std::wstring_view LinkFolder(std::uint32_t index) {
  return index < g_link_folders->size() ? std::wstring_view((*g_link_folders)[index].path)
                                        : std::wstring_view();
}

// The other names of a file, as the library finds them.
class OtherNames final : public policy::FileContext {
 public:
  OtherNames(const ResolvedPath& file, PathResolver& resolver) : file_(file), resolver_(resolver) {}
  ~OtherNames() {
    if (find_ != INVALID_HANDLE_VALUE) native_.FindClose(find_);
  }
  OtherNames(const OtherNames&) = delete;
  OtherNames& operator=(const OtherNames&) = delete;

  bool NextName(std::u16string_view* name) noexcept override {
    DWORD units = static_cast<DWORD>(buffer_.size());
    if (!asked_) {
      asked_ = true;
      // Without the stream, which has no names of its own.
      const std::wstring& path = file_.dos_path;
      const std::wstring file = path.substr(0, path.find(L':', path.rfind(L'\\') + 1));
      if (file_.exists && HasSeveralNames(file) && native_.FindFirstFileNameW)
        find_ = native_.FindFirstFileNameW(file.c_str(), 0, &units, buffer_.data());
      if (find_ == INVALID_HANDLE_VALUE) return false;
    } else if (find_ == INVALID_HANDLE_VALUE || !native_.FindNextFileNameW(find_, &units, buffer_.data())) {
      return false;
    }
    const std::size_t device = file_.nt_path.find(L'\\', policy::kDevicePrefix.size());
    name_ = file_.nt_path.substr(0, device) + buffer_.data();
    if (const auto other = VornCore::platform::kOtherVolume; name_.compare(device, other.size(), other) == 0)
      name_.erase(0, device + other.size());
    *name = policy::U16(std::wstring_view(name_));
    return true;
  }
  std::u16string_view PathOnDrive(char16_t letter, std::u16string_view rest) noexcept override {
    name_ = resolver_.DeviceOf(static_cast<wchar_t>(letter));
    if (!name_.empty()) name_ += policy::W(rest);
    return policy::U16(std::wstring_view(name_));
  }

 private:
  static bool HasSeveralNames(const std::wstring& path) {
    const windows::UniqueHandle file(CreateFileW(path.c_str(), FILE_READ_ATTRIBUTES, nt::kShareAll, nullptr,
                                                 OPEN_EXISTING, FILE_FLAG_BACKUP_SEMANTICS, nullptr));
    BY_HANDLE_FILE_INFORMATION info;
    return file && GetFileInformationByHandle(file.get(), &info) &&
           !(info.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY) && info.nNumberOfLinks >= 2;
  }

  const VornCore::platform::NativeApi& native_ = VornCore::platform::Native();
  const ResolvedPath& file_;
  PathResolver& resolver_;
  std::vector<wchar_t> buffer_ = std::vector<wchar_t>(32768);
  std::wstring name_;
  HANDLE find_ = INVALID_HANDLE_VALUE;
  bool asked_ = false;
};

}  // namespace

std::variant<CompiledPolicy, std::vector<PolicyError>> CompiledPolicy::Make(
    PolicyDocument document, std::vector<HostRule> host_rules) {
  CompiledPolicy compiled(std::move(document));
  std::vector<PolicyError> errors;
  std::unordered_map<std::u16string_view, const PolicyFileRule*, SamePlace, SamePlace> rule_of;  // by place
  PathResolver resolver;
  const auto& rules = compiled.document_.files;
  rule_of.reserve(rules.size());
  compiled.file_rules_.reserve(rules.size() + host_rules.size());  // the places are views of these
  for (const PolicyFileRule& rule : rules) {
    try {
      auto [path, dos_path, exists, folder_exists] = resolver.Resolve(ToWide(rule.path));
      if (!exists)
        compiled.warnings_.push_back(
            {rule.place, "\"" + rule.path + "\" does not exist: is it spelled right?"});
      compiled.file_rules_.push_back({static_cast<policy::FileACL>(rule.access), std::move(path)});
      const auto [first, is_new] = rule_of.emplace(PathOf(compiled.file_rules_.back()), &rule);
      if (!is_new && first->second->access != rule.access)
        errors.push_back({rule.place, "\"" + rule.path + "\" is the same place as \"" + first->second->path +
                                          "\" in line " + std::to_string(first->second->place.line) +
                                          ", which has another access"});
    } catch (const std::system_error& error) {
      errors.push_back({rule.place, "\"" + rule.path + "\" cannot be used: " +
                                        Win32ErrorText(static_cast<std::uint32_t>(error.code().value()))});
    }
  }
  if (!errors.empty()) return errors;
  for (HostRule& rule : host_rules)
    if (!rule.protects) compiled.AddHostRule(std::move(rule), resolver);
  for (HostRule& rule : host_rules)
    if (rule.protects) compiled.Protect(std::move(rule), resolver);
  SectionContents contents;
  contents.file_rules = std::move(compiled.file_rules_);
  compiled.AddFlagsAndNetRules(contents);
  compiled.section_ = LayOutSection(contents);
  compiled.file_rules_ = std::move(contents.file_rules);
  return compiled;
}

void CompiledPolicy::AddHostRule(HostRule rule, PathResolver& resolver) {
  std::wstring path;
  try {
    path = resolver.Resolve(rule.path).nt_path;
  } catch (const std::system_error&) {
    return;  // a place that cannot be named cannot be opened either
  }
  const std::u16string_view place = policy::U16(std::wstring_view(path));
  const auto beats = [&](const FileRule& other) {
    return SamePlace{}(PathOf(other), place) ||
           (rule.yields_to_deny && other.access == policy::FileACL::kDeny && Holds(PathOf(other), place));
  };
  if (std::ranges::any_of(file_rules_, beats)) return;
  file_rules_.push_back({static_cast<policy::FileACL>(rule.access), std::move(path)});
  host_rules_.push_back(std::move(rule));
}

// Rules at the place or below it that open it are lowered; where a rule above it does, the place gets one of
// its own.
void CompiledPolicy::Protect(HostRule rule, PathResolver& resolver) {
  std::wstring path;
  try {
    path = resolver.Resolve(rule.path).nt_path;
  } catch (const std::system_error&) {
    return;
  }
  const std::size_t own = document_.files.size();
  const auto warn = [&](std::size_t index) {
    if (index >= own) return;
    const PolicyFileRule& opened = document_.files[index];
    warnings_.push_back({opened.place, fmt::format("\"{}\" does not open {} for writing: {}", opened.path,
                                                   rule.what, ToUtf8(rule.path))});
  };
  const std::u16string_view place = policy::U16(std::wstring_view(path));
  const FileRule* nearest = nullptr;
  for (std::uint32_t i = 0; i < file_rules_.size(); ++i) {
    FileRule& other = file_rules_[i];
    const bool opens = SamePlace{}(PathOf(other), place) || (i < own && Holds(place, PathOf(other)));
    if (other.access == policy::FileACL::kReadWrite && opens) {
      other.access = policy::FileACL::kRead;
      warn(i);
      if (i < own)
        lowered_[i] = rule.what;
      else
        host_rules_[i - own] = rule;
    }
    if (Holds(PathOf(other), place) && (!nearest || other.path.size() > nearest->path.size()))
      nearest = &other;
  }
  if (!nearest || nearest->access != policy::FileACL::kReadWrite) return;
  warn(static_cast<std::size_t>(nearest - file_rules_.data()));
  file_rules_.push_back({policy::FileACL::kRead, std::move(path)});
  host_rules_.push_back(std::move(rule));
}

void CompiledPolicy::BuildSectionContents(SectionContents& contents) const {
  AddFlagsAndNetRules(contents);
  contents.file_rules = file_rules_;
}

void CompiledPolicy::AddFlagsAndNetRules(SectionContents& contents) const {
  contents.options = kRunOptions;
  contents.flags = document_.log_level;
  if (!document_.enforce_files) contents.flags |= policy::kFlagFileCreateCheckOff;
  if (!document_.enforce_network) contents.flags |= policy::kFlagNetCheckOff;
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
  decision.path = IsDevicePath(path) ? resolver_.ResolveDevice(path) : resolver_.Resolve(path);
  if (!document_.enforce_files) {
    decision.verdict.file =
        decision.verdict.named = {policy::FileACL::kUnknown, policy::DecidingFact::kCheckOff};
    return decision;
  }
  g_link_folders = &file_rules_;
  VornCore::platform::SetLinkFolderSource(&LinkFolder);
  OtherNames names(decision.path, resolver_);
  std::wstring asked = decision.path.nt_path;
  // A drive is its root folder; the volume itself is asked about as a device.
  if (decision.path.dos_path.size() == 2) asked += L'\\';
  const policy::SectionView section(section_);
  const std::u16string_view place = policy::U16(std::wstring_view(asked));
  decision.verdict = policy::DecideFile(section, {.path = place}, names);
  if (decision.verdict.named.access == policy::FileACL::kReadWrite)
    decision.held = policy::HeldByRule(section, place);
  return decision;
}

policy::DestinationDecision CompiledPolicy::DecideDestination(const PolicyNetRule& destination) const {
  policy::IpAddress address;
  address.family = destination.address.size() == 4    ? policy::kFamilyIPv4
                   : destination.address.size() == 16 ? policy::kFamilyIPv6
                                                      : 0;
  std::copy(destination.address.begin(), destination.address.end(), address.bytes.begin());
  address.port = destination.ports.empty() ? 0 : destination.ports.front();
  address = policy::UnwrapMappedIPv4(address);
  const std::wstring name = ToWide(destination.domain);
  policy::DestinationContext context;
  return policy::DecideDestination(policy::SectionView(section_),
                                   {.address = &address, .name = policy::U16(std::wstring_view(name))},
                                   context);
}

const PolicyNetRule* CompiledPolicy::NetworkRule(std::size_t index) const {
  if (index < document_.network.size()) return &document_.network[index];
  index -= document_.network.size();
  const auto name = std::ranges::find_if(
      document_.network, [&](const PolicyNetRule& rule) { return !rule.domain.empty() && index-- == 0; });
  return name == document_.network.end() ? nullptr : &*name;
}

std::string CompiledPolicy::Describe(const policy::FileVerdict& verdict) const {
  const std::string fact = policy::DecidingFactText(verdict.fact);
  const bool by_rule = verdict.fact == policy::DecidingFact::kRule;
  std::string rule;
  if (verdict.rule < document_.files.size()) {
    const PolicyFileRule& decided = document_.files[verdict.rule];
    const auto lowered = lowered_.find(verdict.rule);
    rule = lowered == lowered_.end()
               ? fmt::format("{} {} (line {})", AccessName(decided.access), decided.path, decided.place.line)
               : fmt::format("read {} ({}, whatever line {} says)", decided.path, lowered->second,
                             decided.place.line);
  } else if (const std::size_t index = verdict.rule - document_.files.size(); index < host_rules_.size()) {
    const HostRule& decided = host_rules_[index];
    rule = fmt::format("{} {} ({})", AccessName(decided.access), ToUtf8(decided.path), decided.what);
  } else if (by_rule || verdict.rule != policy::kNoRule) {
    rule = "unknown rule";
  } else if (verdict.fact == policy::DecidingFact::kOtherName) {
    rule = policy::DecidingFactText(policy::DecidingFact::kNoFileRule);
  }
  if (by_rule) return rule;
  return rule.empty() ? fact : fact + ": " + rule;
}

std::string CompiledPolicy::Describe(const policy::DestinationDecision& decision) const {
  switch (decision.fact) {
    case policy::DecidingFact::kNoNetRules:
      return "no [network] table: the network is not confined";
    case policy::DecidingFact::kDefaultRule:
    case policy::DecidingFact::kNoMatch:
      return fmt::format("default: {}", policy::VerdictText(policy::Verdict{decision.verdict}));
    case policy::DecidingFact::kAddressRule:
    case policy::DecidingFact::kDomainRule:
      if (const PolicyNetRule* rule = NetworkRule(decision.rule))
        return fmt::format("{} {} (line {})", rule->allow ? "allow" : "deny", rule->text, rule->place.line);
      return "unknown rule";
    default:
      return policy::DecidingFactText(decision.fact);
  }
}

}  // namespace vorn::host
