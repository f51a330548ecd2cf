// Messages between the library and the host: layout, encoding, decoding.
//
// A message is a packed TIPHeader followed by a payload whose layout depends on type and subtype. Integers
// are little-endian, texts are UTF-8 with a terminator. A message is 30 + payload length bytes long; the one
// or two bytes behind its last field are zero.
//
//   const FileAudit audit{.type = …, .source = …};
//   buffer = allocate(EncodedSize(audit));
//   Encode(audit, origin, buffer);
//   …
//   const Decoded decoded = DecodeMessage(bytes);
//   if (decoded.error.reason != DecodeReason::kNone) …;
//   if (const auto* audit = std::get_if<FileAudit>(&decoded.body)) …
//
// Texts are views: into the caller's texts when encoding, into the message when decoding. In the views the
// terminator is not counted. An empty text is an absent text, but where a comment says otherwise.
//
// Layout of a payload: the numbers; for an audit, length and position of each text; when the kind has texts,
// the length of all of them, the texts, and a zero byte. The payload of an extended audit begins with its
// extension:
//
//   u32 size of what follows in the extension | rule | fact | whatever later versions append
//   the payload of the plain audit
//
// So a host skips what it does not know, and gives what an older sender does not know its initial value.
//
// A new field is a member and a line in the message's list; message_fields.h says what a list is made of.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <string_view>
#include <variant>

#include "Policy/deciding_fact.h"
#include "Policy/file_rules.h"
#include "Policy/message_fields.h"
#include "Policy/section_format.h"

namespace vorn::policy {

inline constexpr std::uint64_t kTipMagic = 0x20251212C0DEDEAD;

struct [[gnu::packed]] TIPHeader {
  std::uint64_t magic;
  std::uint64_t time_ms;  // since 1970-01-01 UTC
  std::uint16_t type;     // TipMsgType
  std::uint16_t subtype;
  std::uint8_t flag;
  std::uint32_t pid;  // of the sender
  std::uint32_t payload_length;
};
static_assert(sizeof(TIPHeader) == 29);
static_assert(offsetof(TIPHeader, flag) == 20 && offsetof(TIPHeader, payload_length) == 25);

// The size of a message is this and its payload length.
inline constexpr std::size_t kMessageOverhead = 30;
inline constexpr std::size_t kMinMessageSize = kMessageOverhead;

// The flag of every message that the library sends.
inline constexpr std::uint8_t kTipFlag = 1;

enum class TipMsgType : std::uint16_t { kProcess = 2, kAudit = 3, kSample = 4 };

inline constexpr std::uint16_t kSubtypeProcessEvent = 0;
inline constexpr std::uint16_t kSubtypeProcessStart = 1;
inline constexpr std::uint16_t kSubtypeCrashNotice = 2;
inline constexpr std::uint16_t kSubtypeFileAudit = 0;
inline constexpr std::uint16_t kSubtypeNetAudit = 2;
inline constexpr std::uint16_t kSubtypeFileDecision = 16;  // an extended file audit
inline constexpr std::uint16_t kSubtypeNetDecision = 17;   // an extended network audit
inline constexpr std::uint16_t kSubtypeSampleFileCreate = 0;
inline constexpr std::uint16_t kSubtypeSampleSocketCheck = 1;
inline constexpr std::uint16_t kSubtypeSampleRioActivity = 2;
inline constexpr std::uint16_t kSubtypeSampleDnsCache = 3;

// The kind of an audited operation.
enum class AuditType : std::uint32_t {
  kCreate = 1,
  kDelete = 2,
  kRead = 3,
  kWrite = 4,
  kRename = 5,
  kCopy = 6,
  kDeleteToRecycle = 7,
  kConnect = 8,
  kSend = 9,
  kRecv = 10,
};

// "create", "delete", …, or "unknown" for any other value.
[[nodiscard]] constexpr const char* AuditTypeName(AuditType type) noexcept {
  switch (type) {
    case AuditType::kCreate:
      return "create";
    case AuditType::kDelete:
      return "delete";
    case AuditType::kRead:
      return "read";
    case AuditType::kWrite:
      return "write";
    case AuditType::kRename:
      return "rename";
    case AuditType::kCopy:
      return "copy";
    case AuditType::kDeleteToRecycle:
      return "delete to recycle";
    case AuditType::kConnect:
      return "connect";
    case AuditType::kSend:
      return "send";
    case AuditType::kRecv:
      return "recv";
    default:
      return "unknown";
  }
}

// Who sends a message, and when.
struct MessageOrigin {
  std::uint64_t time_ms = 0;  // since 1970-01-01 UTC
  std::uint32_t pid = 0;
};

// The header of a message with this payload length.
[[nodiscard]] constexpr TIPHeader MakeTipHeader(TipMsgType type, std::uint16_t subtype,
                                                std::uint32_t payload_length, MessageOrigin origin,
                                                std::uint8_t flag = kTipFlag) noexcept {
  return {kTipMagic,  origin.time_ms, static_cast<std::uint16_t>(type), subtype, flag,
          origin.pid, payload_length};
}

// The messages. String is the type of their texts: views in the library, strings of its own in the host.
// Enumerations may have any value of their underlying type, as the sender chose it.

// Once per confined process.
template <class String>
struct ProcessStartOf {
  static constexpr TipMsgType kType = TipMsgType::kProcess;
  static constexpr std::uint16_t kSubtype = kSubtypeProcessStart;

