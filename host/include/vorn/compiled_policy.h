// A policy ready for use: its rules in the section's form, and the answer to "which rule decides this?".
//
//   auto compiled = CompiledPolicy::Make(document);          // or errors with line and column
//   compiled.FillIn(contents);
//   PathDecision decision = compiled.DecidePath(L"C:\\work\\a.txt");
//
// Decisions are the decision kernel's, over the same bytes that confined processes read. Any thread.
#pragma once

#include <string>
#include <variant>
#include <vector>

#include "Policy/net_rules.h"
#include "vorn/policy_file.h"
#include "vorn/section.h"

namespace vorn::host {

// Why a path has its access.
enum class PathReason { kRule, kNoRule, kTemp, kRecycleBin, kCheckOff };

struct PathDecision {
  policy::FileACL access = policy::FileACL::kRead;
  PathReason reason = PathReason::kNoRule;
  const PolicyFileRule* rule = nullptr;  // with kRule; lives as long as the compiled policy
  std::wstring nt_path;                  // the canonical path that was looked up
};

struct DestinationDecision {
  bool allow = false;
  policy::NetDecider decider = policy::NetDecider::kNoRules;
  const PolicyNetRule* rule = nullptr;  // of an address or domain rule
};

class CompiledPolicy {
 public:
  // Errors: a drive that does not exist. Paths are resolved to their final form here, once.
  static std::variant<CompiledPolicy, std::vector<PolicyError>> Make(PolicyDocument document);

  const PolicyDocument& document() const { return document_; }

  // Adds flags and both rule tables.
  void FillIn(SectionContents& contents) const;

  // path: drive-letter or UNC form. Throws std::system_error for any other form.
  PathDecision DecidePath(const std::wstring& path) const;
  // destination: an address or a name with at most one port, as ParseDestination gives it. A name is decided
  // as a program would be that resolved it to an address no rule covers.
  DestinationDecision DecideDestination(const PolicyNetRule& destination) const;

  // "deny C:\secrets (line 4)", "no rule: read only", …
  static std::string Describe(const PathDecision& decision);
  std::string Describe(const DestinationDecision& decision) const;

 private:
  explicit CompiledPolicy(PolicyDocument document) : document_(std::move(document)) {}

  // The rule behind a network rule of the section: first those of the document, then the names among them
  // once more, with a dot at the end.
  const PolicyNetRule& NetworkRule(std::size_t index) const;

  PolicyDocument document_;
  std::vector<FileRule> file_rules_;  // same order as document_.files
  std::wstring temp_directory_;       // canonical NT form, empty when unknown
  std::vector<std::byte> section_;    // the rule tables as confined processes see them
};

}  // namespace vorn::host
