#include "vorn/recycle_info.h"

#include <cstring>

#include "Policy/file_time.h"

namespace vorn::host {
namespace {

constexpr std::size_t kPathOffsetV1 = 24, kPathUnitsV1 = 260, kPathOffsetV2 = 28;

template <class T>
T Read(std::span<const std::byte> bytes, std::size_t offset) {
  T value;
  std::memcpy(&value, bytes.data() + offset, sizeof value);
  return value;
}

int HexDigit(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

std::string PercentDecode(std::string_view text) {
  std::string decoded;
  for (std::size_t i = 0; i < text.size(); ++i) {
    const int high = text[i] == '%' && i + 2 < text.size() ? HexDigit(text[i + 1]) : -1;
    const int low = high >= 0 ? HexDigit(text[i + 2]) : -1;
    if (low >= 0) {
      decoded += static_cast<char>(high * 16 + low);
      i += 2;
    } else {
      decoded += text[i];
    }
  }
  return decoded;
}

}  // namespace

std::optional<RecycleInfo> ParseRecycleInfo(std::span<const std::byte> bytes) {
  if (bytes.size() < kPathOffsetV1) return {};
  const auto version = Read<std::uint64_t>(bytes, 0);
  std::size_t offset = kPathOffsetV1;
  std::size_t units = kPathUnitsV1;
  if (version == 2) {
    if (bytes.size() < kPathOffsetV2) return {};
    offset = kPathOffsetV2;
    units = Read<std::uint32_t>(bytes, kPathOffsetV1);
  } else if (version != 1) {
    return {};
  }
  if (units > (bytes.size() - offset) / sizeof(char16_t)) return {};
  RecycleInfo info;
  info.path.resize(units);
  if (units) std::memcpy(info.path.data(), bytes.data() + offset, units * sizeof(char16_t));
  if (const std::size_t end = info.path.find(u'\0'); end != std::u16string::npos) info.path.resize(end);
  if (info.path.empty()) return {};
  info.size = Read<std::uint64_t>(bytes, 8);
  info.deleted_at_ms = policy::UnixMilliseconds(Read<std::uint64_t>(bytes, 16));
  return info;
}

std::optional<TrashInfo> ParseTrashInfo(std::string_view text) {
  TrashInfo info;
  bool in_group = false;
  while (!text.empty()) {
    const std::size_t end = text.find('\n');
    std::string_view line = text.substr(0, end);
    text.remove_prefix(end == std::string_view::npos ? text.size() : end + 1);
    if (line.ends_with('\r')) line.remove_suffix(1);
    if (line.starts_with('['))
      in_group = line == "[Trash Info]";
    else if (in_group && info.path.empty() && line.starts_with("Path="))
      info.path = PercentDecode(line.substr(5));
    else if (in_group && info.deletion_date.empty() && line.starts_with("DeletionDate="))
      info.deletion_date = line.substr(13);
  }
  if (!info.path.starts_with('/')) return {};
  return info;
}

}  // namespace vorn::host
