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
};
using Index = HashIndex<Record, ByKey>;

// Also where few hashes stand for many keys.
TEST(HashIndex, AnswersLikeAWalkOverTheListInOrderOfInsertion) {
  for (const std::uint64_t hashes : {3, 100'000}) {
    std::mt19937 random(7);
    const auto hash = [&](std::uint64_t key) { return HashWord(key % hashes); };
    Index index;
    std::vector<std::unique_ptr<Record>> list;
    for (int step = 0; step < 20000; ++step) {
      const std::uint64_t key =
          random() % 500 * 4;  // duplicates are common; low bits are alike, as of handles
      const auto first = std::find_if(list.begin(), list.end(), [&](auto& r) { return r->key == key; });
      ASSERT_EQ(index.Find(hash(key), [&](const Record& r) { return r.key == key; }),
                first == list.end() ? nullptr : first->get());
      if (random() % 3 && first != list.end()) {
        index.Remove(first->get());
        list.erase(first);
      } else {
        auto record = std::make_unique<Record>();
        record->key = key;
        index.Insert(record.get(), hash(key));
        list.push_back(std::move(record));
      }
      ASSERT_EQ(index.size(), list.size());
    }
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
