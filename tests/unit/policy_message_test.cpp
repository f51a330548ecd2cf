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

template <typename T>
T At(const std::vector<std::byte>& bytes, std::size_t offset) {
  T value;
  std::memcpy(&value, bytes.data() + offset, sizeof value);
  return value;
}
std::uint32_t U32(const std::vector<std::byte>& bytes, std::size_t offset) {
  return At<std::uint32_t>(bytes, offset);
}

// Header, size rule and the zero bytes behind the last field.
void ExpectFrame(const std::vector<std::byte>& bytes, std::uint16_t type, std::uint16_t subtype,
                 std::size_t payload, std::size_t spare) {
  EXPECT_EQ(At<std::uint64_t>(bytes, 0), 0x20251212C0DEDEADu);
  EXPECT_EQ(At<std::uint64_t>(bytes, 8), kOrigin.time_ms);
  EXPECT_EQ(At<std::uint16_t>(bytes, 16), type);
  EXPECT_EQ(At<std::uint16_t>(bytes, 18), subtype);
  EXPECT_EQ(At<std::uint8_t>(bytes, 20), 1);
  EXPECT_EQ(U32(bytes, 21), kOrigin.pid);
  EXPECT_EQ(U32(bytes, 25), payload);
  ASSERT_EQ(bytes.size(), 30 + payload);
  for (std::size_t i = bytes.size() - spare; i < bytes.size(); ++i) EXPECT_EQ(bytes[i], std::byte{0});
}

std::string Chars(const std::vector<std::byte>& bytes, std::size_t offset, std::size_t count) {
  return {reinterpret_cast<const char*>(bytes.data()) + offset, count};
}

using namespace std::string_literals;

TEST(Message, ProcessStart) {
  auto bytes = Encoded(ProcessStart{7, "a.exe", "a.exe -x"});
  ExpectFrame(bytes, 2, 1, 15 + 10, 2);
  EXPECT_EQ(At<std::uint8_t>(bytes, 29), 1);
  EXPECT_EQ(U32(bytes, 30), 7u);
  EXPECT_EQ(U32(bytes, 34), 15u);
  EXPECT_EQ(Chars(bytes, 38, 15), "a.exe\0a.exe -x\0"s);
  const Decoded decoded = DecodeMessage(bytes);
  const auto& start = std::get<ProcessStart>(decoded.body);
  EXPECT_EQ(start.parent_pid, 7u);
  EXPECT_EQ(start.image_name, "a.exe");
  EXPECT_EQ(start.command_line, "a.exe -x");

  bytes = Encoded(ProcessStart{7, "a.exe", {}});
  ExpectFrame(bytes, 2, 1, 6 + 10, 2);
  EXPECT_EQ(std::get<ProcessStart>(DecodeMessage(bytes).body).command_line, "");
}

TEST(Message, ProcessEvent) {
  const auto bytes = Encoded(ProcessEvent{1, 2, 3, 1157, "child.exe"});
  ExpectFrame(bytes, 2, 0, 10 + 21, 2);
  EXPECT_EQ(U32(bytes, 29), 1u);
  EXPECT_EQ(U32(bytes, 33), 2u);
  EXPECT_EQ(U32(bytes, 37), 3u);
  EXPECT_EQ(U32(bytes, 41), 1157u);
  EXPECT_EQ(U32(bytes, 45), 10u);
  EXPECT_EQ(Chars(bytes, 49, 10), "child.exe\0"s);
  EXPECT_EQ(std::get<ProcessEvent>(DecodeMessage(bytes).body).image_name, "child.exe");
  ExpectFrame(Encoded(ProcessEvent{1, 3, 3, 5, {}}), 2, 0, 21, 2);
}

TEST(Message, CrashNotice) {
  const auto bytes = Encoded(CrashNotice{0xC0000005, 2, 99});
  ExpectFrame(bytes, 2, 2, 20, 1);
  EXPECT_EQ(At<std::uint64_t>(bytes, 29), 0u);
  EXPECT_EQ(U32(bytes, 37), 0xC0000005u);
  EXPECT_EQ(U32(bytes, 41), 2u);
  EXPECT_EQ(U32(bytes, 45), 99u);
  EXPECT_EQ(std::get<CrashNotice>(DecodeMessage(bytes).body).thread_id, 99u);
}

TEST(Message, FileAudit) {
  auto bytes = Encoded(FileAudit{5, 5, 2, 3, "C:\\a", "C:\\\xC3\xA4"});
  ExpectFrame(bytes, 3, 0, 5 + 6 + 37, 2);
  const std::uint32_t fields[] = {5, 5, 2, 3, 5, 0, 6, 5, 11};
  for (std::size_t i = 0; i < std::size(fields); ++i) EXPECT_EQ(U32(bytes, 29 + 4 * i), fields[i]) << i;
  EXPECT_EQ(Chars(bytes, 65, 11), "C:\\a\0C:\\\xC3\xA4\0"s);
  const Decoded decoded = DecodeMessage(bytes);
  EXPECT_EQ(std::get<FileAudit>(decoded.body).source, "C:\\a");
  EXPECT_EQ(std::get<FileAudit>(decoded.body).destination, "C:\\\xC3\xA4");

  bytes = Encoded(FileAudit{1, 5, 1, 0, "C:\\a", {}});
  EXPECT_EQ(U32(bytes, 53), 0u);
  EXPECT_EQ(U32(bytes, 57), 5u);
  ExpectFrame(Encoded(FileAudit{}), 3, 0, 37, 2);
}

