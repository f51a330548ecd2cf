// The two formats in which a recycle bin remembers where a file came from.
#include <gtest/gtest.h>

#include <cstring>
#include <random>
#include <span>
#include <string>
#include <vector>

#include "Policy/kept_file.h"
#include "vorn/recycle_info.h"

namespace vorn::host {
namespace {

constexpr std::uint64_t kTime = 116'444'736'000'000'000 + 15'000'000;

// What the library writes, cut to its length.
template <class Build>
std::vector<std::byte> Written(Build&& build) {
  std::vector<std::byte> bytes(1000);
  bytes.resize(build(std::span(bytes)));
  for (std::size_t room = 0; room < bytes.size(); ++room)
    EXPECT_EQ(build(std::span(bytes).first(room)), 0u) << "index cut off";
  return bytes;
}

std::vector<std::byte> InfoFile(std::uint64_t version, std::uint64_t time, std::u16string path) {
  auto bytes = Written([&](auto out) { return policy::BuildRecycleIndex(path, 1234, time, out); });
  std::memcpy(bytes.data(), &version, 8);
  if (version == 1) {  // a path of fixed length, without a count
    bytes.erase(bytes.begin() + 24, bytes.begin() + 28);
    bytes.resize(24 + 520);
  }
  return bytes;
}

TEST(RecycleInfo, BothVersionsGivePathSizeAndTime) {
  for (std::uint64_t version : {1, 2}) {
    auto info = ParseRecycleInfo(InfoFile(version, kTime, u"C:\\a\\b.txt"));
    ASSERT_TRUE(info);
    EXPECT_EQ(info->path, u"C:\\a\\b.txt");
    EXPECT_EQ(info->size, 1234u);
    EXPECT_EQ(info->deleted_at_ms, 1500u);
  }
}

TEST(RecycleInfo, DamagedFilesGiveNothing) {
  auto good = InfoFile(2, 0, u"C:\\a");
  EXPECT_FALSE(ParseRecycleInfo(InfoFile(3, 0, u"C:\\a")));
  EXPECT_FALSE(ParseRecycleInfo(InfoFile(2, 0, u"")));
  for (std::size_t size = 0; size < good.size() - 1; ++size)
    EXPECT_FALSE(
        ParseRecycleInfo(std::vector(good.begin(), good.begin() + static_cast<std::ptrdiff_t>(size))));
}

TEST(TrashInfo, ReadsTheGroupAndDecodesThePath) {
  auto info = ParseTrashInfo("[Trash Info]\nPath=/home/a/%C3%A4%20b%zz\nDeletionDate=2026-11-24T13:00:01\n");
  ASSERT_TRUE(info);
  EXPECT_EQ(info->path, "/home/a/\xC3\xA4 b%zz");
  EXPECT_EQ(info->deletion_date, "2026-11-24T13:00:01");
  const std::string path = "/home/a/\xC3\xA4 b%zz\n[x]";
  const auto own =
      Written([&](auto out) { return policy::BuildTrashIndex(path, "2026-11-24T13:00:01", out); });
  info = ParseTrashInfo({reinterpret_cast<const char*>(own.data()), own.size()});
  ASSERT_TRUE(info);
  EXPECT_EQ(info->path, path);
  EXPECT_FALSE(ParseTrashInfo("[Other]\nPath=/a\n"));
  EXPECT_FALSE(ParseTrashInfo("[Trash Info]\nPath=relative\n"));
  EXPECT_FALSE(ParseTrashInfo(""));
}

TEST(KeptName, TellsTheRunInBothFormats) {
  using policy::KeepFormat;
  using policy::KeptPart;
  const policy::KeptTail tail{u"20261125-1", 0x1f0, 12, policy::ExtensionToKeep(u"\\a.b\\c.txt")};
  const auto name = [&](KeepFormat format, KeptPart part) {
    char16_t out[64];
    return std::u16string(out, policy::BuildKeptName(format, part, u"\\F", tail, out));
  };
  EXPECT_EQ(name(KeepFormat::kRecycleBin, KeptPart::kFile), u"\\F\\$R20261125-1_1f0_c.txt");
  EXPECT_EQ(name(KeepFormat::kRecycleBin, KeptPart::kIndex), u"\\F\\$I20261125-1_1f0_c.txt");
  EXPECT_EQ(name(KeepFormat::kTrash, KeptPart::kFile), u"\\F\\files\\20261125-1_1f0_c.txt");
  EXPECT_EQ(name(KeepFormat::kTrash, KeptPart::kIndex), u"\\F\\info\\20261125-1_1f0_c.txt.trashinfo");
  for (const char16_t* kept : {u"$R20261125-1_1f0_c.txt", u"20261125-1_1f0_c"})
    EXPECT_EQ(policy::ParseKeptName(kept).value_or(policy::KeptTail()).run, u"20261125-1");
  for (const char16_t* other :
       {u"", u"$RABC123.txt", u"f_1_x.txt", u"f_1_2x", u"_1_2", u"a_123456789_1", u"notes_2"})
    EXPECT_FALSE(policy::ParseKeptName(other));
  for (const char16_t* none : {u"\\a.b\\c", u"c.", u".c", u"a.b:s", u"a.12345678901234567"})
    EXPECT_EQ(policy::ExtensionToKeep(none), u"");
}

}  // namespace
}  // namespace vorn::host
