// Runs a program confined on its network and keeps what it printed and what the host was told.
#pragma once

#include "tests/sockets.h"  // before <windows.h>

#include "tests/e2e/confinement.h"
#include "tests/net_rules.h"

namespace vorn::test {

struct NetRun {
  std::vector<std::string> lines;
  std::vector<policy::NetAudit> audits;  // texts point into messages
  std::vector<Received> messages;
};

class NetTest : public testing::Test {
 protected:
  static void SetUpTestSuite() {
    WSADATA data;
    ASSERT_EQ(WSAStartup(MAKEWORD(2, 2), &data), 0);
  }
};

// A program, with its standard output kept. Without rules, nothing of the network is confined.
inline NetRun RunProgram(const std::wstring& command_line, const std::vector<host::NetRule>& rules,
                         std::uint32_t options = 0) {
  const TestFolder folder;
  const std::filesystem::path output = folder.path() / "output.txt";
  E2eConfinement confinement([&](host::SectionContents& section) {
    section.net_rules = rules;
    section.options |= options;
  });
  NetRun run;
  EXPECT_EQ(confinement.RunInto(output, command_line), 0);
  run.messages = confinement.Settle();
  run.lines = ReadLines(output);
  for (const Received& message : run.messages)
    if (const auto* audit = message.As<policy::NetAudit>()) run.audits.push_back(*audit);
  return run;
}

// The commands of net_probe.cpp, in one process.
inline NetRun RunProbe(const std::vector<std::string>& commands, const std::vector<host::NetRule>& rules,
                       std::uint32_t options = 0) {
  std::string arguments;
  for (const std::string& command : commands) arguments += (arguments.empty() ? "" : " / ") + command;
  return RunProgram(Probe("net_probe.exe", host::ToWide(arguments)), rules, options);
}

}  // namespace vorn::test
