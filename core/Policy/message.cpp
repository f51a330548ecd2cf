#include "Policy/message.h"

#include <cstring>
#include <limits>

namespace vorn::policy {
namespace {

// Bytes of the payload besides the texts; the spare bytes are among them.
constexpr std::size_t kProcessStartPayload = 10;
constexpr std::size_t kProcessEventPayload = 21;
constexpr std::size_t kCrashNoticePayload = 20;
constexpr std::size_t kFileAuditPayload = 37;
constexpr std::size_t kNetAuditPayload = 53;
constexpr std::size_t kSamplePayload = 25;

// The first field of a process start.
constexpr std::uint8_t kIsStart = 1;

// Bytes of a text in a message: none when it is absent, otherwise its terminator counts.
std::size_t Bytes(std::string_view text) noexcept { return text.empty() ? 0 : text.size() + 1; }
std::size_t BytesEvenIfEmpty(std::string_view text) noexcept { return text.size() + 1; }

// Writes fields one behind the other.
class Writer {
 public:
  // Starts a message with its header, all other bytes zero.
  Writer(std::span<std::byte> message, TipMsgType type, std::uint16_t subtype, MessageOrigin origin) noexcept
      : at_(message.data()) {
    std::memset(message.data(), 0, message.size());
    Put(MakeTipHeader(type, subtype, static_cast<std::uint32_t>(message.size() - kMessageOverhead), origin));
  }

  template <typename T>
  void Put(const T& value) noexcept {
    std::memcpy(at_, &value, sizeof value);
    at_ += sizeof value;
  }
  void PutLength(std::size_t value) noexcept { Put(static_cast<std::uint32_t>(value)); }
  // The text and, when `bytes` has room for it, its terminator.
  void PutText(std::string_view text, std::size_t bytes) noexcept {
    if (!text.empty()) std::memcpy(at_, text.data(), text.size());
    at_ += bytes;
  }

 private:
  std::byte* at_;
};

bool Fits(std::size_t size, std::span<std::byte> out) noexcept {
  return size <= out.size() && size <= std::numeric_limits<std::uint32_t>::max();
}

// Reads fields one behind the other, and the texts at the end. The first failure stays and everything after
// it reads as 0 or empty.
class Reader {
 public:
  Reader(std::span<const std::byte> message, std::size_t fixed_payload) noexcept : message_(message) {
    if (message.size() < kMessageOverhead + fixed_payload) {
      Fail(DecodeReason::kPayloadTooShort, offsetof(TIPHeader, payload_length));
    } else {
      text_area_ = message.size() - kMessageOverhead - fixed_payload;
    }
  }

  template <typename T>
  T Get() noexcept {
    T value = {};
    if (Failed()) return value;
    std::memcpy(&value, message_.data() + at_, sizeof value);
    at_ += sizeof value;
    return value;
  }
  std::uint32_t U32() noexcept { return Get<std::uint32_t>(); }

  // A field that can have one value only.
  template <typename T>
  void Expect(T expected, DecodeReason reason) noexcept {
    const std::size_t field = at_;
    if (Get<T>() != expected) Fail(reason, field);
  }
  // The length of the whole text area.
  void ExpectTextArea() noexcept {
    const std::size_t field = at_;
    if (U32() != text_area_) Fail(DecodeReason::kTextLength, field);
  }
  // The length of one text of several; together they must fit the text area.
  std::uint32_t TextLength() noexcept {
    const std::size_t field = at_;
    const std::uint32_t length = U32();
    text_sum_ += length;
    if (text_sum_ > text_area_) Fail(DecodeReason::kTextLength, field);
    return length;
  }

  // The next `bytes` bytes, the last of which is the terminator; 0 bytes are an absent text.
  std::string_view Text(std::size_t bytes) noexcept {
    if (Failed() || bytes == 0) return {};
    const char* text = reinterpret_cast<const char*>(message_.data() + at_);
    if (text[bytes - 1] != 0) {
      Fail(DecodeReason::kTextNotTerminated, at_ + bytes - 1);
      return {};
    }
    at_ += bytes;
    text_area_ -= bytes;
    return {text, bytes - 1};
  }
  // The text up to the first terminator in the text area.
  std::string_view TextToTerminator() noexcept {
    if (Failed()) return {};
    const char* text = reinterpret_cast<const char*>(message_.data() + at_);
    const void* end = std::memchr(text, 0, text_area_);
    if (!end) {
      Fail(DecodeReason::kTextNotTerminated, at_ + text_area_);
      return {};
    }
    return Text(static_cast<std::size_t>(static_cast<const char*>(end) - text) + 1);
  }
  // What is left of the text area.
  std::string_view LastText() noexcept { return Text(text_area_); }

