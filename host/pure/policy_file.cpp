#include "vorn/policy_file.h"

#include <algorithm>
#include <initializer_list>
#include <map>

#define TOML_EXCEPTIONS 0
#define TOML_ENABLE_FORMATTERS 0
#include <toml++/toml.h>

#include "vorn/event.h"
#include "vorn/section.h"

namespace vorn::host {
namespace {

Place PlaceOf(const toml::node& node) {
  return {static_cast<std::uint32_t>(node.source().begin.line),
          static_cast<std::uint32_t>(node.source().begin.column)};
}
Place PlaceOf(const toml::key& key) {
  return {static_cast<std::uint32_t>(key.source().begin.line),
          static_cast<std::uint32_t>(key.source().begin.column)};
}

std::string Quoted(std::string_view text) { return "\"" + std::string(text) + "\""; }

// A path without regard to the case of A to Z, to find contradictions.
std::string Folded(std::string_view path) {
  std::string folded(path);
  for (char& c : folded)
    if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
  return folded;
}

// How long a text in UTF-8 is in UTF-16.
std::size_t Utf16Units(std::string_view text) {
  std::size_t units = 0;
  for (const char c : text) {
    const auto byte = static_cast<unsigned char>(c);
    if ((byte & 0xC0) != 0x80) units += byte >= 0xF0 ? 2 : 1;
  }
  return units;
}

class PolicyReader {
 public:
  PolicyReader(const VariableLookup& lookup, PolicyDocument& policy, std::vector<PolicyError>& errors)
      : lookup_(lookup), policy_(policy), errors_(errors) {}

  void Read(const toml::table& root) {
    ForEachKey(root, "the policy", {"log", "dump", "files", "network"},
               [&](const toml::key& key, const toml::node& node) {
                 const toml::table* table = node.as_table();
                 if (!table)
                   return Error(PlaceOf(key), Quoted(key.str()) + " must be a table: write [" +
                                                  std::string(key.str()) + "]");
                 if (key.str() == "log") ReadLog(*table);
                 if (key.str() == "dump") ReadDump(*table);
                 if (key.str() == "files") ReadFiles(*table);
                 if (key.str() == "network") ReadNetwork(*table);
               });
    FindContradictions();
    SortNetwork();
  }

 private:
  void Error(Place place, std::string message) { errors_.push_back({place, std::move(message)}); }

  template <class Visit>
  void ForEachKey(const toml::table& table, std::string_view where,
                  std::initializer_list<std::string_view> known, Visit&& visit) {
    for (auto&& [key, node] : table) {
      if (std::find(known.begin(), known.end(), key.str()) != known.end()) {
        visit(key, node);
        continue;
      }
      std::string names;
      for (std::string_view name : known) names += (names.empty() ? "" : ", ") + std::string(name);
      Error(PlaceOf(key),
            "unknown key " + Quoted(key.str()) + " in " + std::string(where) + " (known: " + names + ")");
    }
  }

  std::optional<std::string> ReadString(const toml::node& node, std::string_view what) {
    if (auto value = node.value_exact<std::string>()) return value;
    Error(PlaceOf(node), std::string(what) + " must be a string");
    return {};
  }

  void ReadBool(const toml::node& node, std::string_view what, bool& value) {
    if (auto read = node.value_exact<bool>())
      value = *read;
    else
      Error(PlaceOf(node), std::string(what) + " must be true or false");
  }

  template <class Visit>
  void ForEachString(const toml::node& node, std::string_view what, Visit&& visit) {
    const toml::array* list = node.as_array();
    if (!list) return Error(PlaceOf(node), std::string(what) + " must be a list of strings: [ '…', '…' ]");
    for (const toml::node& entry : *list)
      if (auto text = ReadString(entry, "every entry of " + std::string(what))) visit(*text, PlaceOf(entry));
  }

  void ReadDirectory(const toml::node& node, std::string_view what, std::string& directory) {
    if (auto text = ReadString(node, what))
      if (auto path = ReadPath(*text, PlaceOf(node))) directory = *path;
  }

  void ReadLog(const toml::table& table) {
    ForEachKey(table, "[log]", {"level", "directory"}, [&](const toml::key& key, const toml::node& node) {
      if (key.str() == "directory") return ReadDirectory(node, "directory", policy_.log_directory);
      static const std::map<std::string, std::uint32_t, std::less<>> levels = {
          {"none", 0}, {"errors", 2}, {"warnings", 6}, {"normal", 7}, {"detail", 15}};
      auto text = ReadString(node, "level");
      if (!text) return;
      auto level = levels.find(*text);
      if (level == levels.end())
        return Error(PlaceOf(node),
                     "unknown level " + Quoted(*text) + " (known: none, errors, warnings, normal, detail)");
      policy_.log_level = level->second;
    });
  }

