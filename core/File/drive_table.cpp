#include "File/drive_table.h"

#include <cstdlib>
#include <new>

#include "File/object_link.h"
#include "File/scratch_path.h"
#include "Platform/native.h"
#include "Policy/device_path.h"
#include "Policy/text.h"
#include "Policy/wide.h"

namespace VornCore {
namespace {

using vorn::policy::FoldCase;
using vorn::policy::StartsWithNoCase;
using vorn::policy::U16;

constexpr int kLetters = 26;
const DriveRecord* drive_table[kLetters];

const DriveRecord* MakeRecord(wchar_t letter, std::wstring_view device_path) {
  void* block = malloc(sizeof(DriveRecord) + (device_path.size() + 1) * sizeof(wchar_t));
  if (!block) return nullptr;
  wchar_t* text = reinterpret_cast<wchar_t*>(static_cast<char*>(block) + sizeof(DriveRecord));
  return new (block) DriveRecord{letter, TerminatedCopy(text, device_path)};
}

}  // namespace

void BuildDriveTable() noexcept {
  ThreadState* state = GetThreadState();
  if (!state) return;
  ScratchLevel level(state);
  DWORD letters = platform::Native().GetLogicalDrives();
  if (letters == 0) letters = ~DWORD{0};  // no answer: a drive that is not known would not be confined
  wchar_t link_name[] = L"\\??\\A:";
  for (int i = 0; i < kLetters; ++i) {
    const wchar_t letter = static_cast<wchar_t>(L'A' + i);
    link_name[4] = letter;
    if (drive_table[i] || !(letters & (1u << i))) continue;  // records live for ever: somebody may read one
    const auto target = TranslateSymlinksToTargetPath(link_name);
    if (target && target->translated) drive_table[i] = MakeRecord(letter, target->path);
  }
}

const DriveRecord* GetDriveForLetter(wchar_t letter) noexcept {
  const int index = FoldCase(static_cast<char16_t>(letter)) - u'a';
  return index >= 0 && index < kLetters ? drive_table[index] : nullptr;
}

const DriveRecord* FindDriveByDevicePrefix(std::wstring_view path) noexcept {
  for (const DriveRecord* drive : drive_table) {
    if (!drive || !StartsWithNoCase(U16(path), U16(drive->device_path))) continue;
    const std::size_t end = drive->device_path.size();
    if (path.size() == end || path[end] == L'\\') return drive;
  }
  return nullptr;
}

const DriveRecord* FindNetworkDriveByPath(std::wstring_view path, std::size_t* end) noexcept {
  for (const DriveRecord* drive : drive_table) {
    if (!drive) continue;
    *end = vorn::policy::MatchNetworkDrive(U16(path), U16(drive->device_path));
    if (*end != vorn::policy::kNotFound) return drive;
  }
  return nullptr;
}

}  // namespace VornCore
