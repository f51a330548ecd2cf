// Where a path really leads, and which other names the file there has.
//
//   FileLinkHelper links;
//   std::wstring_view target = links.GetFileSymbolicLink(path);   // follows links, junctions, mount points
//   if (links.LinkCount() > 1) …                                  // of the file that was just opened
//   links.Close();
//
// A helper lives for one decision, on one thread. It opens a file at most once and keeps it open between the
// two questions; Close must run, also when a fault passes (the destructor does not run then).
#pragma once

#include <string_view>

#include "Platform/heap.h"
#include "VornCore/Base/list.h"
#include "VornCore/Hook/own_handle.h"

namespace VornCore {

// One of the names of a file: a canonical NT path.
struct LinkNode : ListNode {
  platform::HeapString path;
};

class FileLinkHelper {
 public:
  FileLinkHelper() = default;
  ~FileLinkHelper();
  FileLinkHelper(const FileLinkHelper&) = delete;
  FileLinkHelper& operator=(const FileLinkHelper&) = delete;

  // The final, link-free NT path of path; for a stream that does not exist, that of its file with the stream;
  // for a file that does not exist, that of its directory with the last component. Empty when none of them
  // can be resolved. Terminated, in scratch slot 0 of the current level. itself: a link at the end of path is
  // the file, not where it leads.
  std::wstring_view GetFileSymbolicLink(std::wstring_view path, bool itself = false) noexcept;

  // Hard links of that file; 1 when they cannot be counted or it does not exist.
  std::uint32_t LinkCount() noexcept;
  // Whether that file exists: it is open.
  bool IsOpen() const noexcept { return static_cast<bool>(file_); }
  // Closes that file.
  void Close() noexcept;

  // All names of a file with two or more links, its own included: the number of them, 0 when the file has one
  // link or they cannot be listed. path: drive-letter form. The list is this object's. In a plain section the
  // file is opened for reading, and has no names where it cannot be.
  int GetFileHardLinks(const wchar_t* path, const ListHead** names) noexcept;
  // The same without opening the file for its data, however many links it has.
  int ListNames(const wchar_t* path, const ListHead** names) noexcept;

 private:
  std::wstring_view ResolveFinalPath(std::wstring_view path, bool keep_open, ULONG options = 0) noexcept;
  int FindOnDrive(const wchar_t* path) noexcept;
  int FindHardLinks(const wchar_t* path, std::wstring_view volume) noexcept;
  bool AppendLink(const wchar_t* path, std::wstring_view volume, std::wstring_view name) noexcept;

  OwnHandle file_;
  ListHead names_;
};

// The final, link-free NT path of an open file, terminated, in scratch slot 0 of the current level. Empty
// when it cannot be told.
std::wstring_view FinalPathOf(HANDLE file) noexcept;

// Whether that, as the system told it, is really the path of file.
bool IsPathOf(HANDLE file, std::wstring_view final_path) noexcept;

// Hard links of an open file; of a folder 1. 0 when they cannot be counted.
std::uint32_t LinkCountOf(HANDLE file) noexcept;

// \device\mup\server\share\f on a WebDAV share as \device\mup\server\davwwwroot\share\f, in place (room is
// the capacity in units without terminator). Unchanged when it is no such path or names the root already.
std::wstring_view InsertDavRoot(std::wstring_view path, wchar_t* buffer, std::size_t room) noexcept;

}  // namespace VornCore
