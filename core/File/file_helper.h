// From any name of a file to its canonical NT path, and back to what people read.
//
//   ScratchLevel level(state);
//   std::wstring_view path;
//   const NTSTATUS status = GetPath(root_directory, object_name, &path);   // \Device\HarddiskVolume3\a\f.txt
//
// A canonical path is terminated and lies in scratch slot 0 of the current level. Names by drive letter or
// device need no system call; the heap is not touched. Statuses are what the caller of a file function would
// see, but for nt::kStatusNotConfined: a pipe, mailslot or network device.
#pragma once

#include <string_view>

#include "Platform/heap.h"
#include "windows/nt.h"

namespace VornCore {

// Builds the drive table and notes the temp directory. Once, before any file call is intercepted.
bool InitFileHelper() noexcept;

// RootDirectory and ObjectName of a file call; either may be null. Reads the caller's name, which may fault.
[[nodiscard]] NTSTATUS GetPath(HANDLE root, const UNICODE_STRING* name, std::wstring_view* path) noexcept;

// The path of a file that a call names by id (FILE_OPEN_BY_FILE_ID, a 64-bit id below a root directory).
[[nodiscard]] NTSTATUS ResolveFileIdPath(const OBJECT_ATTRIBUTES* attributes,
                                         std::wstring_view* path) noexcept;

// The object name of a handle: an OBJECT_NAME_INFORMATION in buffer. *bytes: its room, then what it takes.
[[nodiscard]] NTSTATUS GetObjectName(HANDLE handle, void* buffer, ULONG* bytes) noexcept;

// Replaces 8.3 components by the long names that the directory answers. The result is in slot 0; path itself
// when nothing changed. Uses the slots 0 and 1.
std::wstring_view ExpandShortNames(std::wstring_view path) noexcept;

// In place: to drive-letter or \\server\share form, which is never longer. False, and path unchanged, when no
// drive matches.
bool NtPathToDosPath(wchar_t* path) noexcept;

// A drive-letter or \\server\share path as NT path; null when it is neither or the drive is unknown.
platform::HeapString DosPathToNtPath(const wchar_t* path) noexcept;

// The temp directory of this process as canonical path; empty when it is unknown.
std::wstring_view TempDirectory() noexcept;
// Whether path is the temp directory or below it.
bool IsTempPath(std::wstring_view path) noexcept;

// Whether the attributes of path can be queried.
bool FileExists(std::wstring_view path) noexcept;

// Deletes the file or empty folder at path, a link itself, whatever its attributes. Past the library's own
// handlers.
void RemoveFile(std::wstring_view path) noexcept;

// Whether path, or the directory that it would be created in, exists on a file system.
bool IsFileSystemPath(std::wstring_view path) noexcept;

}  // namespace VornCore
