#include "vorn/message_server.h"

#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <cstring>
#include <map>
#include <mutex>
#include <thread>
#include <unordered_map>

#include "ipc/ipc_interface.h"
#include "ipc/port/handshake.h"
#include "ipc/port/pipe.h"
#include "vorn/text.h"

namespace vorn::host {

namespace {

using ipc::MessageReader;
using windows::UniqueHandle;

// Instances that wait for a process at any time, so that a burst of starts finds a free one.
constexpr std::size_t kListening = 8;
constexpr DWORD kSendTimeoutMs = 5000;
// Completion keys other than connections.
constexpr ULONG_PTR kStopKey = 0, kDrainKey = 1;

std::error_code SystemError(DWORD error) { return {static_cast<int>(error), std::system_category()}; }

UniqueHandle ManualResetEvent() {
  UniqueHandle event(CreateEventW(nullptr, TRUE, FALSE, nullptr));
  if (!event) throw std::system_error(SystemError(GetLastError()), "event");
  return event;
}

// The way back: a connection to the process's local port, made at the first message.
struct ReturnPath {
  std::mutex mutex;
  UniqueHandle pipe;
};

// One instance of the server pipe. Exactly one operation is under way on it until it is closed.
struct Connection {
  enum class State { kListening, kGreeting, kOpen, kRefused };

  UniqueHandle pipe;
  OVERLAPPED connect{};
  MessageReader reader;
  State state = State::kListening;
  Peer peer;
  std::shared_ptr<ReturnPath> return_path = std::make_shared<ReturnPath>();
};

}  // namespace

class MessageServer::Impl {
 public:
  Impl(std::wstring name, MessageHandlers handlers)
      : name_(std::move(name)), path_(name_.c_str()), handlers_(std::move(handlers)) {
    if (!path_.valid()) throw std::system_error(SystemError(ERROR_INVALID_NAME), "server port");
    write_event_ = ManualResetEvent();
    port_.reset(CreateIoCompletionPort(INVALID_HANDLE_VALUE, nullptr, 0, 1));
    if (!port_) throw std::system_error(SystemError(GetLastError()), "server port");
    for (std::size_t i = 0; i < kListening; ++i) {
      const DWORD error = AddListener(/*first=*/i == 0);
      if (error) throw std::system_error(SystemError(error), "server port");
    }
    thread_ = std::thread([this] { Run(); });
  }

  ~Impl() { Stop(); }

  const std::wstring& name() const noexcept { return name_; }

  std::size_t connections() const {
    std::lock_guard lock(mutex_);
    return busy_;
  }

  bool WaitUntilIdle(std::chrono::milliseconds timeout) {
    std::unique_lock lock(mutex_);
    // Behind everything that the completion port holds already, such as a connection not yet seen.
    const std::uint64_t fence = ++fences_posted_;
    PostQueuedCompletionStatus(port_.get(), 0, kDrainKey, nullptr);
    return idle_.wait_for(lock, timeout, [&] { return fences_passed_ >= fence && busy_ == 0; });
  }

  void Stop() {
    if (!thread_.joinable()) return;
    PostQueuedCompletionStatus(port_.get(), 0, kStopKey, nullptr);
    thread_.join();
  }

  std::error_code Send(std::uint32_t pid, std::span<const std::byte> message) {
    if (message.empty() || message.size() > ipc::kMaxMessageBytes)
      return SystemError(ERROR_INVALID_PARAMETER);
    std::shared_ptr<ReturnPath> way;
    std::wstring port;
    {
      std::lock_guard lock(mutex_);
      const auto found = reachable_.find(pid);
      if (found == reachable_.end()) return SystemError(ERROR_NOT_FOUND);
      way = found->second->return_path;
      port = found->second->peer.port;
    }
    std::lock_guard lock(way->mutex);
    DWORD error = way->pipe ? 0 : OpenReturnPath(pid, port, way->pipe);
    if (error) return SystemError(error);
    const UniqueHandle event = ManualResetEvent();
    error = ipc::WriteMessage(way->pipe.get(), message.data(), static_cast<std::uint32_t>(message.size()),
                              event.get(), nullptr, kSendTimeoutMs);
    if (error) way->pipe.reset();
    return SystemError(error);
  }

