// Policies as people write them: what is read, and where each mistake is reported.
#include <gtest/gtest.h>

#include "vorn/policy_file.h"

namespace vorn::host {
namespace {

std::optional<std::string> Lookup(std::string_view name) {
  if (name == "USERPROFILE") return "C:\\users\\me";
  return {};
}

PolicyDocument Good(std::string_view text) {
  auto result = ParsePolicy(text, Lookup);
  if (auto* errors = std::get_if<1>(&result)) ADD_FAILURE() << FormatPolicyError("policy", errors->front());
  return std::holds_alternative<PolicyDocument>(result) ? std::get<PolicyDocument>(result) : PolicyDocument{};
}

TEST(PolicyFile, FileRulesAreExpandedAndCleaned) {
  PolicyDocument policy = Good(
      "[log]\nlevel = 'detail'\n"
      "[files]\n"
      "deny = ['C:\\secret\\', '%USERPROFILE%\\x', 'C:\\100%%']\n"
      "read = ['//srv/share//a']\n"
      "write = ['D:\\']\n");
  std::vector<std::pair<FileAccess, std::string>> rules;
  for (const PolicyFileRule& rule : policy.files) rules.emplace_back(rule.access, rule.path);
  EXPECT_EQ(rules, (std::vector<std::pair<FileAccess, std::string>>{{FileAccess::kDeny, "C:\\secret"},
                                                                    {FileAccess::kDeny, "C:\\users\\me\\x"},
                                                                    {FileAccess::kDeny, "C:\\100%"},
                                                                    {FileAccess::kRead, "\\\\srv\\share\\a"},
                                                                    {FileAccess::kWrite, "D:"}}));
  EXPECT_EQ(policy.log_level, 15u);
}

TEST(PolicyFile, MistakesAreReportedWhereTheyStand) {
  const struct {
    const char* text;
    std::uint32_t line, column;
    const char* message;
  } mistakes[] = {
      {"[files\nx = 1", 1, 7, "expected ']'"},
      {"lag = 1", 1, 1, "unknown key \"lag\""},
      {"[files]\nopen = []", 2, 1, "known: deny, read, write, temp, enforce"},
      {"[files]\ntemp = 'mine'", 2, 8, "\"write\", \"private\" or \"rules\", not \"mine\""},
      {"files = 3", 1, 1, "write [files]"},
      {"[files]\ndeny = 'C:\\a'", 2, 8, "a list of strings"},
      {"[files]\ndeny = ['C:\\a', 5]", 2, 17, "must be a string"},
      {"[files]\ndeny = ['a\\b']", 2, 9, "not a full path"},
      {"[files]\ndeny = ['\\\\?\\C:\\a']", 2, 9, "not a full path"},
      {"[files]\ndeny = ['\\\\srv']", 2, 9, "names no share"},
      {"[files]\ndeny = ['C:\\a\\..\\b']", 2, 9, "contains \"..\""},
      {"[files]\ndeny = ['C:\\a\\*']", 2, 9, "wildcards are not needed"},
      {"[files]\ndeny = ['C:\\a:stream']", 2, 9, "a character that no path has"},
      {"[files]\ndeny = [\"C:\\\\u\\new\"]", 2, 9, "a character that no path has"},
      {"[files]\ndeny = ['%NOPE%\\a']", 2, 9, "%NOPE% is not set"},
      {"[files]\ndeny = ['C:\\50%']", 2, 9, "a % without a second one"},
      {"[files]\ndeny = ['C:\\a']\nwrite = ['c:\\A\\']", 3, 10, "another access in line 2"},
      {"[log]\nlevel = 'loud'", 2, 9, "unknown level"},
      {"[dump]\nenabled = 1", 2, 11, "must be true or false"},
      {"[dump]\ndirectory = 'dumps'", 2, 13, "not a full path"},
      {"[network]\ndefault = 'maybe'", 2, 11, "\"allow\" or \"deny\""},
      {"[network]\nallow = ['1.2.3.4/33']", 2, 10, "from 0 to 32"},
      {"[network]\nallow = ['::1']", 2, 10, "in brackets"},
      {"[network]\nallow = ['[::1']", 2, 10, "[ without a ]"},
      {"[network]\nallow = ['[::ffff:1.2.3.4]']", 2, 10, "write it as IPv4"},
      {"[network]\nallow = ['1.2.3.4:0']", 2, 10, "bad port"},
      {"[network]\nallow = ['a.test:9-2']", 2, 10, "bad port"},
      {"[network]\nallow = ['a..b']", 2, 10, "neither an address nor a name"},
      {"[network]\nallow = ['1.2.3']", 2, 10, "neither an address nor a name"},
      {"[network]\nallow = [\"1.2.3.4\\u0000\"]", 2, 10, "neither an address"},
      {"[network]\nallow = ['a.test/8']", 2, 10, "a prefix belongs to an address"},
      {"[network]\nallow = ['10.1.0.0/8']\ndeny = ['10.0.0.0/8']", 3, 9, "already allowed in line 2"},
  };
  for (const auto& mistake : mistakes) {
    const auto result = ParsePolicy(mistake.text, Lookup);
    ASSERT_TRUE(std::get_if<1>(&result)) << mistake.text;
    const PolicyError& error = std::get<1>(result).front();
    EXPECT_EQ(std::pair(error.place.line, error.place.column), std::pair(mistake.line, mistake.column))
        << mistake.text;
    EXPECT_NE(error.message.find(mistake.message), std::string::npos) << error.message;
  }
}

TEST(PolicyFile, ADumpDirectoryLeavesRoomForTheNamesOfDumps) {
  // A path has 259 characters, whatever they cost in UTF-8; "\00001f40-00002a10-0037c2e8.vrn.dmp" has 35.
  const std::string longest = "C:\\" + std::string(220, 'd') + "\u00e4";
  EXPECT_EQ(Good("[dump]\ndirectory = '" + longest + "'").dump_directory, longest);
  auto result = ParsePolicy("[dump]\ndirectory = '" + longest + "e'", Lookup);
  ASSERT_TRUE(std::get_if<1>(&result));
  const PolicyError& error = std::get<1>(result).front();
  EXPECT_EQ(std::pair(error.place.line, error.place.column), std::pair(2u, 13u));
  EXPECT_NE(error.message.find("has 225 characters"), std::string::npos) << error.message;
  EXPECT_TRUE(Good("").write_dumps);
  EXPECT_FALSE(Good("[dump]\nenabled = false").write_dumps);
}

TEST(PolicyFile, EveryMistakeIsReported) {
  auto result = ParsePolicy("[files]\ndeny = ['x', 'y']\nread = ['z']\n", Lookup);
  ASSERT_TRUE(std::get_if<1>(&result));
  EXPECT_EQ(std::get<1>(result).size(), 3u);
}

TEST(PolicyFile, DestinationsStandInTheOrderInWhichTheyAreTried) {
  PolicyDocument policy = Good(
      "[network]\ndefault = 'deny'\n"
      "allow = ['10.1.2.3', '*.example.com:443', 'example.com', '[2001:db8::]/33:80,8000-8002']\n"
      "deny = ['10.0.0.0/8', '*.bad.example.com', 'a.example.com:443']\n");
  std::vector<std::string> order;
  for (const PolicyNetRule& rule : policy.network) order.push_back((rule.allow ? "+" : "-") + rule.text);
  EXPECT_EQ(order, (std::vector<std::string>{"+[2001:db8::]/33:80,8000-8002", "+10.1.2.3", "-10.0.0.0/8",
                                             "-a.example.com:443", "+example.com", "-*.bad.example.com",
                                             "+*.example.com:443"}));
  EXPECT_EQ(policy.network[0].ports, (std::vector<std::uint16_t>{80, 8000, 8001, 8002}));
  EXPECT_EQ(policy.network[0].prefix, 33u);
  EXPECT_TRUE(policy.has_network);
  EXPECT_FALSE(policy.network_default_allow);
  EXPECT_FALSE(Good("").has_network);
}

}  // namespace
}  // namespace vorn::host
