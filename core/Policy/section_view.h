// Read access to a mapped configuration section.
//
//   SectionView section({base, size});
//   if (section.Check() != SectionStatus::kOk) …;
//   section.LogDirectory().text …
//
// The host may rewrite the section at any time and may be wrong about it, so every accessor reads each field
// once, and an offset or length that leaves the mapping reads as absent. A view copies nothing and stays
// valid as long as the mapping. A default-constructed view answers absent, 0 and false everywhere. Any
// thread.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <string_view>

#include "Policy/section_format.h"
#include "Policy/text.h"

namespace vorn::policy {

enum class SectionStatus {
  kOk,
  kTooSmall,    // smaller than the header
  kBadMagic,    // not a configuration section
  kBadVersion,  // a configuration section of another version
};

// A string in the section. `text` has a null data() when absent; a trailing odd byte is not part of it.
struct SectionText {
  std::u16string_view text = {};
  std::uint32_t byte_length = 0;  // as stored, also when the string is absent

  [[nodiscard]] bool Present() const noexcept { return text.data() != nullptr; }
};

struct FileRule {
  bool in_table = false;     // the index is below the count
  std::uint32_t access = 0;  // raw FileACL value
  std::uint32_t hash = 0;    // as stored
  SectionText path = {};
};

struct NetRuleAddress {
  std::span<const std::byte> bytes = {};  // null data() when absent
  std::uint32_t length = 0;               // as stored
  std::uint32_t prefix_length = 0;
  std::uint32_t family = 0;
};

// The ports of a rule, in host byte order.
class NetRulePorts {
 public:
  NetRulePorts() noexcept = default;

  // Names ports that lie outside the section: the rule cannot be evaluated.
  static NetRulePorts Outside(std::uint32_t byte_length) noexcept;
  static NetRulePorts At(const std::byte* data, std::uint32_t byte_length) noexcept;

  [[nodiscard]] const std::byte* data() const noexcept { return data_; }
  [[nodiscard]] std::uint32_t byte_length() const noexcept { return byte_length_; }
  [[nodiscard]] std::uint32_t size() const noexcept { return data_ ? byte_length_ / 2 : 0; }
  [[nodiscard]] std::uint16_t operator[](std::uint32_t index) const noexcept;
  [[nodiscard]] bool Readable() const noexcept { return !outside_; }
  // True when the list is empty or holds the port; false when it is not readable.
  [[nodiscard]] bool Admit(std::uint16_t port) const noexcept;

 private:
  const std::byte* data_ = nullptr;
  std::uint32_t byte_length_ = 0;
  bool outside_ = false;
};

class SectionView {
 public:
  SectionView() noexcept = default;
  explicit SectionView(std::span<const std::byte> mapping) noexcept : mapping_(mapping) {}

  [[nodiscard]] SectionStatus Check() const noexcept;
  [[nodiscard]] bool Valid() const noexcept { return Check() == SectionStatus::kOk; }
  [[nodiscard]] std::span<const std::byte> Mapping() const noexcept { return mapping_; }

  [[nodiscard]] SectionText LogDirectory() const noexcept;
  [[nodiscard]] SectionText DumpDirectory() const noexcept;
  [[nodiscard]] SectionText ServerPortName() const noexcept;
  [[nodiscard]] SectionText CreateProcessEventPrefix() const noexcept;
  [[nodiscard]] SectionText BizDllPathX64() const noexcept;
  [[nodiscard]] SectionText BizDllPathX86() const noexcept;
  [[nodiscard]] SectionText IPC64FullPath() const noexcept;
  [[nodiscard]] SectionText IPC32FullPath() const noexcept;

  [[nodiscard]] std::uint32_t Flags() const noexcept;
  [[nodiscard]] std::uint32_t LogLevelMask() const noexcept { return Flags() & kFlagLogLevelMask; }
  [[nodiscard]] bool IsDebugLogEnabled() const noexcept { return (Flags() & kFlagDebugLog) != 0; }
  [[nodiscard]] bool IsFileCreateCheckOff() const noexcept {
    return (Flags() & kFlagFileCreateCheckOff) != 0;
  }
  [[nodiscard]] bool IsNetCheckOff() const noexcept { return (Flags() & kFlagNetCheckOff) != 0; }

  // Whether the host asks for it.
  [[nodiscard]] bool Has(SectionOption option) const noexcept;
  // Whose case does not count in file rules.
  [[nodiscard]] Letters LettersOfPaths() const noexcept;
  // The run's name, and how and where its deleted files are kept.
  [[nodiscard]] SectionText RunName() const noexcept;
  [[nodiscard]] KeepFormat FormatOfKept() const noexcept;
  // The folder for the file at this canonical path; absent when there is none.
  [[nodiscard]] SectionText KeepFolderOf(std::u16string_view path) const noexcept;

  // Records that exist: at most as many as the host's count says, and none beyond the section, so that a loop
  // over them ends.
  [[nodiscard]] std::uint32_t FileRuleCount() const noexcept {
    return static_cast<std::uint32_t>(FileRules().size());
  }
  [[nodiscard]] std::uint32_t NetRuleCount() const noexcept {
    return static_cast<std::uint32_t>(NetRules().size());
  }
  // By the host's count: rules that cannot be read must not switch network confinement off.
  [[nodiscard]] bool HasNetRules() const noexcept;

  [[nodiscard]] std::span<const FileRuleRecord> FileRules() const noexcept;
  [[nodiscard]] std::span<const NetRuleRecord> NetRules() const noexcept;

  [[nodiscard]] FileRule FileRuleAt(std::uint32_t index) const noexcept;
  // Null when the index is not below the count.
  [[nodiscard]] const NetRuleRecord* NetRuleAt(std::uint32_t index) const noexcept;

  // The parts of a record; the record may be a copy.
  [[nodiscard]] SectionText PathOf(const FileRuleRecord& rule) const noexcept;
  [[nodiscard]] NetRuleAddress AddressOf(const NetRuleRecord& rule) const noexcept;
  [[nodiscard]] NetRulePorts PortsOf(const NetRuleRecord& rule) const noexcept;
  [[nodiscard]] SectionText DomainOf(const NetRuleRecord& rule) const noexcept;

  // `length` bytes at `offset`, or null when they leave the section.
  [[nodiscard]] const std::byte* At(std::uint32_t offset, std::uint32_t length) const noexcept {
    if (offset > mapping_.size() || length > mapping_.size() - offset) return nullptr;
    return mapping_.data() + offset;
  }

 private:
  [[nodiscard]] const SharedDataHeader* Header() const noexcept {
    return mapping_.size() < sizeof(SharedDataHeader)
               ? nullptr
               : reinterpret_cast<const SharedDataHeader*>(mapping_.data());
  }
  // The options block, when it reaches as far as `bytes`; else null.
  [[nodiscard]] const SectionOptions* Options(std::size_t bytes) const noexcept;
  [[nodiscard]] SectionText HeaderText(SharedString SharedDataHeader::*field) const noexcept;
  [[nodiscard]] SectionText TextAt(std::uint32_t length, std::uint32_t offset) const noexcept;

  std::span<const std::byte> mapping_;
};

}  // namespace vorn::policy
