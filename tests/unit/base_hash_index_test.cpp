// The index against a plain list that is walked in order.
#include "VornCore/Base/hash_index.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <memory>
#include <random>
#include <vector>

namespace VornCore {
namespace {

struct ByKey;
struct Record : HashNode<ByKey> {
  std::uint64_t key = 0;
  int id = 0;
};
using Index = HashIndex<Record, ByKey>;

Record* FindKey(const Index& index, std::uint64_t key) {
  return index.Find(HashWord(key), [&](const Record& r) { return r.key == key; });
}

TEST(HashIndex, AnswersLikeAWalkOverTheListInOrderOfInsertion) {
  std::mt19937 random(7);
  Index index;
  std::vector<std::unique_ptr<Record>> list;
  for (int step = 0; step < 20000; ++step) {
    const std::uint64_t key = random() % 500 * 4;  // duplicates are common; low bits are alike, as of handles
    const auto first = std::find_if(list.begin(), list.end(), [&](auto& r) { return r->key == key; });
    ASSERT_EQ(FindKey(index, key), first == list.end() ? nullptr : first->get());
    if (random() % 3 && first != list.end()) {
      index.Remove(first->get());
      list.erase(first);
    } else {
      auto record = std::make_unique<Record>();
      record->key = key;
      index.Insert(record.get(), HashWord(key));
      list.push_back(std::move(record));
    }
    ASSERT_EQ(index.size(), list.size());
  }
}

TEST(HashIndex, RecordsOfOneHashAreToldApartByTheirKeysAlsoAfterGrowing) {
  Index index;
  std::vector<Record> records(1000);
  for (int i = 0; i < 1000; ++i) {
    records[i].key = static_cast<std::uint64_t>(i % 10);
    records[i].id = i;
    index.Insert(&records[i], 42);
  }
  for (std::uint64_t key = 0; key < 10; ++key) {
    Record* found = index.Find(42, [&](const Record& r) { return r.key == key; });
    ASSERT_TRUE(found);
    EXPECT_EQ(found->id, static_cast<int>(key));
  }
}

TEST(HashIndex, RemovingARecordThatIsNotIndexedChangesNothing) {
  Index index;
  Record in, out;
  index.Insert(&in, 1);
  index.Remove(&out);
  EXPECT_EQ(index.size(), 1u);
  index.Remove(&in);
  index.Remove(&in);
  EXPECT_EQ(index.size(), 0u);
}

}  // namespace
}  // namespace VornCore
