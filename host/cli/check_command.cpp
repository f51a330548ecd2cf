#include <fmt/format.h>

#include "commands.h"
#include "vorn/text.h"

namespace vorn::cli {
namespace {

const char* AccessText(policy::FileACL access) {
  switch (access) {
    case policy::FileACL::kDeny:
      return "deny";
    case policy::FileACL::kRead:
      return "read";
    case policy::FileACL::kReadWrite:
      return "write";
    case policy::FileACL::kUnknown:
      break;
  }
  return "unconfined";
}

std::string ExplainPath(const host::CompiledPolicy& policy, const std::string& question) {
  const host::PathDecision decision = policy.DecidePath(host::ToWide(question));
  const policy::FileVerdict& verdict = decision.verdict.file;
  const bool held = decision.held.rule != policy::kNoRule;
  return fmt::format(
      "{:<10}  {}  ({}; {}{}looked up as {})", AccessText(verdict.access), question, policy.Describe(verdict),
      held ? "keeps its place: " + policy.Describe(decision.held) + "; " : "",
      decision.path.folder_exists ? "" : "its folder does not exist; ", host::ToUtf8(decision.path.nt_path));
}

std::string ExplainDestination(const host::CompiledPolicy& policy, const host::PolicyNetRule& destination) {
  const policy::DestinationDecision decision = policy.DecideDestination(destination);
  return fmt::format("{:<10}  {}  ({})", policy::VerdictText(decision.verdict), destination.text,
                     policy.Describe(decision));
}

bool LooksLikePath(const std::string& question) {
  const char first = question.empty() ? '\0' : static_cast<char>(question[0] | 0x20);
  return question.starts_with("\\\\") ||
         (question.size() >= 2 && question[1] == ':' && first >= 'a' && first <= 'z');
}

}  // namespace

int Check(const std::string& policy_file) {
  const auto policy = LoadPolicy(policy_file);
  if (!policy) return kExitMistake;
  const host::PolicyDocument& document = policy->document();
  std::string network = "not confined";
  if (document.has_network)
    network = fmt::format("{} destination rules, default {}", document.network.size(),
                          document.network_default_allow ? "allow" : "deny");
  const std::string off = NotConfined(document);
  PrintLine(fmt::format("{}: ok: {} file rules; network {}{}", policy_file, document.files.size(), network,
                        off.empty() ? off : "; " + off + " NOT CONFINED: enforce = false"));
  for (const host::PolicyError& warning : policy->warnings())
    PrintLine(host::FormatPolicyWarning(policy_file, warning));
  for (const host::PolicyNetRule& rule : document.network)
    PrintLine(
        fmt::format("  {:<5}  {}  (line {})", rule.allow ? "allow" : "deny", rule.text, rule.place.line));
  return kExitOk;
}

int Explain(const std::string& policy_file, const std::vector<std::string>& questions) {
  const auto policy = LoadPolicy(policy_file);
  if (!policy) return kExitMistake;
  int result = kExitOk;
  for (const std::string& question : questions) {
    try {
      if (LooksLikePath(question)) {
        PrintLine(ExplainPath(*policy, question));
        continue;
      }
      auto destination = host::ParseDestination(question);
      if (auto* error = std::get_if<std::string>(&destination)) throw std::invalid_argument(*error);
      const auto& asked = std::get<host::PolicyNetRule>(destination);
      if (asked.ports.size() > 1 || asked.prefix < asked.address.size() * 8 || asked.domain.starts_with("*."))
        throw std::invalid_argument("that is many destinations: ask for one address or name, with one port");
      PrintLine(ExplainDestination(*policy, asked));
    } catch (const std::exception& error) {
      PrintErrorLine(fmt::format("vorn: cannot explain \"{}\": {}", question, error.what()));
      result = kExitMistake;
    }
  }
  return result;
}

}  // namespace vorn::cli
