// Which drive letter stands for which NT device path.
//
//   table[0] ──► 'A'   null: no such drive
//   table[2] ──► {L'C', 23, L"\Device\HarddiskVolume3"}
//   table[25] ─► {L'Z', …, L"\Device\Mup\;LanmanRedirector\;Z:0000000000012345\server\share"}
//
// The table is built once, before any file call is intercepted, and never changes: records live as long as
// the process, and lookups take no lock. A drive that is added later is unknown.
#pragma once

#include <string_view>

namespace VornCore {

struct DriveRecord {
  wchar_t letter;                 // upper case
  std::wstring_view device_path;  // terminated, every link resolved
};

void BuildDriveTable() noexcept;

// Null for a letter without a record and for anything that is no letter.
const DriveRecord* GetDriveForLetter(wchar_t letter) noexcept;

// The first drive, in letter order, that path lies on or is.
const DriveRecord* FindDriveByDevicePrefix(std::wstring_view path) noexcept;

// The same for network drives: path spells the share without the connection of the drive. *end is the index
// just after the share in path.
const DriveRecord* FindNetworkDriveByPath(std::wstring_view path, std::size_t* end) noexcept;

}  // namespace VornCore
