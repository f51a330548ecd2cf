// The commands of vorn.exe. Each returns the process's exit code.
#pragma once

#include <string>
#include <variant>
#include <vector>

#include "vorn/compiled_policy.h"

namespace vorn::cli {

// Exit codes of vorn itself; `run` otherwise returns the program's.
inline constexpr int kExitOk = 0;
// check: mistakes found; restore: something was left in the bin; dump: the file cannot be read.
inline constexpr int kExitMistake = 1;
inline constexpr int kExitCannotRun = 125;  // policy, section or confinement failed
inline constexpr int kExitNotFound = 127;   // the program was not found

struct RunArguments {
  std::string policy_file;
  std::string events_file;            // empty: none
  bool quiet = false;                 // summary and failures only
  std::wstring program_command_line;  // as typed behind "--"
};

int Run(const RunArguments& arguments);
int Check(const std::string& policy_file);
int Explain(const std::string& policy_file, const std::vector<std::string>& questions);
// Without a run: lists the runs that have a journal. paths: only these (empty: all).
int Restore(const std::string& run, bool list, const std::vector<std::string>& paths);

// Shows what a crash dump says.
int Dump(const std::string& file);

// What a run has of its own, besides what its policy names.
struct RunPlaces {
  std::wstring private_temp = {};  // its temp folder, where the policy wants one
  std::string events_file = {};    // empty: none
};

// Reads, parses and compiles a policy; on failure prints every mistake and returns nothing.
std::optional<host::CompiledPolicy> LoadPolicy(const std::string& file, const RunPlaces& run = {});

// What of the policy is switched off: "files are", "the network is", "files and the network are"; empty for
// nothing.
std::string NotConfined(const host::PolicyDocument& document);

// Where vorn.exe and its libraries are.
std::wstring OwnFolder();

// Writes a line of UTF-8 to standard output or standard error.
void PrintLine(const std::string& text);
void PrintErrorLine(const std::string& text);

}  // namespace vorn::cli