  // The outcome, once everything was read.
  [[nodiscard]] DecodeError Finish() noexcept {
    if (text_area_ != 0) Fail(DecodeReason::kTextLength, at_);
    return error_;
  }

 private:
  void Fail(DecodeReason reason, std::size_t offset) noexcept {
    if (!Failed()) error_ = {reason, offset};
  }
  [[nodiscard]] bool Failed() const noexcept { return error_.reason != DecodeReason::kNone; }

  std::span<const std::byte> message_;
  std::size_t at_ = sizeof(TIPHeader);
  std::size_t text_area_ = 0;  // bytes of it that were not read yet
  std::uint64_t text_sum_ = 0;
  DecodeError error_;
};

DecodeError Read(std::span<const std::byte> message, ProcessStart& start) noexcept {
  Reader reader(message, kProcessStartPayload);
  reader.Expect<std::uint8_t>(kIsStart, DecodeReason::kBadField);
  start.parent_pid = reader.U32();
  reader.ExpectTextArea();
  start.image_name = reader.TextToTerminator();
  start.command_line = reader.LastText();
  return reader.Finish();
}

DecodeError Read(std::span<const std::byte> message, ProcessEvent& event) noexcept {
  Reader reader(message, kProcessEventPayload);
  event.reporter_pid = reader.U32();
  event.kind = reader.U32();
  event.child_pid = reader.U32();
  event.code = reader.U32();
  reader.ExpectTextArea();
  event.image_name = reader.LastText();
  return reader.Finish();
}

DecodeError Read(std::span<const std::byte> message, CrashNotice& notice) noexcept {
  Reader reader(message, kCrashNoticePayload);
  reader.Get<std::uint64_t>();
  notice.exception_code = reader.U32();
  notice.hook_depth = reader.U32();
  notice.thread_id = reader.U32();
  return reader.Finish();
}

DecodeError Read(std::span<const std::byte> message, FileAudit& audit) noexcept {
  Reader reader(message, kFileAuditPayload);
  audit.type = reader.U32();
  audit.error = reader.U32();
  audit.source_access = reader.U32();
  audit.destination_access = reader.U32();
  const std::uint32_t source_bytes = reader.TextLength();
  reader.Expect<std::uint32_t>(0, DecodeReason::kTextPosition);
  const std::uint32_t destination_bytes = reader.TextLength();
  reader.Expect<std::uint32_t>(source_bytes, DecodeReason::kTextPosition);
  reader.ExpectTextArea();
  audit.source = reader.Text(source_bytes);
  audit.destination = reader.Text(destination_bytes);
  return reader.Finish();
}

DecodeError Read(std::span<const std::byte> message, NetAudit& audit) noexcept {
  Reader reader(message, kNetAuditPayload);
  audit.type = reader.U32();
  audit.error = reader.U32();
  audit.verdict = reader.U32();
  audit.protocol = reader.U32();
  audit.destination_port = reader.U32();
  audit.source_port = reader.U32();
  const std::uint32_t destination_bytes = reader.TextLength();
  reader.Expect<std::uint32_t>(0, DecodeReason::kTextPosition);
  const std::uint32_t source_bytes = reader.TextLength();
  reader.Expect<std::uint32_t>(destination_bytes, DecodeReason::kTextPosition);
  const std::uint32_t domain_bytes = reader.TextLength();
  reader.Expect<std::uint32_t>(destination_bytes + source_bytes, DecodeReason::kTextPosition);
  reader.ExpectTextArea();
  audit.destination = reader.Text(destination_bytes);
  audit.source = reader.Text(source_bytes);
  audit.domain = reader.Text(domain_bytes);
  return reader.Finish();
}

DecodeError Read(std::span<const std::byte> message, Sample& sample) noexcept {
  Reader reader(message, kSamplePayload);
  sample.first = reader.Get<std::uint64_t>();
  sample.second = reader.Get<std::uint64_t>();
  sample.third = reader.U32();
  reader.ExpectTextArea();
  sample.text = reader.LastText();
  return reader.Finish();
}

template <typename Body>
void ReadBody(std::span<const std::byte> message, Decoded& decoded, Body body = {}) noexcept {
  decoded.error = Read(message, body);
  if (decoded.Ok()) decoded.body = body;
}

}  // namespace

std::size_t EncodedSize(const ProcessStart& message) noexcept {
  return kMessageOverhead + kProcessStartPayload + BytesEvenIfEmpty(message.image_name) +
         Bytes(message.command_line);
}
std::size_t EncodedSize(const ProcessEvent& message) noexcept {
  return kMessageOverhead + kProcessEventPayload + Bytes(message.image_name);
}
std::size_t EncodedSize(const CrashNotice&) noexcept { return kMessageOverhead + kCrashNoticePayload; }
std::size_t EncodedSize(const FileAudit& message) noexcept {
  return kMessageOverhead + kFileAuditPayload + Bytes(message.source) + Bytes(message.destination);
}
std::size_t EncodedSize(const NetAudit& message) noexcept {
  return kMessageOverhead + kNetAuditPayload + BytesEvenIfEmpty(message.destination) +
         BytesEvenIfEmpty(message.source) + Bytes(message.domain);
}
std::size_t EncodedSize(const Sample& message) noexcept {
  return kMessageOverhead + kSamplePayload + Bytes(message.text);
}

std::size_t Encode(const ProcessStart& message, MessageOrigin origin, std::span<std::byte> out) noexcept {
  const std::size_t size = EncodedSize(message);
  if (!Fits(size, out)) return 0;
  const std::size_t image_bytes = BytesEvenIfEmpty(message.image_name);
  const std::size_t command_line_bytes = Bytes(message.command_line);
  Writer writer(out.first(size), TipMsgType::kProcess, kSubtypeProcessStart, origin);
  writer.Put<std::uint8_t>(kIsStart);
  writer.Put(message.parent_pid);
  writer.PutLength(image_bytes + command_line_bytes);
  writer.PutText(message.image_name, image_bytes);
  writer.PutText(message.command_line, command_line_bytes);
  return size;
}

std::size_t Encode(const ProcessEvent& message, MessageOrigin origin, std::span<std::byte> out) noexcept {
  const std::size_t size = EncodedSize(message);
  if (!Fits(size, out)) return 0;
  Writer writer(out.first(size), TipMsgType::kProcess, kSubtypeProcessEvent, origin);
  writer.Put(message.reporter_pid);
  writer.Put(message.kind);
  writer.Put(message.child_pid);
  writer.Put(message.code);
  writer.PutLength(Bytes(message.image_name));
  writer.PutText(message.image_name, Bytes(message.image_name));
  return size;
}

std::size_t Encode(const CrashNotice& message, MessageOrigin origin, std::span<std::byte> out) noexcept {
  const std::size_t size = EncodedSize(message);
  if (!Fits(size, out)) return 0;
  Writer writer(out.first(size), TipMsgType::kProcess, kSubtypeCrashNotice, origin);
  writer.Put<std::uint64_t>(0);
  writer.Put(message.exception_code);
  writer.Put(message.hook_depth);
  writer.Put(message.thread_id);
  return size;
}

std::size_t Encode(const FileAudit& message, MessageOrigin origin, std::span<std::byte> out) noexcept {
  const std::size_t size = EncodedSize(message);
  if (!Fits(size, out)) return 0;
  const std::size_t source_bytes = Bytes(message.source);
  const std::size_t destination_bytes = Bytes(message.destination);
  Writer writer(out.first(size), TipMsgType::kAudit, kSubtypeFileAudit, origin);
  writer.Put(message.type);
  writer.Put(message.error);
  writer.Put(message.source_access);
  writer.Put(message.destination_access);
  writer.PutLength(source_bytes);
  writer.PutLength(0);
  writer.PutLength(destination_bytes);
  writer.PutLength(source_bytes);
  writer.PutLength(source_bytes + destination_bytes);
  writer.PutText(message.source, source_bytes);
  writer.PutText(message.destination, destination_bytes);
  return size;
}

std::size_t Encode(const NetAudit& message, MessageOrigin origin, std::span<std::byte> out) noexcept {
  const std::size_t size = EncodedSize(message);
  if (!Fits(size, out)) return 0;
  const std::size_t destination_bytes = BytesEvenIfEmpty(message.destination);
  const std::size_t source_bytes = BytesEvenIfEmpty(message.source);
  const std::size_t domain_bytes = Bytes(message.domain);
  Writer writer(out.first(size), TipMsgType::kAudit, kSubtypeNetAudit, origin);
  writer.Put(message.type);
  writer.Put(message.error);
  writer.Put(message.verdict);
  writer.Put(message.protocol);
  writer.Put(message.destination_port);
  writer.Put(message.source_port);
  writer.PutLength(destination_bytes);
  writer.PutLength(0);
  writer.PutLength(source_bytes);
  writer.PutLength(destination_bytes);
  writer.PutLength(domain_bytes);
  writer.PutLength(destination_bytes + source_bytes);
  writer.PutLength(destination_bytes + source_bytes + domain_bytes);
  writer.PutText(message.destination, destination_bytes);
  writer.PutText(message.source, source_bytes);
  writer.PutText(message.domain, domain_bytes);
  return size;
}

std::size_t Encode(const Sample& message, MessageOrigin origin, std::span<std::byte> out) noexcept {
  const std::size_t size = EncodedSize(message);
  if (!Fits(size, out)) return 0;
  Writer writer(out.first(size), TipMsgType::kSample, message.subtype, origin);
  writer.Put(message.first);
  writer.Put(message.second);
  writer.Put(message.third);
  writer.PutLength(Bytes(message.text));
  writer.PutText(message.text, Bytes(message.text));
  return size;
}

const char* DecodeReasonText(DecodeReason reason) noexcept {
  switch (reason) {
    case DecodeReason::kNone:
      return "no error";
    case DecodeReason::kTooShort:
      return "the message is shorter than 30 bytes";
    case DecodeReason::kBadMagic:
      return "the message does not begin with the magic number";
    case DecodeReason::kSizeMismatch:
      return "the message size is not 30 and the payload length";
    case DecodeReason::kUnknownType:
      return "the message type is unknown";
    case DecodeReason::kUnknownSubtype:
      return "the message subtype is unknown for its type";
    case DecodeReason::kPayloadTooShort:
      return "the payload is too short for its fixed fields";
    case DecodeReason::kTextLength:
      return "the text lengths do not add up to the payload length";
    case DecodeReason::kTextPosition:
      return "a text does not follow the one before it";
    case DecodeReason::kTextNotTerminated:
      return "a text is not terminated";
    case DecodeReason::kBadField:
      return "a field has a value that this kind of message does not have";
  }
  return "unknown reason";
}

DecodeError CheckMessageFrame(std::span<const std::byte> message) noexcept {
  if (message.size() < kMinMessageSize) return {DecodeReason::kTooShort, message.size()};
  TIPHeader header;
  std::memcpy(&header, message.data(), sizeof header);
  if (header.magic != kTipMagic) return {DecodeReason::kBadMagic, offsetof(TIPHeader, magic)};
  if (message.size() - kMessageOverhead != header.payload_length) {
    return {DecodeReason::kSizeMismatch, offsetof(TIPHeader, payload_length)};
  }
  return {};
}

Decoded DecodeMessage(std::span<const std::byte> message) noexcept {
  Decoded decoded;
  if (message.size() >= sizeof(TIPHeader)) std::memcpy(&decoded.header, message.data(), sizeof(TIPHeader));
  decoded.error = CheckMessageFrame(message);
  if (!decoded.Ok()) return decoded;

  const DecodeError unknown_subtype = {DecodeReason::kUnknownSubtype, offsetof(TIPHeader, subtype)};
  const std::uint16_t subtype = decoded.header.subtype;
  switch (static_cast<TipMsgType>(decoded.header.type)) {
    case TipMsgType::kProcess:
      switch (subtype) {
        case kSubtypeProcessEvent:
          ReadBody<ProcessEvent>(message, decoded);
          break;
        case kSubtypeProcessStart:
          ReadBody<ProcessStart>(message, decoded);
          break;
        case kSubtypeCrashNotice:
          ReadBody<CrashNotice>(message, decoded);
          break;
        default:
          decoded.error = unknown_subtype;
      }
      break;
    case TipMsgType::kAudit:
      switch (subtype) {
        case kSubtypeFileAudit:
          ReadBody<FileAudit>(message, decoded);
          break;
        case kSubtypeNetAudit:
          ReadBody<NetAudit>(message, decoded);
          break;
        default:
          decoded.error = unknown_subtype;
      }
      break;
    case TipMsgType::kSample:
      if (subtype <= kSubtypeSampleDnsCache) {
        ReadBody<Sample>(message, decoded, {.subtype = subtype});
      } else {
        decoded.error = unknown_subtype;
      }
      break;
    default:
      decoded.error = {DecodeReason::kUnknownType, offsetof(TIPHeader, type)};
  }
  return decoded;
}

}  // namespace vorn::policy
