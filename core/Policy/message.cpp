#include "Policy/message.h"

#include <algorithm>
#include <cstring>
#include <limits>
#include <type_traits>

namespace vorn::policy {
namespace {

// Whether each text has a length and a position among the numbers; without them a text ends at its
// terminator.
template <class Message>
constexpr bool kHasTextTable = Message::kType == TipMsgType::kAudit;

template <class Message>
constexpr bool kCanBeExtended = requires {
  Message::kExtendedSubtype;
};

template <class Message>
constexpr std::uint32_t CountFields(FieldKind kind) noexcept {
  std::uint32_t count = 0;
  ForEachField<Message>([&](const auto& field) { count += kKindOf<decltype(field)> == kind; });
  return count;
}

// Bytes of the numbers of one kind.
template <class Message>
constexpr std::uint32_t NumberBytes(FieldKind kind) noexcept {
  std::uint32_t bytes = 0;
  ForEachField<Message>([&]<class Field>(const Field& field) {
    if constexpr (Field::kKind != FieldKind::kText)
      if (kKindOf<decltype(field)> == kind) bytes += sizeof(typename Field::Type);
  });
  return bytes;
}

// Bytes of the payload besides extension and texts; the zero byte behind the texts is among them.
template <class Message>
constexpr std::uint32_t FixedPayload() noexcept {
  constexpr std::uint32_t texts = CountFields<Message>(FieldKind::kText);
  return NumberBytes<Message>(FieldKind::kNumber) + NumberBytes<Message>(FieldKind::kMarker) +
         (kHasTextTable<Message> ? texts * 2 * std::uint32_t{sizeof(std::uint32_t)} : 0) +
         (texts ? sizeof(std::uint32_t) + 1 : 0);
}

// The extension with the size in front of it; 0 bytes in a plain message.
template <class Message>
constexpr std::uint32_t ExtensionPayload(const Message& message) noexcept {
  if constexpr (kCanBeExtended<Message>)
    if (message.extended) return sizeof(std::uint32_t) + NumberBytes<Message>(FieldKind::kExtension);
  return 0;
}

template <class Message>
std::uint16_t SubtypeOf(const Message& message) noexcept {
  if constexpr (kCanBeExtended<Message>)
    if (message.extended) return Message::kExtendedSubtype;
  if constexpr (requires { Message::kSubtype; })
    return Message::kSubtype;
  else
    return message.subtype;
}

// Bytes of a text in a message: none when it is absent, otherwise its terminator counts.
std::size_t BytesOf(std::string_view text, EmptyText empty) noexcept {
  return text.empty() && empty == EmptyText::kAbsent ? 0 : text.size() + 1;
}

// Calls visit(text, bytes) for each text of the message.
template <class Message, class Visitor>
void ForEachText(const Message& message, Visitor&& visit) noexcept {
  ForEachField<Message>([&](const auto& field) {
    if constexpr (kKindOf<decltype(field)> == FieldKind::kText)
      visit(message.*field.member, BytesOf(message.*field.member, field.empty));
  });
}

template <class Message>
std::size_t TextBytes(const Message& message) noexcept {
  std::size_t sum = 0;
  ForEachText(message, [&](std::string_view, std::size_t bytes) { sum += bytes; });
  return sum;
}

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