  void ReadDump(const toml::table& table) {
    ForEachKey(table, "[dump]", {"directory", "enabled"}, [&](const toml::key& key, const toml::node& node) {
      if (key.str() == "enabled") return ReadBool(node, "enabled", policy_.write_dumps);
      ReadDirectory(node, "directory", policy_.dump_directory);
      const std::size_t units = Utf16Units(policy_.dump_directory);
      if (units > kMaxDumpDirectoryUnits)
        Error(PlaceOf(node), Quoted(policy_.dump_directory) + " has " + std::to_string(units) +
                                 " characters; crash dumps need a directory of at most " +
                                 std::to_string(kMaxDumpDirectoryUnits));
    });
  }

  void ReadFiles(const toml::table& table) {
    ForEachKey(table, "[files]", {"deny", "read", "write", "temp", "enforce"},
               [&](const toml::key& key, const toml::node& node) {
                 if (key.str() == "enforce") return ReadBool(node, "enforce", policy_.enforce_files);
                 if (key.str() == "temp") return ReadTemp(node);
                 const FileAccess access = key.str() == "deny"   ? FileAccess::kDeny
                                           : key.str() == "read" ? FileAccess::kRead
                                                                 : FileAccess::kWrite;
                 ForEachString(node, key.str(), [&](const std::string& text, Place place) {
                   if (auto path = ReadPath(text, place)) policy_.files.push_back({access, *path, place});
                 });
               });
  }

  void ReadTemp(const toml::node& node) {
    static const std::map<std::string, TempFolder, std::less<>> choices = {
        {"write", TempFolder::kWrite}, {"private", TempFolder::kPrivate}, {"rules", TempFolder::kRules}};
    auto text = ReadString(node, "temp");
    if (!text) return;
    const auto choice = choices.find(*text);
    if (choice == choices.end())
      return Error(PlaceOf(node), "temp must be \"write\", \"private\" or \"rules\", not " + Quoted(*text));
    policy_.temp = choice->second;
  }

  void ReadNetwork(const toml::table& table) {
    policy_.has_network = true;
    ForEachKey(table, "[network]", {"default", "allow", "deny", "enforce"},
               [&](const toml::key& key, const toml::node& node) {
                 if (key.str() == "enforce") return ReadBool(node, "enforce", policy_.enforce_network);
                 if (key.str() == "default") {
                   auto text = ReadString(node, "default");
                   if (text && *text != "allow" && *text != "deny")
                     Error(PlaceOf(node), "default must be \"allow\" or \"deny\", not " + Quoted(*text));
                   policy_.network_default_allow = text == "allow";
                   return;
                 }
                 const bool allow = key.str() == "allow";
                 ForEachString(node, key.str(), [&](const std::string& text, Place place) {
                   auto parsed = ParseDestination(text);
                   if (auto* message = std::get_if<std::string>(&parsed)) return Error(place, *message);
                   PolicyNetRule rule = std::get<PolicyNetRule>(std::move(parsed));
                   rule.allow = allow;
                   rule.place = place;
                   policy_.network.push_back(std::move(rule));
                 });
               });
  }

  // Expands %NAME%; %% is a percent sign.
  std::optional<std::string> Expand(std::string_view text, Place place) {
    std::string expanded;
    while (!text.empty()) {
      const std::size_t open = text.find('%');
      expanded += text.substr(0, open);
      if (open == std::string_view::npos) break;
      const std::size_t close = text.find('%', open + 1);
      if (close == std::string_view::npos) {
        Error(place, "a % without a second one in " + Quoted(text) + " (write %% for a percent sign)");
        return {};
      }
      const std::string_view name = text.substr(open + 1, close - open - 1);
      if (name.empty()) {
        expanded += '%';
      } else if (auto value = lookup_(name)) {
        expanded += *value;
      } else {
        Error(place, "the variable %" + std::string(name) + "% is not set");
        return {};
      }
      text.remove_prefix(close + 1);
    }
    return expanded;
  }

