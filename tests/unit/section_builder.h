// Builds configuration sections for tests and benches: well-formed ones, and ones with any field falsified.
#pragma once

#include <cstdint>
#include <cstring>
#include <initializer_list>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "Policy/path_hash.h"
#include "Policy/section_format.h"

namespace vorn::policy::test {

struct NetRuleFields {
  std::uint32_t verdict = kVerdictDeny;
  NetRuleKind kind = NetRuleKind::kDefault;
  std::uint32_t family = 0;
  std::uint32_t prefix = 0;
  std::vector<std::uint8_t> address = {};
  std::vector<std::uint16_t> ports = {};
  std::u16string domain = {};
};

class SectionBuilder {
 public:
  SectionBuilder() : header_{} {
    header_.magic = kSharedDataMagic;
    header_.version = kSharedDataVersion;
  }

  SharedDataHeader& header() { return header_; }

  // Bytes directly behind the header; before everything else.
  SectionBuilder& BehindHeader(std::span<const std::byte> bytes) {
    blobs_.assign(bytes.begin(), bytes.end());
    return *this;
  }

  // The block of options; before everything else.
  SectionBuilder& Options(std::uint32_t enabled) {
    SectionOptions block{};
    block.id = kSectionOptionsId;
    block.size = sizeof block;
    block.enabled = enabled;
    if (enabled & OptionBits(SectionOption::kFoldAllLetters)) letters_ = Letters::kAll;
    return BehindHeader(std::as_bytes(std::span(&block, 1)));
  }

  SectionBuilder& FileRule(std::uint32_t access, std::u16string_view path) {
    file_rules_.push_back({access, HashPathNoCase(path, letters_), Text(path)});
    return *this;
  }

  SectionBuilder& NetRule(const NetRuleFields& fields) {
    NetRuleRecord record{
        fields.verdict, static_cast<std::uint32_t>(fields.kind), fields.family, fields.prefix, {}, {}, {}};
    record.address = Blob(fields.address.data(), fields.address.size());
    record.ports = Blob(fields.ports.data(), fields.ports.size() * 2);
    record.domain = Text(fields.domain);
    if (!fields.domain.empty()) record.domain.length = record.domain.length + 2;
    net_rules_.push_back(record);
    return *this;
  }

  std::vector<std::byte> Build() const {
    // Blobs come first, so that their offsets are known while rules are being added.
    SharedDataHeader header = header_;
    header.file_rule_count = static_cast<std::uint32_t>(file_rules_.size());
    header.file_rule_offset = static_cast<std::uint32_t>(sizeof header + blobs_.size());
    header.net_rule_count = static_cast<std::uint32_t>(net_rules_.size());
    header.net_rule_offset =
        static_cast<std::uint32_t>(header.file_rule_offset + file_rules_.size() * sizeof(FileRuleRecord));
    std::vector<std::byte> section;
    Append(section, &header, sizeof header);
    Append(section, blobs_.data(), blobs_.size());
    Append(section, file_rules_.data(), file_rules_.size() * sizeof(FileRuleRecord));
    Append(section, net_rules_.data(), net_rules_.size() * sizeof(NetRuleRecord));
    return section;
  }

 private:
  static void Append(std::vector<std::byte>& to, const void* data, std::size_t size) {
    const auto* bytes = static_cast<const std::byte*>(data);
    to.insert(to.end(), bytes, bytes + size);
  }

  SharedString Blob(const void* data, std::size_t size) {
    if (size == 0) return {0, 0};
    if ((sizeof(SharedDataHeader) + blobs_.size()) % 2) blobs_.push_back(std::byte{0});
    const auto offset = static_cast<std::uint32_t>(sizeof(SharedDataHeader) + blobs_.size());
    Append(blobs_, data, size);
    return {static_cast<std::uint32_t>(size), offset};
  }

  SharedString Text(std::u16string_view text) {
    const SharedString at = Blob(text.data(), text.size() * 2);
    blobs_.insert(blobs_.end(), 2, std::byte{0});
    return at;
  }

  SharedDataHeader header_;
  std::vector<FileRuleRecord> file_rules_;
  std::vector<NetRuleRecord> net_rules_;
  std::vector<std::byte> blobs_;
  Letters letters_ = Letters::kAToZ;
};

}  // namespace vorn::policy::test
