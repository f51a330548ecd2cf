#include "Policy/kept_file.h"

#include <cstring>

#include "Policy/device_path.h"

namespace vorn::policy {
namespace {

constexpr std::size_t kMaxExtension = 16;
constexpr std::u16string_view kRecycledFile = u"$R", kRecycledIndex = u"$I";
constexpr std::u16string_view kTrashInfo = u".trashinfo";

// Appends to memory of fixed size, and knows whether everything fitted.
template <class Unit>
class Writer {
 public:
  explicit Writer(std::span<Unit> out) noexcept : out_(out) {}

  Writer& Text(std::basic_string_view<Unit> text) noexcept { return Bytes(text.data(), text.size()); }
  Writer& Bytes(const Unit* data, std::size_t count) noexcept {
    fits_ = fits_ && count <= out_.size() - used_;
    if (!fits_) return *this;
    std::memcpy(out_.data() + used_, data, count * sizeof(Unit));
    used_ += count;
    return *this;
  }
  Writer& Put(Unit unit) noexcept { return Bytes(&unit, 1); }
  template <class Value>
  Writer& Object(Value value) noexcept {
    return Bytes(reinterpret_cast<const Unit*>(&value), sizeof value / sizeof(Unit));
  }
  Writer& Hex(std::uint32_t value) noexcept {
    if (value >= 16) Hex(value / 16);
    return Put(static_cast<Unit>("0123456789abcdef"[value % 16]));
  }
  [[nodiscard]] std::size_t Size() const noexcept { return fits_ ? used_ : 0; }

 private:
  std::span<Unit> out_;
  std::size_t used_ = 0;
  bool fits_ = true;
};

bool IsRunUnit(char16_t unit) noexcept {
  return (unit >= u'0' && unit <= u'9') || (unit >= u'a' && unit <= u'z') || unit == u'-';
}

// Takes a hexadecimal number from the front of text.
std::optional<std::uint32_t> TakeHex(std::u16string_view& text) noexcept {
  std::uint32_t value = 0;
  std::size_t digits = 0;
  for (; digits < text.size() && digits < 9; ++digits) {
    const char16_t unit = text[digits];
    std::uint32_t digit;
    if (unit >= u'0' && unit <= u'9')
      digit = unit - u'0';
    else if (unit >= u'a' && unit <= u'f')
      digit = unit - u'a' + 10u;
    else
      break;
    value = value * 16 + digit;
  }
  if (digits == 0 || digits > 8) return {};
  text.remove_prefix(digits);
  return value;
}

bool TakeUnit(std::u16string_view& text, char16_t unit) noexcept {
  if (!text.starts_with(unit)) return false;
  text.remove_prefix(1);
  return true;
}

}  // namespace

std::u16string_view ExtensionToKeep(std::u16string_view path) noexcept {
  const std::size_t last = path.rfind(u'\\');
  const std::u16string_view name = last == path.npos ? path : path.substr(last + 1);
  const std::size_t dot = name.rfind(u'.');
  if (dot == name.npos || dot == 0 || dot + 1 == name.size() || name.size() - dot > kMaxExtension) return {};
  const std::u16string_view extension = name.substr(dot);
  return extension.find(u':') == extension.npos ? extension : std::u16string_view();
}

std::size_t BuildKeptName(KeepFormat format, KeptPart part, std::u16string_view folder, const KeptTail& tail,
                          std::span<char16_t> out) noexcept {
  const bool index = part == KeptPart::kIndex;
  const bool trash = format == KeepFormat::kTrash;
  Writer<char16_t> name(out);
  name.Text(folder);
  if (trash)
    name.Text(index ? u"\\info\\" : u"\\files\\");
  else
    name.Put(u'\\').Text(index ? kRecycledIndex : kRecycledFile);
  name.Text(tail.run).Put(u'_').Hex(tail.pid).Put(u'_').Hex(tail.number).Text(tail.extension);
  if (trash && index) name.Text(kTrashInfo);
  const std::size_t units = name.Size();
  name.Put(0);
  return name.Size() ? units : 0;
}

std::optional<KeptTail> ParseKeptName(std::u16string_view name) noexcept {
  if (name.starts_with(kRecycledFile)) name.remove_prefix(kRecycledFile.size());
  std::size_t run = 0;
  while (run < name.size() && IsRunUnit(name[run])) ++run;
  KeptTail tail{.run = name.substr(0, run)};
  name.remove_prefix(run);
  if (run == 0 || !TakeUnit(name, u'_')) return {};
  const auto pid = TakeHex(name);
  if (!pid || !TakeUnit(name, u'_')) return {};
  const auto number = TakeHex(name);
  if (!number || (!name.empty() && name[0] != u'.')) return {};
  tail.pid = *pid;
  tail.number = *number;
  tail.extension = name;
  return tail;
}

bool IsKept(const SectionView& section, std::u16string_view path) noexcept {
  const std::u16string_view folder = section.KeepFolderOf(path).text;
  if (folder.empty() || !IsUnder(path, folder) || path.size() <= folder.size()) return false;
  std::u16string_view name = path.substr(folder.size() + 1);
  if (section.FormatOfKept() == KeepFormat::kTrash) {
    const std::size_t part = name.find(u'\\');
    if (part == name.npos) return false;
    name.remove_prefix(part + 1);
  }
  name = name.substr(0, name.find(u'\\'));
  if (name.starts_with(kRecycledIndex)) name.remove_prefix(kRecycledIndex.size());
  return ParseKeptName(name).has_value();
}

std::size_t BuildRecycleIndex(std::u16string_view path, std::uint64_t size, std::uint64_t deleted,
                              std::span<std::byte> out) noexcept {
  constexpr std::uint64_t kVersion = 2;
  Writer<std::byte> index(out);
  index.Object(kVersion).Object(size).Object(deleted);
  index.Object(static_cast<std::uint32_t>(path.size() + 1));
  index.Bytes(reinterpret_cast<const std::byte*>(path.data()), path.size() * sizeof(char16_t));
  index.Object(char16_t{0});
  return index.Size();
}

std::size_t BuildTrashIndex(std::string_view path, std::string_view local_time,
                            std::span<std::byte> out) noexcept {
  Writer<char> index({reinterpret_cast<char*>(out.data()), out.size()});
  index.Text("[Trash Info]\nPath=");
  for (const char unit : path) {
    const bool plain = (unit >= '0' && unit <= '9') || (unit >= 'a' && unit <= 'z') ||
                       (unit >= 'A' && unit <= 'Z') || std::string_view("/-_.~").find(unit) != path.npos;
    if (plain) {
      index.Put(unit);
    } else {
      constexpr char kDigits[] = "0123456789ABCDEF";
      const auto byte = static_cast<unsigned char>(unit);
      index.Put('%').Put(kDigits[byte >> 4]).Put(kDigits[byte & 15]);
    }
  }
  index.Text("\nDeletionDate=").Text(local_time).Put('\n');
  return index.Size();
}

}  // namespace vorn::policy
