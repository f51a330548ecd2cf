// The crash dump that belongs to a crash notice.
//
//   Event event = DecodeEvent(message, peer.pid);
//   AddCrashDump(event, section.contents().dump_directory);       // nothing to do for other events
//   std::puts(EventLine(event).c_str());                          // "… in app.exe+0x1a2b …, dump C:\…"
//
// The library writes the dump before it sends the notice, and the process waits for a second behind the
// notice. So the dump is complete when the notice arrives, or there is none. A handler of the message server
// may call this: of a dump of any size it reads some tables, which takes milliseconds. Any thread.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <variant>

#include "vorn/event.h"
#include "vorn/minidump.h"

namespace vorn::host {

struct CrashNoticeOrigin {
  std::uint32_t pid = 0;
  std::uint32_t thread_id = 0;  // that crashed
  // Milliseconds since 1970 UTC. Process ids are used again: a dump from before the start or from after the
  // notice is another process's. A start of 0 is not known; then a dump counts for ten minutes.
  std::uint64_t noticed_at_ms = 0;
  std::uint64_t started_at_ms = 0;
};

struct CrashDumpFile {
  std::wstring path;
  std::variant<Minidump, std::string> contents;  // or why they cannot be read (UTF-8)
};

// The newest dump of that process and thread; else the newest of that process that cannot be read, as one
// whose writing failed; else nothing.
std::optional<CrashDumpFile> FindCrashDump(const std::wstring& directory, const CrashNoticeOrigin& notice);

// Fills in what the dump says of a CrashEvent. Other events stay as they are, and without a directory (no
// dumps are written) every one. started_at_ms: as above, such as the time of the process's ProcessStartEvent.
void AddCrashDump(Event& event, const std::wstring& directory, std::uint64_t started_at_ms = 0);

// A dump as a file. The text says why it cannot be read (UTF-8).
std::variant<Minidump, std::string> ReadMinidumpFile(const std::wstring& path);

}  // namespace vorn::host
