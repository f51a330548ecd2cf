#include "vorn/section.h"

#include <cstring>
#include <stdexcept>
#include <system_error>

#include "Policy/path_hash.h"
#include "Policy/wide.h"
#include "vorn/named_object.h"
#include "vorn/text.h"
#include "windows/unique_handle.h"
#include "windows/user_only_security.h"

namespace vorn::host {

namespace {

using policy::SharedDataHeader;
using policy::SharedString;

// Grows a section from front to back: tables first, then what they point at.
class Layout {
 public:
  explicit Layout(std::size_t fixed_bytes) : bytes_(fixed_bytes) {}

  // A string, terminated in memory; an empty one is absent.
  SharedString Text(std::wstring_view text) {
    if (text.empty()) return {};
    const SharedString place = Block(text.data(), text.size() * sizeof(wchar_t));
    bytes_.resize(bytes_.size() + sizeof(wchar_t));
    return place;
  }

  SharedString Block(const void* data, std::size_t bytes) {
    if (bytes == 0) return {};
    bytes_.resize((bytes_.size() + 1) & ~std::size_t{1});  // keep UTF-16 and ports aligned
    const std::size_t offset = bytes_.size();
    if (offset + bytes + sizeof(wchar_t) > kMaxBytes)
      throw std::invalid_argument("the section would exceed 2 GiB");
    const auto* from = static_cast<const std::byte*>(data);
    bytes_.insert(bytes_.end(), from, from + bytes);
    return {static_cast<std::uint32_t>(bytes), static_cast<std::uint32_t>(offset)};
  }

  template <class T>
  void Put(std::size_t offset, const T& value) {
    std::memcpy(bytes_.data() + offset, &value, sizeof value);
  }

  std::vector<std::byte> Take() { return std::move(bytes_); }

 private:
  static constexpr std::size_t kMaxBytes = std::size_t{1} << 31;
  std::vector<std::byte> bytes_;
};

policy::FileRuleRecord LayOut(const FileRule& rule, policy::Letters letters, Layout& layout) {
  std::wstring_view path = rule.path;
  if (path.ends_with(L'\\')) path.remove_suffix(1);  // such a rule would never match
  if (path.empty()) throw std::invalid_argument("a file rule has no path");
  policy::FileRuleRecord record;
  record.access = static_cast<std::uint32_t>(rule.access);
  record.path_hash = policy::HashPathNoCase(policy::U16(path), letters);
  record.path = layout.Text(path);
  return record;
}

policy::NetRuleRecord LayOut(const NetRule& rule, Layout& layout) {
  policy::NetRuleRecord record{};
  record.verdict = rule.verdict;
  record.kind = static_cast<std::uint32_t>(rule.kind);
  record.ports = layout.Block(rule.ports.data(), rule.ports.size() * sizeof(std::uint16_t));
  switch (rule.kind) {
    case policy::NetRuleKind::kAddress:
      if (rule.address.size() != 4 && rule.address.size() != 16) {
        throw std::invalid_argument("the address of a network rule has neither 4 nor 16 bytes");
      }
      if (rule.prefix > rule.address.size() * 8) {
        throw std::invalid_argument("the prefix of a network rule is longer than its address");
      }
      record.family = rule.address.size() == 4 ? policy::kFamilyIPv4 : policy::kFamilyIPv6;
      record.prefix_length = rule.prefix;
      record.address = layout.Block(rule.address.data(), rule.address.size());
      break;
    case policy::NetRuleKind::kDomain:
      if (rule.domain.empty()) throw std::invalid_argument("the domain of a network rule is empty");
      // The terminator is measured: a name that is stored without it also matches every longer name that
      // begins with it.
      record.domain = layout.Block(rule.domain.c_str(), (rule.domain.size() + 1) * sizeof(wchar_t));
      break;
    case policy::NetRuleKind::kDefault:
      break;
  }
  return record;
}

}  // namespace

void SectionContents::UseLibrariesIn(const std::wstring& folder) {
  // The library gives its path to children by their import tables too.
  std::wstring prefix = PathForAnsi(folder);
  if (!prefix.ends_with(L'\\')) prefix += L'\\';
  core_x64 = prefix + L"vorn_core.dll";
  core_x86 = prefix + L"vorn_core32.dll";
  ipc_x64 = prefix + L"vorn_ipc.dll";
  ipc_x86 = prefix + L"vorn_ipc32.dll";
}

std::vector<std::byte> LayOutSection(const SectionContents& contents) {
  constexpr std::size_t kMaxProcessIdDigits = 10;
  if (contents.init_event_prefix.size() + kMaxProcessIdDigits > policy::kMaxInitEventPrefix) {
    throw std::invalid_argument("the prefix of the init events is too long");
  }
  if (contents.dump_directory.size() > kMaxDumpDirectoryUnits) {
    throw std::invalid_argument("the dump directory is too long");
  }
  const std::size_t options_bytes = contents.options ? sizeof(policy::SectionOptions) : 0;
  const std::size_t place_table = sizeof(SharedDataHeader) + options_bytes;
  const auto& places = contents.keep_places.places;
  const std::size_t file_table = place_table + places.size() * sizeof(policy::KeepPlaceRecord);
  const std::size_t net_table = file_table + contents.file_rules.size() * sizeof(policy::FileRuleRecord);
  Layout layout(net_table + contents.net_rules.size() * sizeof(policy::NetRuleRecord));

  SharedDataHeader header{};
  header.magic = policy::kSharedDataMagic;
  header.version = policy::kSharedDataVersion;
  header.flags = contents.flags;
  header.log_directory = layout.Text(contents.log_directory);
  header.dump_directory = layout.Text(contents.dump_directory);
  header.server_port_name = layout.Text(contents.server_port);
  header.create_process_event_prefix = layout.Text(contents.init_event_prefix);
  header.biz_dll_path_x64 = layout.Text(contents.core_x64);
  header.biz_dll_path_x86 = layout.Text(contents.core_x86);
  header.ipc_path_64 = layout.Text(contents.ipc_x64);
  header.ipc_path_32 = layout.Text(contents.ipc_x86);
  header.file_rule_count = static_cast<std::uint32_t>(contents.file_rules.size());
  header.file_rule_offset = static_cast<std::uint32_t>(file_table);
  header.net_rule_count = static_cast<std::uint32_t>(contents.net_rules.size());
  header.net_rule_offset = static_cast<std::uint32_t>(net_table);
  layout.Put(0, header);
  if (options_bytes) {
    layout.Put(sizeof header,
               policy::SectionOptions{
                   policy::kSectionOptionsId, sizeof(policy::SectionOptions), contents.options,
                   layout.Text(ToWide(contents.run)), static_cast<std::uint32_t>(contents.keep_places.format),
                   static_cast<std::uint32_t>(places.size()), static_cast<std::uint32_t>(place_table)});
  }
  for (std::size_t i = 0; i < places.size(); ++i) {
    layout.Put(place_table + i * sizeof(policy::KeepPlaceRecord),
               policy::KeepPlaceRecord{layout.Text(places[i].volume), layout.Text(places[i].folder)});
  }
  const bool fold_all = contents.options & policy::OptionBits(policy::SectionOption::kFoldAllLetters);
  const auto letters = fold_all ? policy::Letters::kAll : policy::Letters::kAToZ;
  for (std::size_t i = 0; i < contents.file_rules.size(); ++i) {
    layout.Put(file_table + i * sizeof(policy::FileRuleRecord),
               LayOut(contents.file_rules[i], letters, layout));
  }
  for (std::size_t i = 0; i < contents.net_rules.size(); ++i) {
    layout.Put(net_table + i * sizeof(policy::NetRuleRecord), LayOut(contents.net_rules[i], layout));
  }
  return layout.Take();
}

struct SharedSection::Impl {
  SectionContents contents;
  std::wstring name;
  windows::UniqueHandle mapping;
  std::span<std::byte> bytes;

