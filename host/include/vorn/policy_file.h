// Policy files: what a confined program may touch, as a person writes it down.
//
//   auto result = vorn::host::ParsePolicy(text, lookup);
//   if (auto* errors = std::get_if<std::vector<PolicyError>>(&result)) …   // every error, with line and
//   column
//
// A policy is TOML in UTF-8 (docs/policy.md). Parsing is pure: variables are looked up through the caller's
// function and no file is touched, so paths that do not exist are fine. Unknown keys, wrong types, relative
// paths, bad addresses and contradictions are errors; a policy with an error yields no policy at all. Any
// thread.
#pragma once

#include <array>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

namespace vorn::host {

// Where something stands in a policy file: both count from 1, columns in bytes.
struct Place {
  std::uint32_t line = 0;
  std::uint32_t column = 0;
};

struct PolicyError {
  Place place;
  std::string message;
};

enum class FileAccess : std::uint32_t { kDeny = 1, kRead = 2, kWrite = 3 };

// What the temp folder is to the program: the host's own, writable; one of the run; nothing special.
enum class TempFolder { kWrite, kPrivate, kRules };

struct PolicyFileRule {
  FileAccess access;
  std::string path;  // UTF-8, variables expanded: X:\… or \\server\share\…, no backslash at the end
  Place place;
};

struct PolicyNetRule {
  bool allow;
  // Exactly one of the two is set.
  std::vector<std::uint8_t> address;  // 4 or 16 bytes, network order
  std::string domain;                 // name, or "*.name" for the name and everything below it
  std::uint32_t prefix = 0;           // leading bits of address that must match
  std::vector<std::uint16_t> ports;   // empty: every port
  Place place;
  std::string text;  // as written
};

struct PolicyDocument {
  std::uint32_t log_level = 6;  // mask of the library's levels: 1 normal, 2 errors, 4 warnings, 8 detail
  std::string log_directory;    // empty: the host's default
  bool write_dumps = true;      // false: crashes leave no dump and no notice
  std::string dump_directory;   // empty: the host's default; at most kMaxDumpDirectoryUnits
  bool enforce_files = true;    // false: file creation passes unchecked
  bool enforce_network = true;  // false: every destination is allowed
  TempFolder temp = TempFolder::kWrite;
  std::vector<PolicyFileRule> files;
  // Network confinement is on exactly when the policy has a [network] table. The rules stand in the order in
  // which they are tried: addresses before names, longer prefixes and names first, deny before allow.
  bool has_network = false;
  bool network_default_allow = false;
  std::vector<PolicyNetRule> network;
};

// Value of an environment variable in UTF-8, or nothing.
using VariableLookup = std::function<std::optional<std::string>(std::string_view name)>;

std::variant<PolicyDocument, std::vector<PolicyError>> ParsePolicy(std::string_view text,
                                                                   const VariableLookup& lookup);

// "FILE:LINE:COLUMN: error: MESSAGE"
std::string FormatPolicyError(std::string_view file, const PolicyError& error);
// The same with "warning".
std::string FormatPolicyWarning(std::string_view file, const PolicyError& warning);

// A destination as policies and command lines write it: address[/prefix] or [v6][/prefix] or name, each with
// an optional ":port[,port…]". An error text when it is none of them.
std::variant<PolicyNetRule, std::string> ParseDestination(std::string_view text);

}  // namespace vorn::host
