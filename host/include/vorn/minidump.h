// Minidumps: what a crash dump says about the crash. Little-endian, an u32 offset ("rva") counts from the
// start of the file:
//
//    0  "MDMP"   4  u32 version (low 16 bits 0xA793)   8  u32 streams   12  u32 rva of their directory
//   20  u32 time (seconds since 1970 UTC)   24  u64 flags
//   directory: per stream u32 type, u32 size, u32 rva
//
//   auto parsed = vorn::host::ParseMinidump(bytes);
//   if (auto* dump = std::get_if<Minidump>(&parsed); dump && dump->exception)
//     std::puts(PlaceText(*dump, dump->exception->address).c_str());    // "app.exe+0x1a2b"
//
// A dump is written by the process that crashed, so nothing in it is trusted: every offset and count is
// checked before it is used. Pure; any thread.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

#include "Policy/crash_dump.h"

namespace vorn::host {

struct MinidumpException {
  std::uint32_t thread_id = 0;
  std::uint32_t code = 0;
  std::uint32_t flags = 0;  // 1: cannot be continued
  std::uint64_t address = 0;
  std::vector<std::uint64_t> parameters;  // at most 15
};

struct MinidumpModule {
  std::uint64_t base = 0;
  std::uint32_t size = 0;  // bytes
  std::string path;        // UTF-8; what is not valid UTF-16 became U+FFFD
};

// Of streams that the dump does not have, the fields are empty. Addresses of a 32-bit process have 32 bits.
struct Minidump {
  std::uint32_t time = 0;  // when it was written: seconds since 1970 UTC
  std::optional<MinidumpException> exception;
  std::vector<std::uint32_t> thread_ids;
  std::vector<MinidumpModule> modules;
  std::size_t memory_ranges = 0;
  std::uint64_t memory_bytes = 0;
  std::optional<policy::DumpUserStream> crash;  // only in dumps of the library
};

struct MinidumpError {
  std::string reason;
  std::uint64_t offset = 0;  // of the field that is wrong
};

// Fills out with the bytes from offset on. False: they cannot be read. Asked only for bytes within the size.
using ReadBytes = std::function<bool(std::uint64_t offset, std::span<std::byte> out)>;

// size: of the whole file in bytes. Reads the tables and names only, not the memory that the dump holds, but
// checks that the file has all of it. Throws what read throws.
std::variant<Minidump, MinidumpError> ParseMinidump(std::uint64_t size, const ReadBytes& read);
std::variant<Minidump, MinidumpError> ParseMinidump(std::span<const std::byte> bytes);

// The module that holds the address, or null.
const MinidumpModule* ModuleAt(const Minidump& dump, std::uint64_t address);

// The last component of a module's path.
std::string ModuleName(const MinidumpModule& module);

// "app.exe+0x1a2b", or "0x10 (in no module)".
std::string PlaceText(const Minidump& dump, std::uint64_t address);

// What an access violation or a failed page-in was about: "reading 0x10", "writing 0x10", "executing 0x0".
// Empty for every other exception.
std::string FaultText(const MinidumpException& exception);

// The common name of an exception code: "access violation"; empty when it has none.
std::string_view ExceptionName(std::uint32_t code);

// "exception 0xc0000005 (access violation reading 0x10)", with what is known of name and fault.
std::string ExceptionText(std::uint32_t code, std::string_view fault);

}  // namespace vorn::host
