#include "Policy/section_view.h"

#include <algorithm>
#include <cstddef>
#include <cstring>

#include "Policy/device_path.h"

namespace vorn::policy {
namespace {

template <typename Record>
std::span<const Record> Table(const SectionView& section, std::uint32_t count,
                              std::uint32_t offset) noexcept {
  const std::byte* table = section.At(offset, 0);
  if (!table) return {};
  const std::size_t fitting = (section.Mapping().size() - offset) / sizeof(Record);
  return {reinterpret_cast<const Record*>(table), std::min<std::size_t>(count, fitting)};
}

}  // namespace

NetRulePorts NetRulePorts::Outside(std::uint32_t byte_length) noexcept {
  NetRulePorts ports;
  ports.byte_length_ = byte_length;
  ports.outside_ = true;
  return ports;
}

NetRulePorts NetRulePorts::At(const std::byte* data, std::uint32_t byte_length) noexcept {
  NetRulePorts ports;
  ports.data_ = data;
  ports.byte_length_ = byte_length;
  return ports;
}

std::uint16_t NetRulePorts::operator[](std::uint32_t index) const noexcept {
  std::uint16_t port;
  std::memcpy(&port, data_ + std::size_t{index} * 2, sizeof port);
  return port;
}

bool NetRulePorts::Admit(std::uint16_t port) const noexcept {
  if (outside_) return false;
  const std::uint32_t count = size();
  if (count == 0) return true;
  for (std::uint32_t i = 0; i < count; ++i) {
    if ((*this)[i] == port) return true;
  }
  return false;
}

SectionStatus SectionView::Check() const noexcept {
  const SharedDataHeader* header = Header();
  if (!header) return SectionStatus::kTooSmall;
  if (header->magic != kSharedDataMagic) return SectionStatus::kBadMagic;
  if (header->version != kSharedDataVersion) return SectionStatus::kBadVersion;
  return SectionStatus::kOk;
}

SectionText SectionView::TextAt(std::uint32_t length, std::uint32_t offset) const noexcept {
  SectionText result{{}, length};
  if (length == 0) return result;
  if (const std::byte* data = At(offset, length)) {
    result.text = {reinterpret_cast<const char16_t*>(data), length / 2};
  }
  return result;
}

SectionText SectionView::HeaderText(SharedString SharedDataHeader::*field) const noexcept {
  const SharedDataHeader* header = Header();
  return header ? TextAt((header->*field).length, (header->*field).offset) : SectionText{};
}

SectionText SectionView::LogDirectory() const noexcept {
  return HeaderText(&SharedDataHeader::log_directory);
}
SectionText SectionView::DumpDirectory() const noexcept {
  return HeaderText(&SharedDataHeader::dump_directory);
}
SectionText SectionView::ServerPortName() const noexcept {
  return HeaderText(&SharedDataHeader::server_port_name);
}
SectionText SectionView::CreateProcessEventPrefix() const noexcept {
  return HeaderText(&SharedDataHeader::create_process_event_prefix);
}
SectionText SectionView::BizDllPathX64() const noexcept {
  return HeaderText(&SharedDataHeader::biz_dll_path_x64);
}
SectionText SectionView::BizDllPathX86() const noexcept {
  return HeaderText(&SharedDataHeader::biz_dll_path_x86);
}
SectionText SectionView::IPC64FullPath() const noexcept { return HeaderText(&SharedDataHeader::ipc_path_64); }
SectionText SectionView::IPC32FullPath() const noexcept { return HeaderText(&SharedDataHeader::ipc_path_32); }

std::uint32_t SectionView::Flags() const noexcept {
  const SharedDataHeader* header = Header();
  return header ? std::uint32_t{header->flags} : 0;
}

const SectionOptions* SectionView::Options(std::size_t bytes) const noexcept {
  const std::byte* block = At(sizeof(SharedDataHeader), static_cast<std::uint32_t>(bytes));
  if (!block) return nullptr;
  const auto* options = reinterpret_cast<const SectionOptions*>(block);
  const bool reaches =
      std::memcmp(&options->id, &kSectionOptionsId, sizeof options->id) == 0 && options->size >= bytes;
  return reaches ? options : nullptr;
}

bool SectionView::Has(SectionOption option) const noexcept {
  const SectionOptions* options = Options(offsetof(SectionOptions, run));
  return options && (options->enabled & static_cast<std::uint32_t>(option)) != 0;
}

Letters SectionView::LettersOfPaths() const noexcept {
  return Has(SectionOption::kFoldAllLetters) ? Letters::kAll : Letters::kAToZ;
}

SectionText SectionView::RunName() const noexcept {
  const SectionOptions* options = Options(sizeof(SectionOptions));
  return options ? TextAt(options->run.length, options->run.offset) : SectionText{};
}

KeepFormat SectionView::FormatOfKept() const noexcept {
  const SectionOptions* options = Options(sizeof(SectionOptions));
  return options ? static_cast<KeepFormat>(std::uint32_t{options->keep_format}) : KeepFormat::kNone;
}

SectionText SectionView::KeepFolderOf(std::u16string_view path) const noexcept {
  const SectionOptions* options = Options(sizeof(SectionOptions));
  if (!options) return {};
  for (const auto& place :
       Table<KeepPlaceRecord>(*this, options->keep_place_count, options->keep_place_offset)) {
    const SectionText volume = TextAt(place.volume.length, place.volume.offset);
    if (place.volume.length == 0 || IsUnder(path, volume.text))
      return TextAt(place.folder.length, place.folder.offset);
  }
  return {};
}

bool SectionView::HasNetRules() const noexcept {
  const SharedDataHeader* header = Header();
  return header && header->net_rule_count != 0;
}

std::span<const FileRuleRecord> SectionView::FileRules() const noexcept {
  const SharedDataHeader* header = Header();
  if (!header) return {};
  return Table<FileRuleRecord>(*this, header->file_rule_count, header->file_rule_offset);
}

std::span<const NetRuleRecord> SectionView::NetRules() const noexcept {
  const SharedDataHeader* header = Header();
  if (!header) return {};
  return Table<NetRuleRecord>(*this, header->net_rule_count, header->net_rule_offset);
}

SectionText SectionView::PathOf(const FileRuleRecord& rule) const noexcept {
  return TextAt(rule.path.length, rule.path.offset);
}

FileRule SectionView::FileRuleAt(std::uint32_t index) const noexcept {
  const auto rules = FileRules();
  if (index >= rules.size()) return {};
  const FileRuleRecord& rule = rules[index];
  return {true, rule.access, rule.path_hash, PathOf(rule)};
}

const NetRuleRecord* SectionView::NetRuleAt(std::uint32_t index) const noexcept {
  const auto rules = NetRules();
  return index < rules.size() ? &rules[index] : nullptr;
}

NetRuleAddress SectionView::AddressOf(const NetRuleRecord& rule) const noexcept {
  NetRuleAddress result{{}, rule.address.length, rule.prefix_length, rule.family};
  const std::uint32_t offset = rule.address.offset;
  if (result.length == 0 || offset == 0) return result;
  if (const std::byte* data = At(offset, result.length)) result.bytes = {data, result.length};
  return result;
}

NetRulePorts SectionView::PortsOf(const NetRuleRecord& rule) const noexcept {
  const std::uint32_t length = rule.ports.length;
  const std::uint32_t offset = rule.ports.offset;
  if (length == 0 || offset == 0) return NetRulePorts::At(nullptr, length);
  const std::byte* data = At(offset, length);
  return data ? NetRulePorts::At(data, length) : NetRulePorts::Outside(length);
}

SectionText SectionView::DomainOf(const NetRuleRecord& rule) const noexcept {
  const std::uint32_t length = rule.domain.length;
  const std::uint32_t offset = rule.domain.offset;
  return offset == 0 ? SectionText{{}, length} : TextAt(length, offset);
}

}  // namespace vorn::policy