  std::optional<std::string> ReadPath(const std::string& text, Place place) {
    auto expanded = Expand(text, place);
    if (!expanded) return {};
    std::string path = *expanded;
    std::replace(path.begin(), path.end(), '/', '\\');
    const bool drive = path.size() >= 2 && path[1] == ':' &&
                       ((path[0] >= 'A' && path[0] <= 'Z') || (path[0] >= 'a' && path[0] <= 'z')) &&
                       (path.size() == 2 || path[2] == '\\');
    const bool unc =
        path.starts_with("\\\\") && path.size() > 2 && path[2] != '?' && path[2] != '.' && path[2] != '\\';
    if (!drive && !unc) {
      Error(place,
            Quoted(path) +
                " is not a full path: it must begin with a drive (C:\\…) or a share (\\\\server\\share\\…)");
      return {};
    }
    if (path.find(':', 2) != std::string::npos || std::ranges::any_of(path, [](unsigned char c) {
          return c < 0x20 || std::string_view("*?<>|\"").find(static_cast<char>(c)) != std::string_view::npos;
        })) {
      Error(place, Quoted(path) +
                       " contains a character that no path has (a rule covers everything below its path; "
                       "wildcards are not needed)");
      return {};
    }
    // One backslash between components, none at the end.
    std::string clean = unc ? "\\" : "";
    for (char c : path)
      if (c != '\\' || clean.empty() || clean.back() != '\\' || (unc && clean == "\\")) clean += c;
    while (clean.size() > 2 && clean.back() == '\\') clean.pop_back();
    for (std::size_t at = 0; (at = clean.find('\\', at)) != std::string::npos; ++at) {
      const std::string_view part = std::string_view(clean).substr(at + 1, clean.find('\\', at + 1) - at - 1);
      if (part == "." || part == "..") {
        Error(place, Quoted(path) + " contains \"" + std::string(part) + "\": write the path out");
        return {};
      }
    }
    if (unc && std::count(clean.begin(), clean.end(), '\\') < 3) {
      Error(place, Quoted(path) + " names no share: write \\\\server\\share");
      return {};
    }
    return clean;
  }

  void FindContradictions() {
    std::map<std::string, const PolicyFileRule*> seen;
    for (const PolicyFileRule& rule : policy_.files) {
      auto [first, added] = seen.emplace(Folded(rule.path), &rule);
      if (!added && first->second->access != rule.access)
        Error(rule.place, Quoted(rule.path) + " already has another access in line " +
                              std::to_string(first->second->place.line));
    }
    std::map<std::string, const PolicyNetRule*> destinations;
    for (const PolicyNetRule& rule : policy_.network) {
      std::string identity = Folded(rule.domain) + "/" + std::to_string(rule.prefix) + "/";
      for (std::uint8_t byte : rule.address) identity += std::to_string(byte) + ".";
      for (std::uint16_t port : rule.ports) identity += ":" + std::to_string(port);
      auto [first, added] = destinations.emplace(identity, &rule);
      if (!added && first->second->allow != rule.allow)
        Error(rule.place, Quoted(rule.text) + " is already " + (first->second->allow ? "allowed" : "denied") +
                              " in line " + std::to_string(first->second->place.line));
    }
  }

  void SortNetwork() {
    auto rank = [](const PolicyNetRule& rule) {
      const bool is_domain = !rule.domain.empty();
      const bool wildcard = rule.domain.starts_with("*.");
      const std::size_t length = is_domain ? rule.domain.size() : rule.prefix;
      return std::tuple(is_domain, wildcard, ~length, rule.ports.empty(), rule.allow);
    };
    std::stable_sort(policy_.network.begin(), policy_.network.end(),
                     [&](const PolicyNetRule& a, const PolicyNetRule& b) { return rank(a) < rank(b); });
  }

  const VariableLookup& lookup_;
  PolicyDocument& policy_;
  std::vector<PolicyError>& errors_;
};

}  // namespace

std::variant<PolicyDocument, std::vector<PolicyError>> ParsePolicy(std::string_view text,
                                                                   const VariableLookup& lookup) {
  toml::parse_result parsed = toml::parse(text);
  if (!parsed) {
    const toml::source_position at = parsed.error().source().begin;
    return std::vector<PolicyError>{
        {{static_cast<std::uint32_t>(at.line), static_cast<std::uint32_t>(at.column)},
         std::string(parsed.error().description())}};
  }
  PolicyDocument policy;
  std::vector<PolicyError> errors;
  PolicyReader(lookup, policy, errors).Read(parsed.table());
  if (errors.empty()) return policy;
  std::stable_sort(errors.begin(), errors.end(), [](const PolicyError& a, const PolicyError& b) {
    return std::pair(a.place.line, a.place.column) < std::pair(b.place.line, b.place.column);
  });
  return errors;
}

namespace {

std::string Format(std::string_view file, const char* kind, const PolicyError& error) {
  return std::string(file) + ":" + std::to_string(error.place.line) + ":" +
         std::to_string(error.place.column) + kind + Printable(error.message);
}

}  // namespace

std::string FormatPolicyError(std::string_view file, const PolicyError& error) {
  return Format(file, ": error: ", error);
}

std::string FormatPolicyWarning(std::string_view file, const PolicyError& warning) {
  return Format(file, ": warning: ", warning);
}

}  // namespace vorn::host
