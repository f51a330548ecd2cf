#include "ipc/port/pipe.h"

#include <algorithm>
#include <cwchar>
#include <new>

#include "ipc/ipc_interface.h"
#include "windows/user_only_security.h"

namespace vorn::ipc {

namespace {

constexpr wchar_t kPrefix[] = L"\\\\.\\pipe\\";
constexpr DWORD kBufferBytes = 64 * 1024;  // what the system takes before a writer has to wait for the reader

// Status of a finished overlapped operation. Read from the structure: GetOverlappedResult is a function that
// confined processes have intercepted.
DWORD ResultOf(const OVERLAPPED& overlapped) noexcept {
  const auto status = static_cast<NTSTATUS>(overlapped.Internal);
  return status == STATUS_SUCCESS ? 0 : RtlNtStatusToDosErrorNoTeb(status);
}

}  // namespace

PipePath::PipePath(const wchar_t* port_name) noexcept {
  path_[0] = 0;
  if (!port_name) return;
  const size_t units = wcslen(port_name);
  if (units == 0 || units > kMaxNameUnits || wcspbrk(port_name, L"\\/")) return;
  std::copy_n(kPrefix, std::size(kPrefix) - 1, path_);
  std::copy_n(port_name, units + 1, path_ + std::size(kPrefix) - 1);
}

DWORD CreatePipeInstance(const PipePath& path, Direction direction, bool first, DWORD instances,
                         UniqueHandle& pipe) noexcept {
  windows::UserOnlySecurity security;
  if (security.error()) return security.error();
  DWORD open_mode = FILE_FLAG_OVERLAPPED;
  open_mode |= direction == Direction::kIn ? PIPE_ACCESS_INBOUND : PIPE_ACCESS_DUPLEX;
  if (first) open_mode |= FILE_FLAG_FIRST_PIPE_INSTANCE;
  pipe.reset(
      CreateNamedPipeW(path.c_str(), open_mode,
                       PIPE_TYPE_MESSAGE | PIPE_READMODE_MESSAGE | PIPE_WAIT | PIPE_REJECT_REMOTE_CLIENTS,
                       instances, kBufferBytes, kBufferBytes, 0, security.attributes()));
  return pipe ? 0 : GetLastError();
}

DWORD OpenPipe(const PipePath& path, Direction server_direction, DWORD timeout_ms,
               UniqueHandle& pipe) noexcept {
  const DWORD access = server_direction == Direction::kIn ? GENERIC_WRITE | FILE_READ_ATTRIBUTES
                                                          : GENERIC_READ | GENERIC_WRITE;
  const ULONGLONG deadline = GetTickCount64() + timeout_ms;
  for (;;) {
    pipe.reset(CreateFileW(path.c_str(), access, 0, nullptr, OPEN_EXISTING,
                           FILE_FLAG_OVERLAPPED | SECURITY_SQOS_PRESENT | SECURITY_IDENTIFICATION, nullptr));
    if (pipe) break;
    if (GetLastError() != ERROR_PIPE_BUSY) return GetLastError();
    const ULONGLONG now = GetTickCount64();
    if (now >= deadline) return ERROR_SEM_TIMEOUT;
    // An instance that becomes free may be taken by somebody else before the next attempt: hence the loop.
    if (!WaitNamedPipeW(path.c_str(), static_cast<DWORD>(deadline - now)) &&
        GetLastError() != ERROR_SEM_TIMEOUT) {
      return GetLastError();
    }
  }
  if (server_direction == Direction::kIn) return 0;
  DWORD mode = PIPE_READMODE_MESSAGE;
  return SetNamedPipeHandleState(pipe.get(), &mode, nullptr, nullptr) ? 0 : GetLastError();
}

DWORD WriteMessage(HANDLE pipe, const void* data, uint32_t bytes, HANDLE event, HANDLE stop,
                   DWORD timeout_ms) noexcept {
  OVERLAPPED overlapped;
  return WriteMessage(pipe, data, bytes, overlapped, event, stop, timeout_ms);
}

DWORD WriteMessage(HANDLE pipe, const void* data, uint32_t bytes, OVERLAPPED& overlapped, HANDLE event,
                   HANDLE stop, DWORD timeout_ms) noexcept {
  overlapped.Internal = static_cast<ULONG_PTR>(STATUS_PENDING);
  overlapped.InternalHigh = 0;
  overlapped.Offset = overlapped.OffsetHigh = 0;
  // The low bit keeps the completion away from a completion port that the pipe is bound to.
  overlapped.hEvent = reinterpret_cast<HANDLE>(reinterpret_cast<ULONG_PTR>(event) | 1);
  if (WriteFile(pipe, data, bytes, nullptr, &overlapped)) return 0;
  if (GetLastError() != ERROR_IO_PENDING) return GetLastError();
  const HANDLE waits[] = {event, stop};
  switch (WaitForMultipleObjects(stop ? 2 : 1, waits, FALSE, timeout_ms)) {
    case WAIT_OBJECT_0:
      return ResultOf(overlapped);
    case WAIT_OBJECT_0 + 1:
      CancelAndWait(pipe, overlapped);
      return ERROR_OPERATION_ABORTED;
    default:
      CancelAndWait(pipe, overlapped);
      return WAIT_TIMEOUT;
  }
}

bool MessageReader::Reserve(uint32_t bytes) noexcept {
  if (bytes <= capacity_) return true;
  std::unique_ptr<uint8_t[]> bigger(new (std::nothrow) uint8_t[bytes]);
  if (!bigger) return false;
  std::copy_n(buffer_.get(), size_, bigger.get());
  buffer_ = std::move(bigger);
  capacity_ = bytes;
  return true;
}

DWORD MessageReader::Start(HANDLE pipe) noexcept {
  size_ = 0;
  dropping_ = false;
  if (!Reserve(kFirstBytes)) return ERROR_NOT_ENOUGH_MEMORY;
  return ReadPiece(pipe);
}

DWORD MessageReader::ReadPiece(HANDLE pipe) noexcept {
  HANDLE event = overlapped_.hEvent;
  overlapped_ = {};
  overlapped_.hEvent = event;
  if (ReadFile(pipe, buffer_.get() + size_, capacity_ - size_, nullptr, &overlapped_)) return 0;
  const DWORD error = GetLastError();
  // Part of a message at once is a completion like any other.
  return error == ERROR_IO_PENDING || error == ERROR_MORE_DATA ? 0 : error;
}

MessageReader::Outcome MessageReader::Fail(DWORD error) noexcept {
  error_ = error;
  return Outcome::kFailed;
}

MessageReader::Outcome MessageReader::Finish(HANDLE pipe) noexcept {
  const auto status = static_cast<NTSTATUS>(overlapped_.Internal);
  if (status != STATUS_SUCCESS && status != STATUS_BUFFER_OVERFLOW) return Fail(ResultOf(overlapped_));
  if (!dropping_) size_ += static_cast<uint32_t>(overlapped_.InternalHigh);
  if (status == STATUS_SUCCESS) {
    if (!dropping_) return Outcome::kMessage;
    size_ = 0;
    return Outcome::kTooLong;
  }
  DWORD left = 0;
  if (!PeekNamedPipe(pipe, nullptr, 0, nullptr, nullptr, &left)) return Fail(GetLastError());
  if (dropping_ || left > kMaxMessageBytes - size_) {
    dropping_ = true;
    size_ = 0;
  } else if (!Reserve(size_ + std::max<DWORD>(left, 1))) {
    return Fail(ERROR_NOT_ENOUGH_MEMORY);
  }
  const DWORD error = ReadPiece(pipe);
  return error ? Fail(error) : Outcome::kReading;
}

void CancelAndWait(HANDLE pipe, OVERLAPPED& overlapped) noexcept {
  CancelIoEx(pipe, &overlapped);  // fails when it has just ended; the event is set either way
  const auto event = reinterpret_cast<HANDLE>(reinterpret_cast<ULONG_PTR>(overlapped.hEvent) & ~ULONG_PTR{1});
  WaitForSingleObject(event, INFINITE);
}

}  // namespace vorn::ipc