  ~Impl() {
    if (bytes.data()) UnmapViewOfFile(bytes.data());
  }
};

SharedSection::SharedSection(SectionContents contents) : impl_(std::make_unique<Impl>()) {
  const auto fail = [](DWORD error) {
    throw std::system_error(static_cast<int>(error), std::system_category(), "configuration section");
  };
  if (contents.init_event_prefix.empty()) {
    contents.init_event_prefix = NamedObjectPath(RandomName(L"vorn_init") + L"_");
  }
  const std::vector<std::byte> image = LayOutSection(contents);
  impl_->contents = std::move(contents);
  const std::wstring short_name = RandomName(L"vorn");
  impl_->name = NamedObjectPath(short_name);

  // With options, who reads the section cannot write to it: the rules stay the host's.
  windows::UserOnlySecurity security(impl_->contents.options ? SECTION_MAP_READ | SECTION_QUERY
                                                             : GENERIC_ALL);
  if (security.error()) fail(security.error());
  impl_->mapping.reset(CreateFileMappingW(INVALID_HANDLE_VALUE, security.attributes(), PAGE_READWRITE, 0,
                                          static_cast<DWORD>(image.size()), short_name.c_str()));
  if (!impl_->mapping) fail(GetLastError());
  if (GetLastError() == ERROR_ALREADY_EXISTS) fail(ERROR_ALREADY_EXISTS);  // somebody else's, with its rights
  void* view = MapViewOfFile(impl_->mapping.get(), FILE_MAP_ALL_ACCESS, 0, 0, 0);
  if (!view) fail(GetLastError());
  impl_->bytes = {static_cast<std::byte*>(view), image.size()};
  std::memcpy(view, image.data(), image.size());
}

SharedSection::SharedSection(SharedSection&&) noexcept = default;
SharedSection& SharedSection::operator=(SharedSection&&) noexcept = default;
SharedSection::~SharedSection() = default;
const std::wstring& SharedSection::name() const noexcept { return impl_->name; }
const SectionContents& SharedSection::contents() const noexcept { return impl_->contents; }
std::span<std::byte> SharedSection::bytes() const noexcept { return impl_->bytes; }

}  // namespace vorn::host
