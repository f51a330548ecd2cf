// What this process may do with a path, and what it was allowed on each open handle.
//
// A decision combines the host's rules with what the file system says: where links lead, whether the place is
// the recycle bin or the temp directory, and which other names the file has. Rules are read from the section
// on every lookup. Any thread.
#pragma once

#include <string_view>

#include "File/handle_records.h"
#include "Policy/file_rules.h"

namespace VornCore {

struct FileDecision {
  FileACL access = FileACL::kRead;
  FileACL own_access = FileACL::kRead;  // of the path itself, before the file's other names lowered it
  bool in_recycle_bin = false;
};

class FileACLModel {
 public:
  bool Init() noexcept;  // logs the rules; always true
  void UnInit() noexcept {}

  // Uses a scratch level of its own and may open files, past the library's own handlers.
  FileDecision DecideFileACL(std::wstring_view path) const noexcept;

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
