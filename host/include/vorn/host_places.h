// Places that the host opens to every confined program by rules of its own, taken from its own environment:
// what a program does to its variables changes none of them.
#pragma once

#include <string>
#include <vector>

#include "vorn/policy_file.h"

namespace vorn::host {

// A file rule that no policy file holds.
struct HostRule {
  FileAccess access;
  std::wstring path;            // drive-letter or UNC form
  std::string what;             // why it is there, for people: "temp folder"
  bool yields_to_deny = false;  // left out where the policy denies a folder that holds it
};

// The temp folder as the policy wants it, and the recycle bins of the fixed drives. private_temp: the run's
// own temp folder; empty where there is no run. A temp folder that holds the user's profile, the system's
// folder or a whole drive is not opened.
std::vector<HostRule> FreePlaces(TempFolder temp, const std::wstring& private_temp = {});

}  // namespace vorn::host
