// The first message in each direction of a connection to the server port.
//
//   client -> server   Hello     who connects, and the local port through which it can be reached
//   server -> client   Welcome   whether it is accepted
//
// Process ids are not part of it: each side asks the pipe for its peer's.
#pragma once

#include <cstddef>
#include <cstdint>

namespace vorn::ipc {

inline constexpr uint32_t kHandshakeMagic = 0x43504956;  // "VIPC"
inline constexpr uint32_t kHandshakeVersion = 1;
inline constexpr size_t kMaxPortNameUnits = 240;

// How long the client waits for the server, in each step of the connection.
inline constexpr uint32_t kHandshakeTimeoutMs = 10'000;

struct Hello {
  uint32_t magic;
  uint32_t version;
  uint32_t tid;         // the connecting thread
  uint32_t name_units;  // of local_port, 1 to kMaxPortNameUnits
  wchar_t local_port[kMaxPortNameUnits];

  static constexpr size_t Bytes(size_t name_units) noexcept {
    return offsetof(Hello, local_port) + name_units * sizeof(wchar_t);
  }
};

struct Welcome {
  uint32_t magic;
  uint32_t accepted;  // 1 or 0
  uint32_t tid;       // a thread of the server
};

}  // namespace vorn::ipc
