// Named pipes in message mode with overlapped I/O: what both ends of a port are made of.
//
// A port name is the part of the pipe's name after "\\.\pipe\" (UTF-16, 1 to 240 units, no slash of either
// kind: the system takes both for separators, and "../C:/file" would leave the pipes). All handles are
// overlapped. Results are Win32 error codes, 0 for success.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>

#include "windows/nt.h"
#include "windows/unique_handle.h"

namespace vorn::ipc {

using windows::UniqueHandle;

class PipePath {
 public:
  explicit PipePath(const wchar_t* port_name) noexcept;
  bool valid() const noexcept { return path_[0] != 0; }
  const wchar_t* c_str() const noexcept { return path_; }

 private:
  static constexpr size_t kMaxNameUnits = 240;
  wchar_t path_[kMaxNameUnits + 16];
};

enum class Direction { kIn, kBoth };

// Makes one instance of a server pipe that only the current user of this machine may open. first: fail with
// ERROR_ACCESS_DENIED when anybody has made a pipe of this name. instances: how many may exist at once, 1 to
// 255 (255: any number).
[[nodiscard]] DWORD CreatePipeInstance(const PipePath& path, Direction direction, bool first, DWORD instances,
                                       UniqueHandle& pipe) noexcept;

// Opens the client end. Waits up to timeout_ms while every instance is taken; no server: ERROR_FILE_NOT_FOUND
// at once. The server cannot act in the caller's name (identification only).
[[nodiscard]] DWORD OpenPipe(const PipePath& path, Direction server_direction, DWORD timeout_ms,
                             UniqueHandle& pipe) noexcept;

// Writes one message and waits until the system has taken it, timeout_ms passed (WAIT_TIMEOUT) or the
// optional event stop is set (ERROR_OPERATION_ABORTED). event: a manual-reset event of the caller's, used for
// the wait.
[[nodiscard]] DWORD WriteMessage(HANDLE pipe, const void* data, uint32_t bytes, HANDLE event, HANDLE stop,
                                 DWORD timeout_ms) noexcept;
// The same with the caller's structure. Its Internal is STATUS_PENDING until the system has taken the
// message, so that it also tells what became of a write whose thread is gone.
[[nodiscard]] DWORD WriteMessage(HANDLE pipe, const void* data, uint32_t bytes, OVERLAPPED& overlapped,
                                 HANDLE event, HANDLE stop, DWORD timeout_ms) noexcept;

// Reads whole messages, in however many pieces the system hands them out. One read is under way at a time;
// its completion is told by the event (if any) or at the completion port that the pipe is bound to. The
// reader must stay where it is until then.
class MessageReader {
 public:
  MessageReader() noexcept = default;
  MessageReader(const MessageReader&) = delete;
  MessageReader& operator=(const MessageReader&) = delete;

  // event: manual-reset, or null for completion ports.
  void SetEvent(HANDLE event) noexcept { overlapped_.hEvent = event; }
  OVERLAPPED* overlapped() noexcept { return &overlapped_; }

  // Begins to read the next message. Not 0: no completion will come.
  [[nodiscard]] DWORD Start(HANDLE pipe) noexcept;

  // After a completion. kReading: another piece of the message is being read. kTooLong: a message above
  // kMaxMessageBytes was dropped (to be reported); the next Start reads the next message. kFailed: error().
  enum class Outcome { kMessage, kReading, kTooLong, kFailed };
  [[nodiscard]] Outcome Finish(HANDLE pipe) noexcept;

  const uint8_t* data() const noexcept { return buffer_.get(); }
  uint32_t size() const noexcept { return size_; }
  DWORD error() const noexcept { return error_; }

 private:
  static constexpr uint32_t kFirstBytes = 4096;

  [[nodiscard]] bool Reserve(uint32_t bytes) noexcept;
  [[nodiscard]] DWORD ReadPiece(HANDLE pipe) noexcept;
  Outcome Fail(DWORD error) noexcept;

  OVERLAPPED overlapped_{};
  std::unique_ptr<uint8_t[]> buffer_;
  uint32_t capacity_ = 0;
  uint32_t size_ = 0;      // bytes of the message read so far
  bool dropping_ = false;  // the message is too long: its pieces overwrite each other
  DWORD error_ = 0;
};

// Cancels what is under way on the pipe for this overlapped structure and waits for its event (manual-reset):
// then nothing uses the structure or its buffer any more.
void CancelAndWait(HANDLE pipe, OVERLAPPED& overlapped) noexcept;

}  // namespace vorn::ipc
