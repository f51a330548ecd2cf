#include "ipc/port/process_port.h"

#include <cstdio>
#include <cstring>
#include <cwchar>

#include "ipc/port/handshake.h"

namespace vorn::ipc {

namespace {

UniqueHandle ManualResetEvent() { return UniqueHandle(CreateEventW(nullptr, TRUE, FALSE, nullptr)); }

void CopyName(char (&to)[256], const wchar_t* name) {
  ULONG bytes = 0;
  RtlUnicodeToUTF8N(to, sizeof to - 1, &bytes, name, static_cast<ULONG>(wcslen(name) * sizeof(wchar_t)));
  to[bytes] = 0;
}

}  // namespace

bool ProcessPort::ReportText(const char* text) {
  if (callbacks_.OnIpcError) callbacks_.OnIpcError(callbacks_.context, text);
  return false;
}

bool ProcessPort::Report(const char* what, DWORD error) {
  char text[160];
  _snprintf(text, sizeof text, "ipc: %s, error %lu", what, error);
  text[sizeof text - 1] = 0;
  return ReportText(text);
}

bool ProcessPort::Authenticate(const Peer& peer) {
  return !callbacks_.OnConnectAuth ||
         callbacks_.OnConnectAuth(callbacks_.context, peer.pid, peer.tid, peer.port_name);
}

bool ProcessPort::Init(const wchar_t* local_port, const wchar_t* server_port, const IpcCallbacks* callbacks) {
  if (!callbacks) return false;
  callbacks_ = *callbacks;
  stop_ = ManualResetEvent();
  send_event_ = ManualResetEvent();
  server_event_ = ManualResetEvent();
  local_event_ = ManualResetEvent();
  if (!stop_ || !send_event_ || !server_event_ || !local_event_) return Report("no event", GetLastError());
  server_reader_.SetEvent(server_event_.get());
  local_reader_.SetEvent(local_event_.get());
  if (!OpenLocalPort(local_port) || !ConnectToServer(server_port, local_port)) {
    UnInit();
    return false;
  }
  return true;
}

bool ProcessPort::OpenLocalPort(const wchar_t* name) {
  const PipePath path(name);
  if (!path.valid()) return Report("the local port's name cannot be used", ERROR_INVALID_NAME);
  const DWORD error = CreatePipeInstance(path, Direction::kIn, /*first=*/true, /*instances=*/1, local_);
  if (error) return Report("cannot open the local port", error);
  CopyName(local_peer_.port_name, name);
  return true;
}

bool ProcessPort::ConnectToServer(const wchar_t* server_port, const wchar_t* local_port) {
  const PipePath path(server_port);
  if (!path.valid()) return Report("the server port's name cannot be used", ERROR_INVALID_NAME);
  const DWORD error = OpenPipe(path, Direction::kBoth, kHandshakeTimeoutMs, server_);
  if (error) return Report("cannot connect to the server port", error);
  CopyName(server_peer_.port_name, server_port);
  ULONG pid = 0;
  if (!GetNamedPipeServerProcessId(server_.get(), &pid)) {
    return Report("the server's process is unknown", GetLastError());
  }
  server_peer_.pid = pid;
  if (!ShakeHands(local_port)) return false;
  if (!Authenticate(server_peer_)) return ReportText("ipc: the server was refused");
  return true;
}

bool ProcessPort::ShakeHands(const wchar_t* local_port) {
  Hello hello{};
  hello.magic = kHandshakeMagic;
  hello.version = kHandshakeVersion;
  hello.tid = GetCurrentThreadId();
  hello.name_units = static_cast<uint32_t>(wcslen(local_port));
  memcpy(hello.local_port, local_port, hello.name_units * sizeof(wchar_t));
  DWORD error = WriteMessage(server_.get(), &hello, static_cast<uint32_t>(Hello::Bytes(hello.name_units)),
                             send_event_.get(), nullptr, kHandshakeTimeoutMs);
  if (error) return Report("cannot greet the server", error);

  error = server_reader_.Start(server_.get());
  auto outcome = MessageReader::Outcome::kReading;
  while (!error && outcome == MessageReader::Outcome::kReading) {
    if (WaitForSingleObject(server_event_.get(), kHandshakeTimeoutMs) != WAIT_OBJECT_0) {
      CancelAndWait(server_.get(), *server_reader_.overlapped());
      error = WAIT_TIMEOUT;
    } else {
      outcome = server_reader_.Finish(server_.get());
      if (outcome == MessageReader::Outcome::kFailed) error = server_reader_.error();
    }
  }
  if (error) return Report("the server does not answer", error);
  Welcome welcome;
  if (outcome != MessageReader::Outcome::kMessage || server_reader_.size() != sizeof welcome) {
    return ReportText("ipc: the server's answer is not a welcome");
  }
  memcpy(&welcome, server_reader_.data(), sizeof welcome);
  if (welcome.magic != kHandshakeMagic) return ReportText("ipc: the server's answer is not a welcome");
  if (welcome.accepted != 1) return ReportText("ipc: the server refused this process");
  server_peer_.tid = welcome.tid;
  return true;
}

// Nothing reads into this object's buffers afterwards.
void ProcessPort::StopReading() {
  if (server_reading_) CancelAndWait(server_.get(), *server_reader_.overlapped());
  if (local_state_ == LocalState::kListening) CancelAndWait(local_.get(), connect_);
  if (local_state_ == LocalState::kReading) CancelAndWait(local_.get(), *local_reader_.overlapped());
  server_reading_ = false;
  local_state_ = LocalState::kClosed;
}

void ProcessPort::UnInit() {
  StopReading();  // the thread in RecvLoop may have been terminated
  server_.reset();
  local_.reset();
}

bool ProcessPort::Stop() { return stop_ && SetEvent(stop_.get()); }

bool ProcessPort::Send(const void* data, std::uint32_t bytes, std::uint32_t) {
  if (!server_) return ReportText("ipc: send without a connection");
  if (!data || bytes == 0) return ReportText("ipc: an empty message was not sent");
  if (bytes > kMaxMessageBytes) {
    char text[128];
    _snprintf(text, sizeof text, "ipc: a message of %lu bytes was not sent, the longest allowed has %lu",
              static_cast<unsigned long>(bytes), static_cast<unsigned long>(kMaxMessageBytes));
    return ReportText(text);
  }
  const DWORD error = RtlDllShutdownInProgress() ? SendAtProcessEnd(data, bytes) : SendLocked(data, bytes);
  return error ? Report("a message was not sent", error) : true;
}

DWORD ProcessPort::SendLocked(const void* data, std::uint32_t bytes) {
  AcquireSRWLockExclusive(&send_lock_);
  send_.Internal = static_cast<ULONG_PTR>(STATUS_PENDING);
  sending_.store(data, std::memory_order_release);
  const DWORD error =
      WriteMessage(server_.get(), data, bytes, send_, send_event_.get(), stop_.get(), INFINITE);
  ReleaseSRWLockExclusive(&send_lock_);
  return error;
}

// The process is ending and this is its only thread: whoever held the lock is gone, with what it had under
// way on the event. What it had sent is not sent again.
DWORD ProcessPort::SendAtProcessEnd(const void* data, std::uint32_t bytes) {
  if (sending_.exchange(nullptr) == data && static_cast<NTSTATUS>(send_.Internal) == STATUS_SUCCESS) return 0;
  const UniqueHandle event = ManualResetEvent();
  if (!event) return GetLastError();
  return WriteMessage(server_.get(), data, bytes, event.get(), stop_.get(), INFINITE);
}

bool ProcessPort::RecvLoop() {
  if (!server_) return false;
  SetServerReading(server_reader_.Start(server_.get()) == 0);
  Listen();
  for (;;) {
    HANDLE waits[3] = {stop_.get()};
    DWORD count = 1;
    const DWORD server_index = server_reading_ ? count++ : 0;
    if (server_index) waits[server_index] = server_event_.get();
    const DWORD local_index = local_state_ != LocalState::kClosed ? count++ : 0;
    if (local_index) waits[local_index] = local_event_.get();

    const DWORD signalled = WaitForMultipleObjects(count, waits, FALSE, INFINITE);
    if (signalled != WAIT_OBJECT_0 && server_index && signalled == WAIT_OBJECT_0 + server_index) {
      SetServerReading(Deliver(server_.get(), server_reader_));
    } else if (signalled != WAIT_OBJECT_0 && local_index && signalled == WAIT_OBJECT_0 + local_index) {
      OnLocalEvent();
    } else {
      break;
    }
  }
  StopReading();
  return true;
}

bool ProcessPort::Deliver(HANDLE pipe, MessageReader& reader) {
  switch (reader.Finish(pipe)) {
    case MessageReader::Outcome::kReading:
      return true;
    case MessageReader::Outcome::kFailed:
      return false;
    case MessageReader::Outcome::kTooLong:
      ReportText("ipc: a message above the longest allowed length was dropped");
      break;
    case MessageReader::Outcome::kMessage:
      if (callbacks_.OnRecvData) callbacks_.OnRecvData(callbacks_.context, reader.data(), reader.size());
      break;
  }
  return reader.Start(pipe) == 0;
}

// alive: a read of the server's pipe is under way.
void ProcessPort::SetServerReading(bool alive) {
  server_reading_ = alive;
  if (alive || !callbacks_.OnDisconnectNotify) return;
  callbacks_.OnDisconnectNotify(callbacks_.context, server_peer_.pid, server_peer_.tid,
                                server_peer_.port_name);
}

// Every outcome arrives through the event, also one that is known at once: RecvLoop goes on from there.
void ProcessPort::Listen() {
  local_state_ = LocalState::kListening;
  connect_ = {};
  connect_.hEvent = local_event_.get();
  if (ConnectNamedPipe(local_.get(), &connect_)) return;
  const DWORD error = GetLastError();
  if (error == ERROR_IO_PENDING) return;
  if (error != ERROR_PIPE_CONNECTED && error != ERROR_NO_DATA) {
    Report("the local port does not listen", error);
    local_state_ = LocalState::kClosed;
    return;
  }
  // ERROR_NO_DATA: somebody connected and has left already.
  connect_.Internal =
      static_cast<ULONG_PTR>(error == ERROR_PIPE_CONNECTED ? STATUS_SUCCESS : STATUS_PIPE_CLOSING);
  SetEvent(local_event_.get());
}

void ProcessPort::OnLocalEvent() {
  const bool alive = local_state_ == LocalState::kReading
                         ? Deliver(local_.get(), local_reader_)
                         : static_cast<NTSTATUS>(connect_.Internal) == STATUS_SUCCESS && HostConnected();
  if (alive) return;
  DisconnectNamedPipe(local_.get());
  Listen();
}

// The local port is for the process that serves the server port, and for nobody else.
bool ProcessPort::HostConnected() {
  ULONG pid = 0;
  GetNamedPipeClientProcessId(local_.get(), &pid);
  local_peer_.pid = pid;
  local_peer_.tid = server_peer_.tid;
  if (pid == 0 || pid != server_peer_.pid) {
    return ReportText("ipc: a process other than the server was refused at the local port");
  }
  if (!Authenticate(local_peer_)) return ReportText("ipc: the server was refused at the local port");
  local_state_ = LocalState::kReading;
  return local_reader_.Start(local_.get()) == 0;
}

}  // namespace vorn::ipc