TEST(Message, NetAudit) {
  auto bytes = Encoded(NetAudit{8, 5, 0, 6, 443, 50000, "192.0.2.1", "10.0.0.1", "a.example"});
  ExpectFrame(bytes, 3, 2, 29 + 53, 2);
  const std::uint32_t fields[] = {8, 5, 0, 6, 443, 50000, 10, 0, 9, 10, 10, 19, 29};
  for (std::size_t i = 0; i < std::size(fields); ++i) EXPECT_EQ(U32(bytes, 29 + 4 * i), fields[i]) << i;
  EXPECT_EQ(Chars(bytes, 81, 29), "192.0.2.1\00010.0.0.1\0a.example\0"s);
  const Decoded decoded = DecodeMessage(bytes);
  EXPECT_EQ(std::get<NetAudit>(decoded.body).destination, "192.0.2.1");
  EXPECT_EQ(std::get<NetAudit>(decoded.body).source, "10.0.0.1");
  EXPECT_EQ(std::get<NetAudit>(decoded.body).domain, "a.example");

  bytes = Encoded(NetAudit{});  // empty addresses keep their terminator, an empty domain is absent
  ExpectFrame(bytes, 3, 2, 2 + 53, 2);
  EXPECT_EQ(U32(bytes, 53), 1u);
  EXPECT_EQ(U32(bytes, 61), 1u);
  EXPECT_EQ(U32(bytes, 69), 0u);
  EXPECT_TRUE(DecodeMessage(bytes).Ok());
}

TEST(Message, Sample) {
  const auto bytes = Encoded(Sample{1, 0x1122334455667788, 2, 3, "host"});
  ExpectFrame(bytes, 4, 1, 5 + 25, 2);
  EXPECT_EQ(At<std::uint64_t>(bytes, 29), 0x1122334455667788u);
  EXPECT_EQ(At<std::uint64_t>(bytes, 37), 2u);
  EXPECT_EQ(U32(bytes, 45), 3u);
  EXPECT_EQ(U32(bytes, 49), 5u);
  EXPECT_EQ(Chars(bytes, 53, 5), "host\0"s);
  const Decoded decoded = DecodeMessage(bytes);
  EXPECT_EQ(std::get<Sample>(decoded.body).subtype, 1);
  EXPECT_EQ(std::get<Sample>(decoded.body).text, "host");
  ExpectFrame(Encoded(Sample{3, 1, 0, 0, {}}), 4, 3, 25, 2);
}

std::vector<std::vector<std::byte>> OneOfEach() {
  return {Encoded(ProcessStart{7, "a.exe", "a.exe -x"}),
          Encoded(ProcessEvent{1, 2, 3, 1157, "child.exe"}),
          Encoded(CrashNotice{0xC0000005, 2, 99}),
          Encoded(FileAudit{5, 5, 2, 3, "C:\\a", "C:\\b"}),
          Encoded(NetAudit{8, 5, 0, 6, 443, 50000, "192.0.2.1", "10.0.0.1", "a.example"}),
          Encoded(Sample{1, 1, 2, 3, "host"})};
}

DecodeError DecodeWith(std::vector<std::byte> bytes, std::size_t offset, std::uint32_t value) {
  std::memcpy(bytes.data() + offset, &value, sizeof value);
  return DecodeMessage(bytes).error;
}

TEST(Message, DecodingSaysWhatIsWrongAndWhere) {
  const auto file = Encoded(FileAudit{5, 5, 2, 3, "C:\\a", "C:\\b"});
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

TEST(Message, EveryTruncationIsRefusedAlsoWithAMatchingHeader) {
  for (const auto& whole : OneOfEach()) {
    ASSERT_TRUE(DecodeMessage(whole).Ok());
    for (std::size_t size = 0; size < whole.size(); ++size) {
      std::vector<std::byte> cut(whole.begin(), whole.begin() + static_cast<std::ptrdiff_t>(size));
      EXPECT_FALSE(DecodeMessage(cut).Ok());
      if (size < 30) continue;
      const auto payload = static_cast<std::uint32_t>(size - 30);
      std::memcpy(cut.data() + 25, &payload, sizeof payload);
      EXPECT_FALSE(DecodeMessage(cut).Ok());
    }
  }
}

TEST(Message, WhatDecodesFromDamagedBytesStaysInsideTheMessage) {
  std::mt19937 random(3);
  for (int i = 0; i < 20'000; ++i) {
    for (auto bytes : OneOfEach()) {
      for (int k = 0; k < 3; ++k)
        bytes[29 + random() % (bytes.size() - 29)] = static_cast<std::byte>(random() % 12);
      const Decoded decoded = DecodeMessage(bytes);
      if (const auto* audit = std::get_if<FileAudit>(&decoded.body)) {
        // The views are read to their last byte: the sanitizer would see one that leaves the message.
        EXPECT_LE(std::string(audit->source).size() + std::string(audit->destination).size(), bytes.size());
      }
    }
  }
}

}  // namespace
}  // namespace vorn::policy
