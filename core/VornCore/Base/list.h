// Intrusive doubly linked list. A record that is listed begins with its ListNode; the list owns nothing and
// takes no lock. All operations are constant time.
#pragma once

#include <cstdint>

namespace VornCore {

struct ListNode {
  ListNode* next = nullptr;
  ListNode* prev = nullptr;
};

struct ListHead {
  ListNode* first = nullptr;
  ListNode* last = nullptr;
  std::int32_t count = 0;
};

inline void InitList(ListHead& list) { list = {}; }
inline ListNode* FirstNode(const ListHead& list) { return list.first; }
inline ListNode* NextNode(const ListNode* node) { return node->next; }

// Inserts node behind position; a null position, or the last node, appends at the tail.
inline void InsertAfter(ListHead& list, ListNode* position, ListNode* node) {
  if (!position) position = list.last;
  node->prev = position;
  node->next = position ? position->next : nullptr;
  (node->next ? node->next->prev : list.last) = node;
  (position ? position->next : list.first) = node;
  ++list.count;
}

inline void Append(ListHead& list, ListNode* node) { InsertAfter(list, nullptr, node); }

// Unlinks node, which must be in the list.
inline void Remove(ListHead& list, ListNode* node) {
  (node->prev ? node->prev->next : list.first) = node->next;
  (node->next ? node->next->prev : list.last) = node->prev;
  node->next = node->prev = nullptr;
  if (list.count > 0) --list.count;
}

}  // namespace VornCore
