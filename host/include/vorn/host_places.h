// Places about which the host has rules of its own, whatever the policy says: those that it opens to every
// confined program, taken from its own environment (what a program does to its variables changes none of
// them), and those of its own files, which no confined program may change.
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
  // Opens nothing (access is kRead): what the policy's rules open at or below the place is for reading alone.
  bool protects = false;
};

// The temp folder as the policy wants it, and the recycle bins of the fixed drives. private_temp: the run's
// own temp folder; empty where there is no run. A temp folder that holds the user's profile, the system's
// folder or a whole drive is not opened.
std::vector<HostRule> FreePlaces(TempFolder temp, const std::wstring& private_temp = {});

// What vorn itself runs from and writes. own_folder: that of its program and libraries. events_file: empty
// where there is none. Paths in drive-letter or UNC form.
std::vector<HostRule> OwnPlaces(const PolicyDocument& document, const std::wstring& own_folder,
                                const std::wstring& policy_file, const std::wstring& events_file);

}  // namespace vorn::host
