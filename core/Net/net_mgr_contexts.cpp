#include "Net/net_mgr_contexts.h"

#include <cstring>
#include <new>

#include "Platform/untrusted.h"
#include "VornCore/Base/log.h"
#include "VornCore/Base/shared_data.h"

namespace VornCore {

// ---- Buffers ----

bool ReceiveBuffers::Capture(const WSABUF* buffers, std::uint32_t count) noexcept {
  count_ = 0;
  WSABUF* room = few_;
  if (count > kFew) {
    if (count > more_capacity_) {
      auto* wider = static_cast<WSABUF*>(calloc(count, sizeof(WSABUF)));
      if (!wider) return false;
      free(more_);
      more_ = wider;
      more_capacity_ = count;
    }
    room = more_;
  }
  if (!platform::CopyGuarded(room, buffers, count * sizeof(WSABUF))) return false;
  count_ = count;
  return true;
}

void ReceiveBuffers::Wipe() const noexcept {
  for (std::uint32_t i = 0; i < count_; ++i) platform::WipeGuarded(array()[i].buf, array()[i].len);
}

void OverlappedContext::Reset(SOCKET owner, std::uint64_t new_ticket) noexcept {
  ticket = new_ticket;
  completed_at_once = refused_at_once = false;
  socket = owner;
  source = {};
  source_length = 0;
  caller_source = nullptr;
  caller_source_length = nullptr;
  caller_name_length = 0;
  caller_message = nullptr;
  buffers.Clear();
  caller_routine = nullptr;
}

void HandBackMessage(OverlappedContext* context) noexcept {
  WSAMSG* message = context->caller_message;
  if (!message) return;
  (void)platform::Guarded([&] {
    if (message->name != context->source.get()) return;
    context->source_length = message->namelen;
    message->name = context->caller_source;
    message->namelen = context->caller_name_length;
  });
}

// ---- The list ----

struct OverlappedContexts::Element : ListNode, HashNode<ByOverlapped>, HashNode<BySocket> {
  const OVERLAPPED* overlapped = nullptr;  // null when released
  bool claimed = false;                    // a thread is judging the datagram
  Element* next_free = nullptr;
  OverlappedContext context{};
};

OverlappedContexts::~OverlappedContexts() {
  for (ListNode *node = FirstNode(elements_), *next; node; node = next) {
    next = NextNode(node);
    delete static_cast<Element*>(node);
  }
}

OverlappedContexts::Element* OverlappedContexts::Find(const OVERLAPPED* overlapped) const noexcept {
  return by_overlapped_.Find(HashWord(reinterpret_cast<std::uintptr_t>(overlapped)),
                             [&](const Element& e) { return e.overlapped == overlapped; });
}

OverlappedContexts::Element* OverlappedContexts::NewElement() noexcept {
  if (Element* reused = free_) {
    free_ = reused->next_free;
    return reused;
  }
  if (elements_.count >= kMaxElements) {
    VORN_LOG_E("Overlapped context list is full");
    return nullptr;
  }
  auto* element = new (std::nothrow) Element;
  if (element) Append(elements_, element);
  return element;
}

// Holds the lock while it lives; where find yields an element that a thread has claimed, waits outside of the
// lock until that thread is done, and looks again.
class OverlappedContexts::UnclaimedElement {
 public:
  template <class Finder>
  UnclaimedElement(OverlappedContexts& list, Finder find) : list_(list) {
    list_.lock_.Enter();
    while ((element_ = find()) != nullptr && element_->claimed) {
      list_.lock_.Leave();
      Sleep(0);
      list_.lock_.Enter();
    }
  }
  ~UnclaimedElement() { list_.lock_.Leave(); }
  UnclaimedElement(const UnclaimedElement&) = delete;
  UnclaimedElement& operator=(const UnclaimedElement&) = delete;

  Element* get() const { return element_; }

 private:
  OverlappedContexts& list_;
  Element* element_;
};

OverlappedContext* OverlappedContexts::AcquireContext(const OVERLAPPED* overlapped, SOCKET socket) noexcept {
  if (!overlapped) return nullptr;
  const UnclaimedElement known(*this, [&] { return Find(overlapped); });
  Element* element = known.get();
  if (element) {
    if (IsDebugLogEnabled())
      VORN_LOG_I("Overlapped %p is not released", static_cast<const void*>(overlapped));
    HandBackMessage(&element->context);
    by_socket_.Remove(element);
  } else {
    element = NewElement();
    if (!element) return nullptr;
    element->overlapped = overlapped;
    by_overlapped_.Insert(element, HashWord(reinterpret_cast<std::uintptr_t>(overlapped)));
  }
  element->context.Reset(socket, ++last_ticket_);
  by_socket_.Insert(element, HashWord(socket));
  return &element->context;
}

OverlappedContext* OverlappedContexts::FindContext(const OVERLAPPED* overlapped,
                                                   std::uint64_t ticket) noexcept {
  const UnclaimedElement live(*this, [&] { return Find(overlapped); });
  Element* element = live.get();
  if (!element || (ticket && element->context.ticket != ticket)) return nullptr;
  element->claimed = true;
  return &element->context;
}

void OverlappedContexts::LeaveContext(const OVERLAPPED* overlapped) noexcept {
  platform::LockGuard lock(lock_);
  if (Element* element = Find(overlapped)) element->claimed = false;
}

void OverlappedContexts::Release(Element* element) noexcept {
  by_overlapped_.Remove(element);
  by_socket_.Remove(element);
  element->overlapped = nullptr;
  element->claimed = false;
  HandBackMessage(&element->context);
  element->context.Reset(INVALID_SOCKET, 0);
  element->next_free = free_;
  free_ = element;
}

void OverlappedContexts::ReleaseContext(const OVERLAPPED* overlapped) noexcept {
  platform::LockGuard lock(lock_);
  if (Element* element = Find(overlapped)) Release(element);
}

void OverlappedContexts::ReleaseSocketContexts(SOCKET socket) noexcept {
  if (socket == INVALID_SOCKET) return;
  const auto of_socket = [&](const Element& e) { return e.context.socket == socket; };
  for (;;) {
    const UnclaimedElement next(*this, [&] { return by_socket_.Find(HashWord(socket), of_socket); });
    if (!next.get()) return;
    Release(next.get());
  }
}

void OverlappedContexts::HandBackMessages() noexcept {
  platform::LockGuard lock(lock_);
  for (ListNode* node = FirstNode(elements_); node; node = NextNode(node)) {
    auto* element = static_cast<Element*>(node);
    if (element->overlapped) HandBackMessage(&element->context);
  }
}

std::int32_t OverlappedContexts::live_count() noexcept {
  platform::LockGuard lock(lock_);
  return static_cast<std::int32_t>(by_overlapped_.size());
}

std::int32_t OverlappedContexts::element_count() noexcept {
  platform::LockGuard lock(lock_);
  return elements_.count;
}

}  // namespace VornCore
