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
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <string_view>
#include <variant>

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
[[nodiscard]] constexpr const char* AuditTypeName(std::uint32_t type) noexcept {
  switch (static_cast<AuditType>(type)) {
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
[[nodiscard]] constexpr const char* AuditTypeName(AuditType type) noexcept {
  return AuditTypeName(static_cast<std::uint32_t>(type));
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

// Once per confined process.
struct ProcessStart {
  std::uint32_t parent_pid = 0;
  std::string_view image_name = {};  // base name; always sent, also when empty
  std::string_view command_line = {};
};

enum class ProcessEventKind : std::uint32_t { kInjected = 0, kInjectionFailed = 2, kExitedImmediately = 3 };

// What became of a child process.
struct ProcessEvent {
  std::uint32_t reporter_pid = 0;  // the parent
  std::uint32_t kind = 0;          // ProcessEventKind
  std::uint32_t child_pid = 0;
  std::uint32_t code = 0;  // 0, the Win32 error, or the exit code, by kind
  std::string_view image_name = {};
};

struct CrashNotice {
  std::uint32_t exception_code = 0;
  std::uint32_t hook_depth = 0;  // of the crashing thread
  std::uint32_t thread_id = 0;
};

struct FileAudit {
  std::uint32_t type = 0;                // AuditType
  std::uint32_t error = 0;               // Win32
  std::uint32_t source_access = 0;       // FileACL
  std::uint32_t destination_access = 0;  // FileACL; 0 without destination
  std::string_view source = {};          // drive-letter, UNC or NT path
  std::string_view destination = {};
};

struct NetAudit {
  std::uint32_t type = 0;      // AuditType
  std::uint32_t error = 0;     // Win32
  std::uint32_t verdict = 0;   // kVerdictDeny, kVerdictAllow
  std::uint32_t protocol = 0;  // 6 TCP, 17 UDP
  std::uint32_t destination_port = 0;
  std::uint32_t source_port = 0;      // 0 when unknown
  std::string_view destination = {};  // numeric address; always sent, also when empty
  std::string_view source = {};       // numeric address; always sent, also when empty
  std::string_view domain = {};
};

// A timing or counter sample; the subtype says what the values mean.
struct Sample {
  std::uint16_t subtype = 0;  // kSubtypeSample…
  std::uint64_t first = 0;
  std::uint64_t second = 0;
  std::uint32_t third = 0;
  std::string_view text = {};
};

// The size of the encoded message in bytes.
[[nodiscard]] std::size_t EncodedSize(const ProcessStart& message) noexcept;
[[nodiscard]] std::size_t EncodedSize(const ProcessEvent& message) noexcept;
[[nodiscard]] std::size_t EncodedSize(const CrashNotice& message) noexcept;
[[nodiscard]] std::size_t EncodedSize(const FileAudit& message) noexcept;
[[nodiscard]] std::size_t EncodedSize(const NetAudit& message) noexcept;
[[nodiscard]] std::size_t EncodedSize(const Sample& message) noexcept;

// Writes the whole message, header and spare bytes included, and returns its size; 0, with nothing written,
// when `out` is smaller than EncodedSize or the message would not fit its 32-bit lengths.
[[nodiscard]] std::size_t Encode(const ProcessStart& message, MessageOrigin origin,
                                 std::span<std::byte> out) noexcept;
[[nodiscard]] std::size_t Encode(const ProcessEvent& message, MessageOrigin origin,
                                 std::span<std::byte> out) noexcept;
[[nodiscard]] std::size_t Encode(const CrashNotice& message, MessageOrigin origin,
                                 std::span<std::byte> out) noexcept;
[[nodiscard]] std::size_t Encode(const FileAudit& message, MessageOrigin origin,
                                 std::span<std::byte> out) noexcept;
[[nodiscard]] std::size_t Encode(const NetAudit& message, MessageOrigin origin,
                                 std::span<std::byte> out) noexcept;
[[nodiscard]] std::size_t Encode(const Sample& message, MessageOrigin origin,
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