 private:
  static DWORD OpenReturnPath(std::uint32_t pid, const std::wstring& port, UniqueHandle& pipe) {
    UniqueHandle opened;
    const DWORD error =
        ipc::OpenPipe(ipc::PipePath(port.c_str()), ipc::Direction::kIn, kSendTimeoutMs, opened);
    if (error) return error;
    // A name is no proof: the process behind the port must be the one that introduced itself with it.
    ULONG server = 0;
    if (!GetNamedPipeServerProcessId(opened.get(), &server)) return GetLastError();
    if (server != pid) return ERROR_ACCESS_DENIED;
    pipe = std::move(opened);
    return 0;
  }

  DWORD AddListener(bool first) {
    auto connection = std::make_unique<Connection>();
    DWORD error = ipc::CreatePipeInstance(path_, ipc::Direction::kBoth, first, PIPE_UNLIMITED_INSTANCES,
                                          connection->pipe);
    if (error) return error;
    const auto key = reinterpret_cast<ULONG_PTR>(connection.get());
    if (!CreateIoCompletionPort(connection->pipe.get(), port_.get(), key, 0)) return GetLastError();
    if (!ConnectNamedPipe(connection->pipe.get(), &connection->connect)) {
      error = GetLastError();
      if (error == ERROR_PIPE_CONNECTED || error == ERROR_NO_DATA) {
        // No completion comes by itself. (A client that has left already shows at the first read.)
        connection->connect.Internal = 0;
        if (!PostQueuedCompletionStatus(port_.get(), 0, key, &connection->connect)) return GetLastError();
      } else if (error != ERROR_IO_PENDING) {
        return error;
      }
    }
    Connection* raw = connection.get();
    connections_.emplace(raw, std::move(connection));
    return 0;
  }

  void Run() {
    for (;;) {
      DWORD bytes = 0;
      ULONG_PTR key = 0;
      OVERLAPPED* overlapped = nullptr;
      // A failed operation's error stands in its OVERLAPPED.
      if (!GetQueuedCompletionStatus(port_.get(), &bytes, &key, &overlapped, INFINITE) && !overlapped) break;
      if (key == kStopKey) break;
      if (key == kDrainKey) {
        std::lock_guard lock(mutex_);
        ++fences_passed_;
        idle_.notify_all();
        continue;
      }
      auto* connection = reinterpret_cast<Connection*>(key);
      if (!OnCompletion(*connection)) Close(*connection);
    }
    Shutdown();
  }

  // Ends what is under way everywhere and takes the completions, so that no buffer is in use any more.
  void Shutdown() {
    for (auto& entry : connections_) CancelIoEx(entry.first->pipe.get(), nullptr);
    while (!connections_.empty()) {
      DWORD bytes = 0;
      ULONG_PTR key = 0;
      OVERLAPPED* overlapped = nullptr;
      if (!GetQueuedCompletionStatus(port_.get(), &bytes, &key, &overlapped, INFINITE) && !overlapped) break;
      if (overlapped) connections_.erase(reinterpret_cast<Connection*>(key));
    }
    std::lock_guard lock(mutex_);
    reachable_.clear();
    busy_ = 0;
    fences_passed_ = UINT64_MAX;
    idle_.notify_all();
  }

  // True while another operation is under way on the connection.
  bool OnCompletion(Connection& connection) {
    if (connection.state == Connection::State::kListening) return OnConnected(connection);
    switch (connection.reader.Finish(connection.pipe.get())) {
      case MessageReader::Outcome::kReading:
        return true;
      case MessageReader::Outcome::kFailed:
        return false;
      case MessageReader::Outcome::kTooLong:
        Error("a message above 1 MiB from process " + std::to_string(connection.peer.pid) + " was dropped");
        break;
      case MessageReader::Outcome::kMessage:
        if (!OnMessage(connection)) return false;
        break;
    }
    return connection.reader.Start(connection.pipe.get()) == 0;
  }

  // False ends the connection.
  bool OnMessage(Connection& connection) {
    if (connection.state == Connection::State::kGreeting) return OnHello(connection);
    if (connection.state == Connection::State::kRefused) return false;
    if (handlers_.on_message) {
      handlers_.on_message(connection.peer,
                           std::as_bytes(std::span(connection.reader.data(), connection.reader.size())));
    }
    return true;
  }

