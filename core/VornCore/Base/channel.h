// The host channel: complete messages in, over a bounded queue and the host's transport to the host.
//
//   EncodeAndSend(vorn::policy::FileAudit{…});   // a message of Policy/message.h
//   SendToHost(message, size);                    // complete bytes; copies, the caller keeps its buffer
//
// Producers never wait for the host. Any thread may send, also inside intercepted calls.
#pragma once

#include <atomic>
#include <cstdint>

#include "Platform/heap.h"
#include "Policy/message.h"
#include "windows/nt.h"

namespace VornCore {

// Writes magic, time, type, subtype, this process's id, payload length and flag into the first 29 bytes of
// message.
void InitTipHeader(void* message, std::uint16_t type, std::uint16_t subtype, std::uint32_t payload_length,
                   std::uint8_t flag) noexcept;

// True when a copy of the message is in the outgoing queue. False when the channel is not running, the
// message is shorter than 30 bytes or has no magic, is part of a flood, or the queue is full.
bool SendToHost(const void* message, std::uint32_t bytes) noexcept;

// This process, now: the origin of the messages that it sends.
vorn::policy::MessageOrigin OriginNow() noexcept;

// Encodes a message of Policy/message.h into a block of its size and calls take(bytes, size). False when
// memory is short; a message that is not taken is no failure here.
template <class Message>
bool EncodeInto(const Message& message, bool (*take)(const void* message, std::uint32_t bytes)) noexcept {
  const std::size_t size = EncodedSize(message);
  platform::HeapPtr<std::byte> block(static_cast<std::byte*>(malloc(size)));
  if (!block) return false;
  if (Encode(message, OriginNow(), {block.get(), size}) != 0)
    (void)take(block.get(), static_cast<std::uint32_t>(size));
  return true;
}
template <class Message>
bool EncodeAndSend(const Message& message) noexcept {
  return EncodeInto(message, SendToHost);
}

// Builds and sends a type-4 message. path: NT device path or host name (UTF-16, terminated) or null; device
// paths are sent in drive-letter form. Not throttled: the fronts below are.
void SendSample(std::uint64_t first, std::uint64_t second, std::uint32_t third, std::uint16_t subtype,
                const wchar_t* text) noexcept;

// The throttle of a sample subtype: true at most once in two seconds of the given times (microseconds), for
// one caller.
bool MaySendSample(std::atomic<std::uint64_t>& last_sent, std::uint64_t now) noexcept;

namespace channel {

// Starts the transport and the queues, tells the host of this process, and starts the three threads; with the
// option kOnDemand each is started when there is something for it to do. port: the host's server port. Called
// during process attach: it waits for none of its threads.
[[nodiscard]] bool Init(const wchar_t* port, bool terminate_on_disconnect) noexcept;
bool UnInit() noexcept;

// Sends what is still queued, as far as the host takes it at once. Called as the process ends, when its other
// threads are gone: what a process was refused last, right before it ended, is what its host asks about
// first.
void FlushAtProcessEnd() noexcept;

// How a producer's path becomes the host's path: converts an NT device path to drive-letter form in place.
// Set by the file room before the channel starts (the channel stands below it); null leaves paths as they
// are.
using PathConverter = bool (*)(wchar_t* path);
void SetPathConverter(PathConverter converter) noexcept;

}  // namespace channel
}  // namespace VornCore
