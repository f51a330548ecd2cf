// The two formats in which a recycle bin remembers where a file came from.
#include <gtest/gtest.h>

#include <cstring>
#include <vector>

#include "vorn/recycle_info.h"

namespace vorn::host {
namespace {

std::vector<std::byte> InfoFile(std::uint64_t version, std::uint64_t time, std::u16string path) {
  std::vector<std::byte> bytes(24);
  const std::uint64_t size = 1234;
  std::memcpy(bytes.data(), &version, 8);
  std::memcpy(bytes.data() + 8, &size, 8);
  std::memcpy(bytes.data() + 16, &time, 8);
  path += u'\0';
  const auto units = static_cast<std::uint32_t>(path.size());
  if (version == 2)
    bytes.insert(bytes.end(), reinterpret_cast<const std::byte*>(&units),
                 reinterpret_cast<const std::byte*>(&units + 1));
  if (version == 1) path.resize(260);
  const auto* text = reinterpret_cast<const std::byte*>(path.data());
  bytes.insert(bytes.end(), text, text + path.size() * 2);
  return bytes;
}

TEST(RecycleInfo, BothVersionsGivePathSizeAndTime) {
  for (std::uint64_t version : {1, 2}) {
    auto info = ParseRecycleInfo(InfoFile(version, 116'444'736'000'000'000 + 15'000'000, u"C:\\a\\b.txt"));
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
  EXPECT_FALSE(ParseTrashInfo("[Other]\nPath=/a\n"));
  EXPECT_FALSE(ParseTrashInfo("[Trash Info]\nPath=relative\n"));
  EXPECT_FALSE(ParseTrashInfo(""));
}

}  // namespace
}  // namespace vorn::host