  std::uint32_t parent_pid = 0;
  String image_name = {};    // base name; always sent, also when empty
  String command_line = {};  // cut to 511 UTF-16 units

  static constexpr auto Fields() {
    using M = ProcessStartOf;
    return std::tuple(Marker(std::uint8_t{1}, true), Number("parent_pid", &M::parent_pid),
                      Text("image", &M::image_name, EmptyText::kSent, Show::kAlways),
                      Text("command_line", &M::command_line, EmptyText::kAbsent, Show::kAlways));
  }
};
using ProcessStart = ProcessStartOf<std::string_view>;

enum class ProcessEventKind : std::uint32_t { kInjected = 0, kInjectionFailed = 2, kExitedImmediately = 3 };

// What became of a child process.
template <class String>
struct ProcessEventOf {
  static constexpr TipMsgType kType = TipMsgType::kProcess;
  static constexpr std::uint16_t kSubtype = kSubtypeProcessEvent;

  std::uint32_t reporter_pid = 0;  // the parent
  ProcessEventKind kind = {};
  std::uint32_t child_pid = 0;
  std::uint32_t code = 0;  // 0, the Win32 error, or the exit code, by kind
  String image_name = {};  // base name; empty when unknown

  static constexpr auto Fields() {
    using M = ProcessEventOf;
    return std::tuple(Number("reporter_pid", &M::reporter_pid, Show::kNever), Number("outcome", &M::kind),
                      Number("child_pid", &M::child_pid), Number("code", &M::code),
                      Text("image", &M::image_name, EmptyText::kAbsent, Show::kUnlessEmpty));
  }
};
using ProcessEvent = ProcessEventOf<std::string_view>;

struct CrashNotice {
  static constexpr TipMsgType kType = TipMsgType::kProcess;
  static constexpr std::uint16_t kSubtype = kSubtypeCrashNotice;

  std::uint32_t code = 0;        // of the exception
  std::uint32_t hook_depth = 0;  // of the crashing thread; not 0: inside one of the library's handlers
  std::uint32_t thread_id = 0;

  static constexpr auto Fields() {
    using M = CrashNotice;
    return std::tuple(Marker(std::uint64_t{0}, false), Number("exception_code", &M::code),
                      Number("hook_depth", &M::hook_depth), Number("thread_id", &M::thread_id));
  }
};

template <class String>
struct FileAuditOf {
  static constexpr TipMsgType kType = TipMsgType::kAudit;
  static constexpr std::uint16_t kSubtype = kSubtypeFileAudit;
  static constexpr std::uint16_t kExtendedSubtype = kSubtypeFileDecision;

  AuditType type = {};
  std::uint32_t error = 0;  // Win32; 0: it was done
  FileACL source_access = {};
  FileACL destination_access = {};  // 0 without destination
  String source = {};               // drive-letter, UNC or NT path
  String destination = {};          // of a rename; else empty
  bool extended = false;            // whether the message carries what follows
  std::uint32_t rule = kNoRule;     // index in the section's table of file rules
  DecidingFact fact = DecidingFact::kNone;

  static constexpr auto Fields() {
    using M = FileAuditOf;
    return std::tuple(Number("operation", &M::type), Number("error", &M::error),
                      Number("access", &M::source_access),
                      Text("path", &M::source, EmptyText::kAbsent, Show::kAlways),
                      Text("destination", &M::destination, EmptyText::kAbsent, Show::kUnlessEmpty),
                      Number("destination_access", &M::destination_access, Show::kWithTextBefore),
                      Extension("rule", &M::rule, Show::kNever), Extension("fact", &M::fact, Show::kNever));
  }
};
using FileAudit = FileAuditOf<std::string_view>;

enum class Protocol : std::uint32_t { kTcp = 6, kUdp = 17 };

template <class String>
struct NetAuditOf {
  static constexpr TipMsgType kType = TipMsgType::kAudit;
  static constexpr std::uint16_t kSubtype = kSubtypeNetAudit;
  static constexpr std::uint16_t kExtendedSubtype = kSubtypeNetDecision;

