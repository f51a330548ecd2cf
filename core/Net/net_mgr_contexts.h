// Overlapped receives in flight: what the library needs to judge a datagram once its source is known, on
// whichever completion path comes first.
//
//   call starts      Acquire(overlapped): the library's own source buffer goes to the real call
//   call completes   Find(overlapped) → judge, hand over or wipe → Release(overlapped) or Leave(overlapped)
//
//   elements_ ─► element ─► element ─► …      never freed; released ones are used again
//   by_overlapped_   OVERLAPPED → its element
//   free_            released elements, the one released last first
//
// Any thread; one lock over the list, which is not held while a datagram is judged. Several threads may learn
// of one operation's end at the same time (the caller, when it completed at once, and a thread of a
// completion port): the first one to find the context has it to itself, the others wait for the moment that
// judging takes.
#pragma once

#include <cstdint>

#include "Net/net_helper.h"
#include "Platform/lock.h"
#include "VornCore/Base/hash_index.h"
#include "VornCore/Base/list.h"

namespace VornCore {

// The caller's receive buffers. Winsock lets an overlapped call describe them on the caller's stack, so the
// description is copied; the memory that it describes stays the caller's.
class ReceiveBuffers {
 public:
  ReceiveBuffers() = default;
  ~ReceiveBuffers() { free(more_); }
  ReceiveBuffers(const ReceiveBuffers&) = delete;
  ReceiveBuffers& operator=(const ReceiveBuffers&) = delete;

  // False when the array cannot be read or memory is short.
  [[nodiscard]] bool Capture(const WSABUF* buffers, std::uint32_t count) noexcept;
  void Clear() { count_ = 0; }
  void Wipe() const noexcept;  // zeroes what can be written

 private:
  static constexpr std::uint32_t kFew = 4;
  const WSABUF* array() const { return count_ <= kFew ? few_ : more_; }

  std::uint32_t count_ = 0;
  std::uint32_t more_capacity_ = 0;  // kept for the next use
  WSABUF* more_ = nullptr;
  WSABUF few_[kFew];
};

struct OverlappedContext {
  std::uint64_t ticket;              // of this operation; never 0
  bool completed_at_once;            // the receive call itself completed and the datagram was checked
  bool refused_at_once;              // that check refused it: the call returned -1
  SOCKET socket;                     // INVALID_SOCKET when released
  net_helper::SocketAddress source;  // given to the real call
  int source_length;                 // kAddressBytes before the call, the received length after it
  sockaddr* caller_source;           // where the caller wanted it; may be null
  int* caller_source_length;         // may be null
  int caller_name_length;            // WSARecvMsg: the message's name length before the call
  WSAMSG* caller_message;            // WSARecvMsg, else null
  ReceiveBuffers buffers;
  LPWSAOVERLAPPED_COMPLETION_ROUTINE caller_routine;

  void Reset(SOCKET owner, std::uint64_t new_ticket) noexcept;  // everything else zero
};

class OverlappedContexts {
 public:
  static constexpr std::int32_t kMaxElements = 500'000;

  OverlappedContexts() = default;
  ~OverlappedContexts();
  OverlappedContexts(const OverlappedContexts&) = delete;
  OverlappedContexts& operator=(const OverlappedContexts&) = delete;

  // A zeroed context for this receive. An OVERLAPPED whose last receive was never completed through any path
  // gets its element again. Null for a null OVERLAPPED, a full list, or short memory.
  OverlappedContext* AcquireContext(const OVERLAPPED* overlapped, SOCKET socket) noexcept;
  // The live context, for this thread alone until it releases or leaves it; null when there is none. With the
  // ticket of an acquired context: null, too, when the OVERLAPPED belongs to another operation by now.
  OverlappedContext* FindContext(const OVERLAPPED* overlapped, std::uint64_t ticket = 0) noexcept;
  void LeaveContext(const OVERLAPPED* overlapped) noexcept;  // it stays live
  void ReleaseContext(const OVERLAPPED* overlapped) noexcept;
  void ReleaseSocketContexts(SOCKET socket) noexcept;
  void HandBackMessages() noexcept;  // of every live context

  std::int32_t live_count() noexcept;
  std::int32_t element_count() noexcept;

 private:
  struct ByOverlapped;
  struct BySocket;
  struct Element;

  class UnclaimedElement;

  Element* Find(const OVERLAPPED* overlapped) const noexcept;
  Element* NewElement() noexcept;
  void Release(Element* element) noexcept;

  platform::CriticalSection lock_;
  ListHead elements_;
  Element* free_ = nullptr;
  std::uint64_t last_ticket_ = 0;
  HashIndex<Element, ByOverlapped> by_overlapped_;
  HashIndex<Element, BySocket> by_socket_;
};

// WSARecvMsg: gives the message its own name buffer back and takes the length that Winsock produced. A
// message that was handed back, or is no longer readable, is left alone.
void HandBackMessage(OverlappedContext* context) noexcept;

}  // namespace VornCore
