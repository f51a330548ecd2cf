#include <gtest/gtest.h>

#include <cstring>
#include <random>
#include <string>
#include <vector>

#include "Policy/file_rules.h"
#include "Policy/message.h"

namespace vorn::policy {
namespace {

constexpr MessageOrigin kOrigin = {.time_ms = 0x0102030405060708, .pid = 0x11223344};

template <typename T>
std::vector<std::byte> Encoded(const T& message) {
  std::vector<std::byte> bytes(EncodedSize(message), std::byte{0xEE});
  EXPECT_EQ(Encode(message, kOrigin, bytes), bytes.size());
  return bytes;
}

// What lies between the header and the end: numbers, texts and the zero bytes behind the last field.
class Payload {
 public:
  Payload& U8(std::uint8_t value) { return Put(&value, 1); }
  Payload& U16(std::uint16_t value) { return Put(&value, 2); }
  Payload& U32(std::initializer_list<std::uint32_t> values) {
    for (const std::uint32_t value : values) Put(&value, 4);
    return *this;
  }
  Payload& U64(std::uint64_t value) { return Put(&value, 8); }
  Payload& Text(std::string_view text) { return Put(text.data(), text.size()); }
  const std::vector<std::byte>& bytes() const { return bytes_; }

 private:
  Payload& Put(const void* data, std::size_t size) {
    const auto* from = static_cast<const std::byte*>(data);
    bytes_.insert(bytes_.end(), from, from + size);
    return *this;
  }
  std::vector<std::byte> bytes_;
};

struct Row {
  std::vector<std::byte> encoded, again;  // again: decoded and encoded once more
  std::uint16_t type, subtype;
  Payload payload;
};
template <typename T>
Row MakeRow(const T& message, std::uint16_t type, std::uint16_t subtype, const Payload& payload) {
  Row row{Encoded(message), {}, type, subtype, payload};
  row.again = Encoded(std::get<T>(DecodeMessage(row.encoded).body));
  return row;
}

// One of each kind, and with its texts left out.
std::vector<Row> Rows() {
  using namespace std::string_view_literals;
  return {
      MakeRow(ProcessStart{7, "a.exe", "a.exe -x"}, 2, 1,
              Payload().U8(1).U32({7, 15}).Text("a.exe\0a.exe -x\0\0"sv)),
      MakeRow(ProcessStart{7, "a.exe", {}}, 2, 1, Payload().U8(1).U32({7, 6}).Text("a.exe\0\0"sv)),
      MakeRow(ProcessEvent{1, ProcessEventKind{2}, 3, 1157, "child.exe"}, 2, 0,
              Payload().U32({1, 2, 3, 1157, 10}).Text("child.exe\0\0"sv)),
      MakeRow(ProcessEvent{1, ProcessEventKind{3}, 3, 5, {}}, 2, 0,
              Payload().U32({1, 3, 3, 5, 0}).Text("\0"sv)),
      MakeRow(CrashNotice{0xC0000005, 2, 99}, 2, 2, Payload().U64(0).U32({0xC0000005, 2, 99})),
      MakeRow(FileAudit{AuditType{5}, 5, FileACL{2}, FileACL{3}, "C:\\a", "C:\\\xC3\xA4"}, 3, 0,
              Payload().U32({5, 5, 2, 3, 5, 0, 6, 5, 11}).Text("C:\\a\0C:\\\xC3\xA4\0\0"sv)),
      MakeRow(FileAudit{AuditType{1}, 5, FileACL{1}, FileACL{0}, "C:\\a", {}}, 3, 0,
              Payload().U32({1, 5, 1, 0, 5, 0, 0, 5, 5}).Text("C:\\a\0\0"sv)),
      MakeRow(FileAudit{}, 3, 0, Payload().U32({0, 0, 0, 0, 0, 0, 0, 0, 0}).Text("\0"sv)),
      MakeRow(NetAudit{AuditType::kConnect, 5, Verdict::kDeny, Protocol::kTcp, 443, 50000, "192.0.2.1",
                       "10.0.0.1", "a.example"},
              3, 2,
              Payload()
                  .U32({8, 5, 0, 6, 443, 50000, 10, 0, 9, 10, 10, 19, 29})
                  .Text("192.0.2.1\00010.0.0.1\0a.example\0\0"sv)),
      // Empty addresses keep their terminator, an empty domain is absent.
      MakeRow(NetAudit{}, 3, 2, Payload().U32({0, 0, 0, 0, 0, 0, 1, 0, 1, 1, 0, 2, 2}).Text("\0\0\0"sv)),
      MakeRow(FileAudit{AuditType{4}, 5, FileACL{2}, {}, "C:\\a", {}, true, 7, DecidingFact::kTemp}, 3, 16,
              Payload().U32({8, 7, 6, 4, 5, 2, 0, 5, 0, 0, 5, 5}).Text("C:\\a\0\0"sv)),
      MakeRow(NetAudit{.extended = true}, 3, 17,
              Payload().U32({8, 0xFFFFFFFF, 0, 0, 0, 0, 0, 0, 0, 1, 0, 1, 1, 0, 2, 2}).Text("\0\0\0"sv)),
      MakeRow(Sample{1, 0x1122334455667788, 2, 3, "host"}, 4, 1,
              Payload().U64(0x1122334455667788).U64(2).U32({3, 5}).Text("host\0\0"sv)),
      MakeRow(Sample{3, 1, 0, 0, {}}, 4, 3, Payload().U64(1).U64(0).U32({0, 0}).Text("\0"sv)),
  };
}

TEST(Message, IsLaidOutToTheByteAndReadBack) {
  for (const Row& row : Rows()) {
    Payload whole;
    whole.U64(0x20251212C0DEDEAD).U64(kOrigin.time_ms).U16(row.type).U16(row.subtype).U8(1);
    whole.U32({kOrigin.pid, static_cast<std::uint32_t>(row.encoded.size() - 30)});
    std::vector<std::byte> expected = whole.bytes();
    expected.insert(expected.end(), row.payload.bytes().begin(), row.payload.bytes().end());
    expected.push_back(std::byte{0});
    EXPECT_EQ(row.encoded, expected) << row.type << "/" << row.subtype;
    EXPECT_EQ(row.again, row.encoded) << row.type << "/" << row.subtype;
  }
}

DecodeError DecodeWith(std::vector<std::byte> bytes, std::size_t offset, std::uint32_t value) {
  std::memcpy(bytes.data() + offset, &value, sizeof value);
  return DecodeMessage(bytes).error;
}

TEST(Message, DecodingSaysWhatIsWrongAndWhere) {
  const auto file = Encoded(FileAudit{AuditType{5}, 5, FileACL{2}, FileACL{3}, "C:\\a", "C:\\b"});
  const struct {
    DecodeError error;
    DecodeReason reason;
    std::size_t offset;
  } cases[] = {
      {DecodeMessage(std::span(file).first(29)).error, DecodeReason::kTooShort, 29},
      {DecodeWith(file, 0, 0xDEADDEAD), DecodeReason::kBadMagic, 0},
      {DecodeWith(file, 25, 46), DecodeReason::kSizeMismatch, 25},
      {DecodeWith(file, 16, 9), DecodeReason::kUnknownType, 16},
      {DecodeWith(file, 16, 3 | 1 << 16), DecodeReason::kUnknownSubtype, 18},
      {DecodeWith(file, 45, 11), DecodeReason::kTextLength, 45},
      {DecodeWith(file, 53, 0xFFFFFFFE), DecodeReason::kTextLength, 53},
      {DecodeWith(file, 53, 4), DecodeReason::kTextNotTerminated, 73},
      {DecodeWith(file, 49, 1), DecodeReason::kTextPosition, 49},
      {DecodeWith(file, 57, 4), DecodeReason::kTextPosition, 57},
      {DecodeWith(file, 61, 9), DecodeReason::kTextLength, 61},
      {DecodeWith(file, 66, 0x41414141), DecodeReason::kTextNotTerminated, 69},
      {DecodeWith(Encoded(ProcessStart{7, "a.exe", {}}), 29, 0x700), DecodeReason::kBadField, 29},
      {DecodeWith(Encoded(ProcessStart{7, "abc", {}}), 38, 0x41414141), DecodeReason::kTextNotTerminated, 42},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(c.error.reason, c.reason) << "case " << &c - cases << ": " << DecodeReasonText(c.error.reason);
    EXPECT_EQ(c.error.offset, c.offset) << "case " << &c - cases;
  }

  std::vector<std::byte> minimal(30);
  const TIPHeader header = MakeTipHeader(TipMsgType::kAudit, kSubtypeFileAudit, 0, kOrigin);
  std::memcpy(minimal.data(), &header, sizeof header);
  EXPECT_EQ(DecodeMessage(minimal).error.reason, DecodeReason::kPayloadTooShort);
}

// A message with an extension of the given size, as a sender of another version would write it.
std::vector<std::byte> WithExtension(std::uint32_t stated, std::initializer_list<std::uint32_t> fields) {
  auto bytes = Encoded(FileAudit{.type = AuditType::kRead, .source = "C:\\a", .extended = true});
  Payload extension;
  extension.U32({stated}).U32(fields);
  bytes.erase(bytes.begin() + 29, bytes.begin() + 29 + 12);
  bytes.insert(bytes.begin() + 29, extension.bytes().begin(), extension.bytes().end());
  const auto payload = static_cast<std::uint32_t>(bytes.size() - 30);
  std::memcpy(bytes.data() + 25, &payload, sizeof payload);
  return bytes;
}

TEST(Message, ExtensionsOfOlderAndNewerSendersAreRead) {
  const struct {
    std::vector<std::byte> bytes;
    std::uint32_t rule;
    DecidingFact fact;
  } cases[] = {
      {WithExtension(0, {}), kNoRule, DecidingFact::kNone},
      {WithExtension(4, {9}), 9, DecidingFact::kNone},
      {WithExtension(8, {9, 1}), 9, DecidingFact::kRule},
      {WithExtension(8, {9, 4711}), 9, DecidingFact{4711}},
      {WithExtension(20, {9, 6, 1, 2, 3}), 9, DecidingFact::kTemp},
  };
  for (const auto& c : cases) {
    const Decoded decoded = DecodeMessage(c.bytes);
    ASSERT_TRUE(decoded.Ok()) << DecodeReasonText(decoded.error.reason);
    const auto& audit = std::get<FileAudit>(decoded.body);
    EXPECT_TRUE(audit.extended && audit.rule == c.rule && audit.fact == c.fact) << &c - cases;
    EXPECT_EQ(audit.type, AuditType::kRead);
    EXPECT_EQ(audit.source, "C:\\a");
  }
  for (const std::uint32_t stated : {17u, 0xFFFFFFFFu}) {
    const DecodeError error = DecodeMessage(WithExtension(stated, {9, 6})).error;
    EXPECT_FALSE(error.reason == DecodeReason::kNone) << stated;
  }
}

TEST(Message, EveryTruncationIsRefusedAlsoWithAMatchingHeader) {
  for (const Row& row : Rows()) {
    for (std::size_t size = 30; size < row.encoded.size(); ++size) {
      std::vector<std::byte> cut(row.encoded.begin(),
                                 row.encoded.begin() + static_cast<std::ptrdiff_t>(size));
      EXPECT_FALSE(DecodeMessage(cut).Ok());
      EXPECT_NE(DecodeWith(cut, 25, static_cast<std::uint32_t>(size - 30)).reason, DecodeReason::kNone);
    }
  }
}

}  // namespace
}  // namespace vorn::policy