  AuditType type = {};
  std::uint32_t error = 0;  // Win32 or Winsock; 0: it was done
  Verdict verdict = {};
  Protocol protocol = {};
  std::uint32_t destination_port = 0;
  std::uint32_t source_port = 0;  // 0 when unknown
  String destination = {};        // numeric address; always sent, also when empty
  String source = {};             // numeric address; always sent, also when empty
  String domain = {};             // as the process resolved it; empty when unknown
  bool extended = false;          // whether the message carries what follows
  std::uint32_t rule = kNoRule;   // index in the section's table of network rules
  DecidingFact fact = DecidingFact::kNone;

  static constexpr auto Fields() {
    using M = NetAuditOf;
    return std::tuple(Number("operation", &M::type), Number("error", &M::error),
                      Number("verdict", &M::verdict), Number("protocol", &M::protocol),
                      Text("address", &M::destination, EmptyText::kSent, Show::kAlways),
                      Number("port", &M::destination_port),
                      Text("source_address", &M::source, EmptyText::kSent, Show::kUnlessEmpty),
                      Number("source_port", &M::source_port, Show::kWithTextBefore),
                      Text("domain", &M::domain, EmptyText::kAbsent, Show::kUnlessEmpty),
                      Extension("rule", &M::rule, Show::kNever), Extension("fact", &M::fact, Show::kNever));
  }
};
using NetAudit = NetAuditOf<std::string_view>;

// A timing or counter sample. What its values mean, by its subtype; the others are 0 and empty:
//   kSubtypeSampleFileCreate   microseconds spent on the path and on the decision, FileACL; path
//   kSubtypeSampleSocketCheck  second: microseconds spent on the decision; third: Verdict; text: host name
//   kSubtypeSampleRioActivity  first: registered-I/O sends of the socket so far
//   kSubtypeSampleDnsCache     first: 1, when the network room starts
template <class String>
struct SampleOf {
  static constexpr TipMsgType kType = TipMsgType::kSample;

  std::uint16_t subtype = 0;  // kSubtypeSample…
  std::uint64_t first = 0;
  std::uint64_t second = 0;
  std::uint32_t third = 0;
  String text = {};

  static constexpr auto Fields() {
    using M = SampleOf;
    return std::tuple(Number(nullptr, &M::first, Show::kNever), Number(nullptr, &M::second, Show::kNever),
                      Number(nullptr, &M::third, Show::kNever),
                      Text(nullptr, &M::text, EmptyText::kAbsent, Show::kNever));
  }
};
using Sample = SampleOf<std::string_view>;

// The size of the encoded message in bytes.
template <class Message>
[[nodiscard]] std::size_t EncodedSize(const Message& message) noexcept;

// Writes the whole message, header and spare bytes included, and returns its size; 0, with nothing written,
// when `out` is smaller than EncodedSize or the message would not fit its 32-bit lengths.
template <class Message>
[[nodiscard]] std::size_t Encode(const Message& message, MessageOrigin origin,
                                 std::span<std::byte> out) noexcept;

enum class DecodeReason {
  kNone,
  kTooShort,      // fewer than 30 bytes
  kBadMagic,      // not a message of ours
  kSizeMismatch,  // the size is not 30 + payload length
  kUnknownType,
  kUnknownSubtype,
  kPayloadTooShort,  // the payload ends inside its fixed fields
  kTextLength,       // the text lengths do not add up to the payload
  kTextPosition,     // a text is not where it belongs
  kTextNotTerminated,
  kBadField,  // a field has a value that the message kind does not have
};

// One sentence fragment for a log line, such as "a text is not terminated".
[[nodiscard]] const char* DecodeReasonText(DecodeReason reason) noexcept;

struct DecodeError {
  DecodeReason reason = DecodeReason::kNone;
  std::size_t offset = 0;  // of the field that is wrong, in bytes from the start of the message
};

using MessageBody =
    std::variant<std::monostate, ProcessStart, ProcessEvent, CrashNotice, FileAudit, NetAudit, Sample>;

struct Decoded {
  DecodeError error = {};
  TIPHeader header = {};  // filled as soon as the message is long enough to have one
  MessageBody body = {};  // monostate after an error

  [[nodiscard]] bool Ok() const noexcept { return error.reason == DecodeReason::kNone; }
};

// Size, magic and the size that the header states.
[[nodiscard]] DecodeError CheckMessageFrame(std::span<const std::byte> message) noexcept;

// `message` is exactly one message. The views of the body point into it.
[[nodiscard]] Decoded DecodeMessage(std::span<const std::byte> message) noexcept;

}  // namespace vorn::policy
