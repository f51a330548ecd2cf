// The whole question about a file: what a process may do with it, and why.
//
//   FileFacts facts{.path = final_path, .temp_directory = temp};
//   const FileDecision decision = DecideFile(section, facts);
//   if (decision.file.access == FileACL::kDeny) …    // decision.file.rule, decision.file.fact say why
//
// The facts come from whoever asks: the library takes them from the system while a call is made, a host from
// a path that a person names. Nobody else decides. Places come first (the recycle bin, the temp directory;
// not where the host wants them under rules), then the rules for the path, the file of a stream, and the
// file's other names. What a run has kept of deleted files is for reading alone.
//
// Pure: no system calls, no allocation, no state. Any thread.
#pragma once

#include <cstdint>
#include <string_view>

#include "Policy/deciding_fact.h"
#include "Policy/file_rules.h"

namespace vorn::policy {

// An access with its reason.
struct FileVerdict {
  FileACL access = FileACL::kUnknown;
  DecidingFact fact = DecidingFact::kNone;
  std::uint32_t rule = kNoRule;  // index in the section's table
};

// What the kernel asks of its caller while it decides, and what it tells it.
class FileContext {
 public:
  // Another name of the file (canonical, its own included), one at a time; false when there is no more. Asked
  // only where an answer can lower the access.
  virtual bool NextName(std::u16string_view*) noexcept { return false; }
  // The path of `rest` (a backslash and more, or nothing) on the drive with this letter; empty when there is
  // no such drive. Valid until the next call.
  virtual std::u16string_view PathOnDrive(char16_t, std::u16string_view) noexcept { return {}; }
  // A path was looked up in the rules.
  virtual void OnLookup(std::u16string_view, const FileRuleMatch&) noexcept {}
  // One of the names was looked up.
  virtual void OnName(std::u16string_view, FileACL) noexcept {}
};

struct FileFacts {
  // Canonical and free of links; of a file that does not exist, in the final form of its folder.
  std::u16string_view path = {};
  // Open to the process whatever the rules say, unless the section has kPlacesFromRules. May end with a
  // backslash, or be empty.
  std::u16string_view temp_directory = {};
  bool on_file_system = true;  // the path or its folder exists on a file system
};

struct FileDecision {
  FileVerdict file;             // of the file under all its names: what opening it may do
  FileVerdict named;            // of the path alone, before another name lowered it
  bool in_recycle_bin = false;  // and writable there
};

[[nodiscard]] FileDecision DecideFile(const SectionView& section, const FileFacts& facts,
                                      FileContext& context) noexcept;

// The weakest verdict among `start` and those of all names that context tells.
[[nodiscard]] FileVerdict WeakestName(const SectionView& section, FileVerdict start,
                                      FileContext& context) noexcept;

// Whether what stands at `path` must stay there, because a rule that is stricter than what a process may do
// with it lies at or below it: that rule with kRuleBelow, or kReadWrite when it may go. Where the section
// does not have kRulesHoldPlaces, everything may go. Of `path`, every folder is in its final form.
[[nodiscard]] FileVerdict HeldByRule(const SectionView& section, std::u16string_view path) noexcept;

// Where the name of a stream begins in the last component (its colon), or kNotFound.
[[nodiscard]] std::size_t FindStream(std::u16string_view path) noexcept;

}  // namespace vorn::policy
