// What confined processes report: every message of the library as one typed event, one readable line and one
// JSON object.
//
//   const vorn::host::Event event = vorn::host::DecodeEvent(message, peer.pid);
//   if (auto* file = std::get_if<FileEvent>(&event.body)) ...
//   std::puts(EventLine(event, Win32ErrorText).c_str());
//   jsonl << EventJson(event) << '\n';
//
// Pure functions. Texts are UTF-8 as the process sent them: a process chooses its own file names and command
// lines, so lines show control characters as \xNN, and JSON replaces what is not UTF-8.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <string_view>
#include <variant>

#include "Policy/message.h"

namespace vorn::host {

// The messages with texts of their own; the members and their units stand at the messages. A value that an
// enumeration does not have is kept, and shown as "unknown".
using ProcessStartEvent = policy::ProcessStartOf<std::string>;
using ChildEvent = policy::ProcessEventOf<std::string>;
using FileEvent = policy::FileAuditOf<std::string>;
using NetEvent = policy::NetAuditOf<std::string>;
using SampleEvent = policy::SampleOf<std::string>;  // throttled

struct CrashEvent : policy::CrashNotice {
  // What its dump says, once AddCrashDump (crash_dump.h) has looked for it.
  std::string dump = {};          // full path; empty: there is none
  std::string dump_problem = {};  // why there is none, or why it cannot be read
  std::uint64_t address = 0;
  std::string module = {};   // base name of the one that holds the address; empty: none does
  std::uint64_t offset = 0;  // of the address in the module
  std::string fault = {};    // of an access violation: "reading 0x10"; else empty
};

// Bytes that are no message of the library.
struct MalformedEvent {
  std::string reason;
  std::size_t offset = 0;  // of the field that is wrong
  std::size_t size = 0;    // bytes of the message
};

using EventBody =
    std::variant<MalformedEvent, ProcessStartEvent, ChildEvent, CrashEvent, FileEvent, NetEvent, SampleEvent>;

struct Event {
  std::uint64_t time_ms = 0;     // since 1970-01-01 UTC, by the sender's clock; 0 in a malformed message
  std::uint32_t pid = 0;         // of the sender, as the system knows it
  std::uint32_t stated_pid = 0;  // of the sender, as the message says; the same unless the process lies
  EventBody body;
};

// message: as MessageServer delivers it. pid: of the peer that sent it.
Event DecodeEvent(std::span<const std::byte> message, std::uint32_t pid);

// Whether the event tells of something that was refused, or of a process that is not confined.
bool IsRefusal(const Event& event);

using ErrorTextFunction = std::string (*)(std::uint32_t error);

// One line without line end, for people:
//   "[4711] refused create C:\a.txt (deny): The system cannot ..."
// error_text gives the sentence of a Win32 error; null: "error N".
std::string EventLine(const Event& event, ErrorTextFunction error_text = nullptr);

// One JSON object without line end. "event" is "process-start", "child", "crash", "file", "net", "sample" or
// "malformed"; "time" is ISO 8601 in UTC with milliseconds; "rule" is the given text, unless it is empty.
std::string EventJson(const Event& event, const std::string& rule = {});

// "2026-01-31T23:59:59.123Z"
std::string IsoTime(std::uint64_t time_ms);

// Control characters as \xNN, so that a text can be printed to a terminal.
std::string Printable(std::string_view text);

}  // namespace vorn::host
