// Intrusive hash index: finds the records that share a key in constant time, in the order in which they were
// added.
//
//   struct BySocket;                                        // names the index
//   struct Record : ListNode, HashNode<BySocket> { … };     // a record may be in several indexes
//   HashIndex<Record, BySocket> index;
//   index.Insert(record, HashOf(key));
//   Record* first = index.Find(HashOf(key), [&](const Record& r) { return r.key == key; });
//
//   buckets_ ──► [first|last] ──► record ⇄ record   records of equal hash stay in order of insertion
//                [first|last] ──► record
//
// The index owns nothing but its buckets and takes no lock: the owner of the records serialises. The buckets
// double as the records grow in number and never shrink, so a steady population allocates nothing; when
// memory for more of them is short, the index works on with longer chains. Inserting cannot fail.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdlib>

namespace VornCore {

// One index's links within a record. Tag: any type, one per index.
template <class Tag>
struct HashNode {
  HashNode* hash_next = nullptr;
  HashNode* hash_prev = nullptr;
  std::uint64_t hash = 0;
  bool indexed = false;
};

// A hash for words such as handles, sockets and pointers, whose low bits are often alike.
inline std::uint64_t HashWord(std::uint64_t word) {
  word ^= word >> 32;
  word *= 0x9E3779B97F4A7C15ull;
  return word ^ (word >> 29);
}

template <class Record, class Tag>
class HashIndex {
 public:
  using Node = HashNode<Tag>;

  HashIndex() = default;
  ~HashIndex() {
    if (buckets_ != inline_) free(buckets_);
  }
  HashIndex(const HashIndex&) = delete;
  HashIndex& operator=(const HashIndex&) = delete;

  std::size_t size() const { return count_; }

  // Adds record behind all others; it must not be in this index.
  void Insert(Record* record, std::uint64_t hash) {
    if (count_ >= bucket_count_) Grow();
    Node* node = record;
    node->hash = hash;
    node->indexed = true;
    Append(BucketOf(hash), node);
    ++count_;
  }

  // Takes record out; nothing when it is not in the index.
  void Remove(Record* record) {
    Node* node = record;
    if (!node->indexed) return;
    Bucket& bucket = BucketOf(node->hash);
    (node->hash_prev ? node->hash_prev->hash_next : bucket.first) = node->hash_next;
    (node->hash_next ? node->hash_next->hash_prev : bucket.last) = node->hash_prev;
    *node = {};
    --count_;
  }

  // Forgets all records, and gives each to end.
  template <class End>
  void Drain(End&& end) {
    for (std::size_t i = 0; i < bucket_count_; ++i) {
      for (Node *node = buckets_[i].first, *next; node; node = next) {
        next = node->hash_next;
        end(static_cast<Record*>(node));
      }
      buckets_[i] = {};
    }
    count_ = 0;
  }

  // The first record added under this hash that matches, or null.
  template <class Match>
  Record* Find(std::uint64_t hash, Match&& match) const {
    for (Node* node = BucketOf(hash).first; node; node = node->hash_next) {
      Record* record = static_cast<Record*>(node);
      if (node->hash == hash && match(*record)) return record;
    }
    return nullptr;
  }

 private:
  static constexpr std::size_t kInlineBuckets = 8;
  struct Bucket {
    Node* first;
    Node* last;
  };

  Bucket& BucketOf(std::uint64_t hash) const {
    // The upper half of a product by 2^64 / φ depends on all bits of the hash.
    return buckets_[((hash * 0x9E3779B97F4A7C15ull) >> 32) & (bucket_count_ - 1)];
  }

  static void Append(Bucket& bucket, Node* node) {
    node->hash_next = nullptr;
    node->hash_prev = bucket.last;
    (bucket.last ? bucket.last->hash_next : bucket.first) = node;
    bucket.last = node;
  }

  void Grow() {
    const std::size_t old_count = bucket_count_;
    auto* wider = static_cast<Bucket*>(calloc(old_count * 2, sizeof(Bucket)));
    if (!wider) return;
    Bucket* old = buckets_;
    buckets_ = wider;
    bucket_count_ = old_count * 2;
    // Records of one hash come from one bucket and keep their order.
    for (std::size_t i = 0; i < old_count; ++i) {
      for (Node *node = old[i].first, *next; node; node = next) {
        next = node->hash_next;
        Append(BucketOf(node->hash), node);
      }
    }
    if (old != inline_) free(old);
  }

  Bucket inline_[kInlineBuckets] = {};
  Bucket* buckets_ = inline_;
  std::size_t bucket_count_ = kInlineBuckets;  // a power of two
  std::size_t count_ = 0;
};

}  // namespace VornCore
