// A policy ready for use: its rules in the section's form, and the answer to "which rule decides this?".
//
//   auto compiled = CompiledPolicy::Make(document, {});      // or errors with line and column
//   compiled.BuildSectionContents(contents);
//   PathDecision decision = compiled.DecidePath(L"C:\\work\\a.txt");
//   std::puts(compiled.Describe(decision.verdict.file).c_str());
//
// Facts come from the file system, decisions from the decision kernel over the same bytes that confined
// processes read. Not for concurrent use of DecidePath; everything else: any thread.
#pragma once

#include <map>
#include <string>
#include <variant>
#include <vector>

#include "Policy/destination_decision.h"
#include "Policy/file_decision.h"
#include "vorn/host_places.h"
#include "vorn/nt_path.h"
#include "vorn/policy_file.h"
#include "vorn/section.h"

namespace vorn::host {

struct PathDecision {
  policy::FileDecision verdict;
  ResolvedPath path;         // what was looked up
  policy::FileVerdict held;  // of what may be written: the rule that keeps it at its place, or kReadWrite
};

class CompiledPolicy {
 public:
  // Errors: a drive that does not exist. Paths are resolved to their final form here, once. host_rules: what
  // the host adds of its own (host_places.h); the document's rule for the same place beats those that do not
  // protect.
  static std::variant<CompiledPolicy, std::vector<PolicyError>> Make(PolicyDocument document,
                                                                     std::vector<HostRule> host_rules);

  const PolicyDocument& document() const { return document_; }
  // What is allowed to stand in a policy, and may not do what its author means.
  const std::vector<PolicyError>& warnings() const { return warnings_; }

  // Adds flags, options and both rule tables.
  void BuildSectionContents(SectionContents& contents) const;

  // path: drive-letter or UNC form, or a device such as "\\.\C:". Throws std::system_error for any other
  // form. A path whose folder does not exist is decided as if it did.
  PathDecision DecidePath(const std::wstring& path) const;
  // destination: an address or a name with at most one port, as ParseDestination gives it. A name is decided
  // as a program would be that resolved it to an address no rule covers.
  policy::DestinationDecision DecideDestination(const PolicyNetRule& destination) const;

  // "deny C:\\secrets (line 4)", "another name of this file: read C:\\r (line 5)", "no rule: read only", …
  // Also of a rule and a fact that a process reports: a rule that the policy does not have reads as "unknown
  // rule".
  std::string Describe(const policy::FileVerdict& verdict) const;
  std::string Describe(const policy::DestinationDecision& decision) const;

 private:
  explicit CompiledPolicy(PolicyDocument document) : document_(std::move(document)) {}
  void AddHostRule(HostRule rule, PathResolver& resolver);
  void AddFlagsAndNetRules(SectionContents& contents) const;
  void Protect(HostRule rule, PathResolver& resolver);

  // The rule behind a network rule of the section: first those of the document, then the names among them
  // once more, with a dot at the end. Null for the default rule and for none.
  const PolicyNetRule* NetworkRule(std::size_t index) const;

  PolicyDocument document_;
  std::vector<HostRule> host_rules_;  // those in use
  std::vector<FileRule> file_rules_;  // document_.files, then host_rules_
  std::map<std::uint32_t, std::string>
      lowered_;  // rules of the document that open less than it says, and why
  std::vector<PolicyError> warnings_;
  std::vector<std::byte> section_;  // the rule tables as confined processes see them
  mutable PathResolver resolver_;
};

}  // namespace vorn::host
