// The host's end of the channel: the server port that confined processes connect to.
//
//   vorn::host::MessageServer server(vorn::host::RandomName(L"vorn"), {.on_message = ...});
//   ... server.port_name() goes into the section ...
//   server.WaitUntilIdle(5s);      // after the processes have ended: everything they sent has been delivered
//
// One thread of the server's own accepts, reads and calls every handler, so handlers never run at the same
// time. A handler that blocks delays everybody, a process's start included; it must not throw, and not
// destroy or stop the server.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <span>
#include <string>
#include <system_error>

namespace vorn::host {

// A connected process, as the system names it (pid) and as it introduces itself (tid: the connecting thread;
// port: the local port through which it can be reached).
struct Peer {
  std::uint32_t pid = 0;
  std::uint32_t tid = 0;
  std::wstring port = {};
};

struct MessageHandlers {
  std::function<void(const Peer&, std::span<const std::byte>)> on_message = {};
  std::function<bool(const Peer&)> on_connect =
      {};  // false refuses the process; absent: everybody is accepted
  std::function<void(const Peer&)> on_disconnect = {};
  std::function<void(const std::string&)> on_error = {};  // a readable text (UTF-8)
};

class MessageServer {
 public:
  // Opens the port for processes of the current user and starts the thread. name: 1 to 240 units, no slash of
  // either kind. Throws std::system_error when the port cannot be opened (taken name, bad name).
  MessageServer(std::wstring name, MessageHandlers handlers);
  ~MessageServer();  // as Stop
  MessageServer(const MessageServer&) = delete;
  MessageServer& operator=(const MessageServer&) = delete;

  const std::wstring& port_name() const noexcept;

  // Sends one message (1 byte to 1 MiB) to a connected process, through its local port; waits up to 5 s for
  // it to be taken. Any thread. Errors: ERROR_NOT_FOUND (no such process is connected),
  // ERROR_INVALID_PARAMETER (length), ERROR_ACCESS_DENIED (the port is served by another process), or what
  // the pipe says.
  [[nodiscard]] std::error_code Send(std::uint32_t pid, std::span<const std::byte> message);

  // How many processes are connected now.
  std::size_t connections() const;

  // Waits until no process is connected and everything that was received has been handled. False: time is up.
  bool WaitUntilIdle(std::chrono::milliseconds timeout);

  // Ends the connections and the thread; handlers are not called any more. The port's name is free then.
  void Stop();

 private:
  class Impl;
  std::unique_ptr<Impl> impl_;
};

}  // namespace vorn::host