  bool OnConnected(Connection& connection) {
    const DWORD error = AddListener(/*first=*/false);
    if (error) Error("the server port accepts fewer processes: " + Win32ErrorText(error));
    connection.state = Connection::State::kGreeting;
    {
      std::lock_guard lock(mutex_);
      ++busy_;
    }
    if (static_cast<NTSTATUS>(connection.connect.Internal) != STATUS_SUCCESS) return false;
    ULONG pid = 0;
    if (!GetNamedPipeClientProcessId(connection.pipe.get(), &pid)) return false;
    connection.peer.pid = pid;
    return connection.reader.Start(connection.pipe.get()) == 0;
  }

  bool OnHello(Connection& connection) {
    ipc::Hello hello{};
    const std::size_t bytes = connection.reader.size();
    if (bytes > sizeof hello || bytes < ipc::Hello::Bytes(1)) return RefuseGreeting(connection);
    std::memcpy(&hello, connection.reader.data(), bytes);
    if (hello.magic != ipc::kHandshakeMagic || hello.version != ipc::kHandshakeVersion ||
        hello.name_units > ipc::kMaxPortNameUnits || bytes != ipc::Hello::Bytes(hello.name_units)) {
      return RefuseGreeting(connection);
    }
    Peer& peer = connection.peer;
    peer.tid = hello.tid;
    peer.port.assign(hello.local_port, hello.name_units);
    if (!ipc::PipePath(peer.port.c_str()).valid()) return RefuseGreeting(connection);
    const bool accepted = !handlers_.on_connect || handlers_.on_connect(peer);
    if (accepted) {
      connection.state = Connection::State::kOpen;
      std::lock_guard lock(mutex_);
      reachable_[peer.pid] = &connection;
    }
    const ipc::Welcome welcome{ipc::kHandshakeMagic, accepted ? 1u : 0u, GetCurrentThreadId()};
    const DWORD error = ipc::WriteMessage(connection.pipe.get(), &welcome, sizeof welcome, write_event_.get(),
                                          nullptr, kSendTimeoutMs);
    if (accepted) return error == 0;
    Error("process " + std::to_string(peer.pid) + " was refused");
    // Closing the pipe now would take the answer away from a client that has not read it: the client closes
    // it.
    connection.state = Connection::State::kRefused;
    return error == 0;
  }

  bool RefuseGreeting(const Connection& connection) {
    Error("process " + std::to_string(connection.peer.pid) +
          " connected with a greeting that cannot be read");
    return false;
  }

  void Close(Connection& connection) {
    const bool was_open = connection.state == Connection::State::kOpen;
    {
      std::lock_guard lock(mutex_);
      const auto found = reachable_.find(connection.peer.pid);
      if (found != reachable_.end() && found->second == &connection) reachable_.erase(found);
    }
    if (was_open && handlers_.on_disconnect) handlers_.on_disconnect(connection.peer);
    connections_.erase(&connection);
    std::lock_guard lock(mutex_);
    if (--busy_ == 0) idle_.notify_all();
  }

  void Error(const std::string& text) {
    if (handlers_.on_error) handlers_.on_error(text);
  }

  const std::wstring name_;
  const ipc::PipePath path_;
  const MessageHandlers handlers_;
  UniqueHandle write_event_;  // of the server's thread
  UniqueHandle port_;
  std::unordered_map<Connection*, std::unique_ptr<Connection>> connections_;  // the server's thread only

  mutable std::mutex mutex_;
  std::condition_variable idle_;
  std::uint64_t fences_posted_ = 0, fences_passed_ = 0;
  std::size_t busy_ = 0;  // connections that a process has taken
  std::map<std::uint32_t, Connection*> reachable_;
  std::thread thread_;
};

MessageServer::MessageServer(std::wstring name, MessageHandlers handlers)
    : impl_(std::make_unique<Impl>(std::move(name), std::move(handlers))) {}
MessageServer::~MessageServer() = default;
const std::wstring& MessageServer::port_name() const noexcept { return impl_->name(); }
std::error_code MessageServer::Send(std::uint32_t pid, std::span<const std::byte> message) {
  return impl_->Send(pid, message);
}
std::size_t MessageServer::connections() const { return impl_->connections(); }
bool MessageServer::WaitUntilIdle(std::chrono::milliseconds timeout) { return impl_->WaitUntilIdle(timeout); }
void MessageServer::Stop() { impl_->Stop(); }

}  // namespace vorn::host
