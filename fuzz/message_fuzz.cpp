// Any bytes as a message: what decodes lies inside the message and survives being encoded again.
#include <cstdint>
#include <cstring>
#include <variant>
#include <vector>

#include "Policy/message.h"
#include "fuzz/require.h"

namespace {

using namespace vorn::policy;

// Whether all fields are the same; texts are read to their last byte.
template <typename Message>
bool SameFields(const Message& a, const Message& b) {
  bool same = true;
  ForEachField<Message>([&](const auto& field) {
    if constexpr (kKindOf<decltype(field)> != FieldKind::kMarker)
      same = same && a.*field.member == b.*field.member;
  });
  return same;
}

template <typename Message>
void CheckAgain(const Message& message, const TIPHeader& header) {
  std::vector<std::byte> bytes(EncodedSize(message));
  Require(Encode(message, {.time_ms = header.time_ms, .pid = header.pid}, bytes) == bytes.size());
  const Decoded again = DecodeMessage(bytes);
  Require(again.Ok() && again.header.type == header.type && again.header.subtype == header.subtype);
  Require(std::holds_alternative<Message>(again.body) && SameFields(std::get<Message>(again.body), message));
}
void CheckAgain(const std::monostate&, const TIPHeader&) { Require(false); }

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const auto* bytes = reinterpret_cast<const std::byte*>(data);
  std::vector<std::byte> message(bytes, bytes + size);
  if (size >= kMinMessageSize && size % 4 != 0) {
    // Most inputs get past the frame.
    TIPHeader header;
    std::memcpy(&header, data, sizeof header);
    header.magic = kTipMagic;
    header.payload_length = static_cast<std::uint32_t>(size - kMessageOverhead);
    header.type = static_cast<std::uint16_t>(header.type % 6);
    header.subtype = static_cast<std::uint16_t>(header.subtype % 5 + (header.subtype & 0x100 ? 16 : 0));
    std::memcpy(message.data(), &header, sizeof header);
  }
  const Decoded decoded = DecodeMessage(message);
  if (decoded.Ok()) {
    std::visit([&](const auto& body) { CheckAgain(body, decoded.header); }, decoded.body);
  } else {
    Require(std::holds_alternative<std::monostate>(decoded.body) && decoded.error.offset <= size &&
            DecodeReasonText(decoded.error.reason)[0] != 0);
  }
  return 0;
}
