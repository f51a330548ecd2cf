// What this process may do with a path, and what it was allowed on each open handle.
//
// The model gathers the facts about a file (where links lead, which other names it has) and asks the decision
// kernel. Rules are read from the section on every lookup. Any thread.
#pragma once

#include <string_view>

#include "File/handle_records.h"
#include "Policy/file_decision.h"

namespace VornCore {

using vorn::policy::FileDecision;

class FileACLModel {
 public:
  bool Init() noexcept;  // logs the rules; always true
  void UnInit() noexcept {}

  // Uses a scratch level of its own and may open files, past the library's own handlers.
  FileDecision DecideFileACL(std::wstring_view path) const noexcept;

  // The same, and where the path leads; path is in no scratch slot of the current level.
  struct Question {
    bool itself = false;  // a link at the end of the path is the file
    bool names = true;    // the file's other names matter
  };
  struct Place {
    std::wstring_view path;  // in scratch slot 0, or the path itself
    bool exists = false;     // otherwise its folder alone is known
  };
  FileDecision DecideFinal(std::wstring_view path, Question question, Place* place) const noexcept;
  // What the rules say about a path, wherever it leads.
  FileDecision DecideByName(std::wstring_view path) const noexcept;
  // About an open file, under all its names: path is its final one. What cannot be known counts as least.
  FileDecision DecideOpened(HANDLE file, std::wstring_view path) const noexcept;

  // The rule of exactly the first units of path; false when there is none.
  bool CheckConfigPermission(std::wstring_view path, FileACL* access, std::size_t units) const noexcept;
  // The most specific rule that covers path; kRead without one.
  FileACL CheckFileACL(std::wstring_view path) const noexcept;
  // The weakest access among all names of the file at path, access itself included.
  FileACL CheckFileACLAdapterHardLinks(std::wstring_view path, FileACL access) const noexcept;

  HandleRecords& handles() noexcept { return handles_; }

 private:
  void PrintACLFilesLog() const noexcept;

  HandleRecords handles_;
};

}  // namespace VornCore