  // The number of bytes that the extension states for itself.
  std::uint32_t ExtensionBytes() noexcept {
    const std::size_t field = at_;
    const std::uint32_t bytes = U32();
    if (bytes > text_area_) {
      Fail(DecodeReason::kPayloadTooShort, field);
      return 0;
    }
    text_area_ -= bytes;
    return bytes;
  }
  void Skip(std::uint32_t bytes) noexcept { at_ += bytes; }

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

template <class Message>
void ReadExtension(Reader& reader, Message& message) noexcept {
  std::uint32_t left = reader.ExtensionBytes();
  ForEachField<Message>([&](const auto& field) {
    using Field = std::remove_cvref_t<decltype(field)>;
    if constexpr (Field::kKind == FieldKind::kExtension) {
      if (left < sizeof(typename Field::Type)) return;  // of an older sender
      message.*field.member = reader.Get<typename Field::Type>();
      left -= sizeof(typename Field::Type);
    }
  });
  reader.Skip(left);
}

template <class Message>
void ReadTexts(Reader& reader, Message& message) noexcept {
  constexpr std::uint32_t count = CountFields<Message>(FieldKind::kText);
  if constexpr (count != 0) {
    std::uint32_t lengths[count] = {}, position = 0, index = 0;
    if constexpr (kHasTextTable<Message>) {
      for (std::uint32_t& length : lengths) {
        length = reader.TextLength();
        reader.Expect(position, DecodeReason::kTextPosition);
        position += length;
      }
    }
    reader.ExpectTextArea();
    ForEachField<Message>([&](const auto& field) {
      if constexpr (kKindOf<decltype(field)> == FieldKind::kText) {
        const bool last = index + 1 == count;
        message.*field.member = kHasTextTable<Message> ? reader.Text(lengths[index])
                                : last                 ? reader.LastText()
                                                       : reader.TextToTerminator();
        ++index;
      }
    });
  }
}

template <class Message>
DecodeError Read(std::span<const std::byte> bytes, Message& message) noexcept {
  // An extension without its fields is the least that an extended message has.
  const bool extended = ExtensionPayload(message) != 0;
  Reader reader(bytes, FixedPayload<Message>() + (extended ? sizeof(std::uint32_t) : 0));
  if (extended) ReadExtension(reader, message);
  ForEachField<Message>([&](const auto& field) {
    using Field = std::remove_cvref_t<decltype(field)>;
    if constexpr (Field::kKind == FieldKind::kNumber)
      message.*field.member = reader.Get<typename Field::Type>();
    if constexpr (Field::kKind == FieldKind::kMarker) {
      if (field.must_match)
        reader.Expect(field.value, DecodeReason::kBadField);
      else
        reader.Get<typename Field::Type>();
    }
  });
  ReadTexts(reader, message);
  return reader.Finish();
}

// Fills `decoded` when Message is its kind; notes whether the type at least is known.
template <class Message>
bool ReadAs(std::span<const std::byte> bytes, Decoded& decoded, bool& type_is_known) noexcept {
  if (decoded.header.type != static_cast<std::uint16_t>(Message::kType)) return false;
  type_is_known = true;
  Message message = {};
  if constexpr (kCanBeExtended<Message>)
    message.extended = decoded.header.subtype == Message::kExtendedSubtype;
  if constexpr (requires { message.subtype; })
    message.subtype = std::min(decoded.header.subtype, kSubtypeSampleDnsCache);
  if (decoded.header.subtype != SubtypeOf(message)) return false;
  decoded.error = Read(bytes, message);
  if (decoded.Ok()) decoded.body = message;
  return true;
}

template <class... Messages>
void ReadBody(std::span<const std::byte> bytes, Decoded& decoded,
              const std::variant<std::monostate, Messages...>&) noexcept {
  bool type_is_known = false;
  if ((ReadAs<Messages>(bytes, decoded, type_is_known) || ...)) return;
  decoded.error = type_is_known ? DecodeError{DecodeReason::kUnknownSubtype, offsetof(TIPHeader, subtype)}
                                : DecodeError{DecodeReason::kUnknownType, offsetof(TIPHeader, type)};
}

}  // namespace

template <class Message>
std::size_t EncodedSize(const Message& message) noexcept {
  return kMessageOverhead + ExtensionPayload(message) + FixedPayload<Message>() + TextBytes(message);
}

template <class Message>
std::size_t Encode(const Message& message, MessageOrigin origin, std::span<std::byte> out) noexcept {
  const std::size_t size = EncodedSize(message);
  if (size > out.size() || size > std::numeric_limits<std::uint32_t>::max()) return 0;
  Writer writer(out.first(size), Message::kType, SubtypeOf(message), origin);
  if (const std::uint32_t bytes = ExtensionPayload(message)) {
    writer.PutLength(bytes - sizeof(std::uint32_t));
    ForEachField<Message>([&](const auto& field) {
      if constexpr (kKindOf<decltype(field)> == FieldKind::kExtension) writer.Put(message.*field.member);
    });
  }
  ForEachField<Message>([&](const auto& field) {
    if constexpr (kKindOf<decltype(field)> == FieldKind::kNumber) writer.Put(message.*field.member);
    if constexpr (kKindOf<decltype(field)> == FieldKind::kMarker) writer.Put(field.value);
  });
  if constexpr (CountFields<Message>(FieldKind::kText) != 0) {
    std::size_t position = 0;
    ForEachText(message, [&](std::string_view, std::size_t bytes) {
      if (kHasTextTable<Message>) {
        writer.PutLength(bytes);
        writer.PutLength(position);
      }
      position += bytes;
    });
    writer.PutLength(position);
    ForEachText(message, [&](std::string_view text, std::size_t bytes) { writer.PutText(text, bytes); });
  }
  return size;
}

#define VORN_MESSAGE(Message)                                \
  template std::size_t EncodedSize(const Message&) noexcept; \
  template std::size_t Encode(const Message&, MessageOrigin, std::span<std::byte>) noexcept;
VORN_MESSAGE(ProcessStart)
VORN_MESSAGE(ProcessEvent)
VORN_MESSAGE(CrashNotice)
VORN_MESSAGE(FileAudit)
VORN_MESSAGE(NetAudit)
VORN_MESSAGE(Sample)
#undef VORN_MESSAGE

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
  if (decoded.Ok()) ReadBody(message, decoded, decoded.body);
  return decoded;
}

}  // namespace vorn::policy
