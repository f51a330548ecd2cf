// Two real processes over real pipes: this program is the host; started again as "client", it loads
// vorn_ipc.dll as a confined process does.
#include <gtest/gtest.h>

#include <atomic>
#include <condition_variable>
#include <cstring>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "build_paths.h"
#include "ipc/ipc_interface.h"
#include "ipc/port/handshake.h"
#include "ipc/port/pipe.h"
#include "vorn/create_process.h"
#include "vorn/message_server.h"
#include "vorn/text.h"

namespace {

using namespace std::chrono_literals;
using vorn::host::MessageServer;
using vorn::host::Peer;
using vorn::host::RandomName;
using vorn::ipc::IPC;
using vorn::ipc::IpcCallbacks;

std::vector<std::byte> Bytes(const std::string& text) {
  std::vector<std::byte> bytes(text.size());
  std::memcpy(bytes.data(), text.data(), text.size());
  return bytes;
}

std::string Text(std::span<const std::byte> bytes) {
  return {reinterpret_cast<const char*>(bytes.data()), bytes.size()};
}

// vorn_ipc.dll as its user sees it.
class Library {
 public:
  Library() : module_(LoadLibraryW(vorn::test::BuildPath("vorn_ipc.dll").c_str())) {
    if (!module_) return;
    const auto create = reinterpret_cast<vorn::ipc::CreateIPCInterface2Function>(
        reinterpret_cast<void*>(GetProcAddress(module_, vorn::ipc::kCreateIPCInterface2)));
    destroy_ = reinterpret_cast<vorn::ipc::DestroyIPCInterfaceFunction>(
        reinterpret_cast<void*>(GetProcAddress(module_, vorn::ipc::kDestroyIPCInterface)));
    if (create) create(&ipc);
  }
  ~Library() {
    if (ipc) destroy_(ipc);
    if (module_) FreeLibrary(module_);
  }

  IPC* ipc = nullptr;

 private:
  HMODULE module_;
  vorn::ipc::DestroyIPCInterfaceFunction destroy_ = nullptr;
};

// The client's side of the channel, recorded.
struct Client {
  Client() : Client(RandomName(L"client")) {}
  explicit Client(std::wstring name) : local(std::move(name)) {
    callbacks.OnRecvData = [](void* self, const void* data, std::uint32_t bytes) {
      Note(self, [&](Client& c) { c.received.emplace_back(static_cast<const char*>(data), bytes); });
    };
    callbacks.OnIpcError = [](void* self, const char* text) {
      Note(self, [&](Client& c) { c.errors.emplace_back(text); });
    };
    callbacks.OnConnectAuth = [](void* self, std::uint32_t pid, std::uint32_t, const char* port) {
      Note(self, [&](Client& c) {
        c.auth_pid = pid;
        c.auth_port = port;
      });
      return static_cast<Client*>(self)->accept;
    };
    callbacks.OnDisconnectNotify = [](void* self, std::uint32_t, std::uint32_t, const char*) {
      Note(self, [&](Client& c) { ++c.disconnects; });
    };
    callbacks.context = this;
  }
  ~Client() { StopLoop(); }

  template <class Change>
  static void Note(void* self, Change change) {
    auto& client = *static_cast<Client*>(self);
    std::lock_guard lock(client.mutex);
    change(client);
    client.changed.notify_all();
  }
  bool Init(const std::wstring& server) {
    return library.ipc->Init(local.c_str(), server.c_str(), &callbacks);
  }
  void StartLoop() {
    loop = std::thread([this] { library.ipc->RecvLoop(); });
  }
  void StopLoop() {
    if (!loop.joinable()) return;
    library.ipc->Stop();
    loop.join();
  }
  bool Send(const std::string& text) {
    return library.ipc->Send(text.data(), static_cast<std::uint32_t>(text.size()), 0);
  }
  template <class Predicate>
  bool WaitFor(Predicate predicate) {
    std::unique_lock lock(mutex);
    return changed.wait_for(lock, 20s, predicate);
  }

  Library library;
  IpcCallbacks callbacks{};
  std::wstring local;
  std::thread loop;
  std::mutex mutex;
  std::condition_variable changed;
  std::vector<std::string> received, errors;
  std::atomic<std::uint32_t> auth_pid = 0;
  std::string auth_port;
  bool accept = true;
  int disconnects = 0;
};

// The host's side, recorded.
struct Host {
  explicit Host(bool accept = true)
      : server(RandomName(L"host"),
               {.on_message =
                    [this](const Peer& peer, std::span<const std::byte> message) {
                      Note(received, std::pair(peer.pid, Text(message)));
                    },
                .on_connect = [this, accept](const Peer& peer) { return Note(connected, peer), accept; },
                .on_disconnect = [this](const Peer& peer) { Note(gone, peer.pid); },
                .on_error = [this](const std::string& text) { Note(errors, text); }}) {}
  template <class List, class Item>
  void Note(List& list, Item item) {
    std::lock_guard lock(mutex);
    list.push_back(std::move(item));
    changed.notify_all();
  }
  ~Host() { server.Stop(); }
  template <class Predicate>
  bool WaitFor(Predicate predicate) {
    std::unique_lock lock(mutex);
    return changed.wait_for(lock, 60s, predicate);
  }

  std::mutex mutex;
  std::condition_variable changed;
  std::vector<std::pair<std::uint32_t, std::string>> received;
  std::vector<Peer> connected;
  std::vector<std::uint32_t> gone;
  std::vector<std::string> errors;
  MessageServer server;
};

// This program again, as a client process with one job.
struct Process {
  Process(const std::wstring& job, const std::wstring& port, int count) {
    std::wstring command = L"\"" + vorn::test::ThisProgram().wstring() + L"\" client " + job + L" " + port +
                           L" " + std::to_wstring(count);
    STARTUPINFOW startup{};
    startup.cb = sizeof startup;
    vorn::host::CreateProcessAgain(nullptr, command.data(), FALSE, 0, nullptr, nullptr, &startup, &info);
  }
  ~Process() {
    TerminateProcess(info.hProcess, 1);
    CloseHandle(info.hThread);
    CloseHandle(info.hProcess);
  }
  DWORD Wait() {
    DWORD code = ~0u;
    if (WaitForSingleObject(info.hProcess, 60'000) == WAIT_OBJECT_0) GetExitCodeProcess(info.hProcess, &code);
    return code;
  }
  PROCESS_INFORMATION info{};
};

// ---- What the client process does ----

int SendNumbered(Client& client, int count) {
  for (int i = 0; i < count; ++i) {
    // Lengths from a few bytes to beyond the reader's first buffer and the pipe's.
    if (!client.Send(std::to_string(i) + ":" + std::string(static_cast<std::size_t>(i) * 37 % 9000, 'x')))
      return 4;
  }
  return 0;
}

int EchoUntilGone(Client& client) {
  client.StartLoop();
  if (!client.Send("ready")) return 5;
  std::size_t next = 0;
  for (;;) {
    std::string message;
    {
      std::unique_lock lock(client.mutex);
      client.changed.wait(lock, [&] { return client.received.size() > next || client.disconnects; });
      if (client.received.size() == next) return 7;  // the host went away
      message = client.received[next++];
    }
    if (!client.Send("echo " + message)) return 5;
  }
}

int ClientMain(const std::wstring& job, const std::wstring& port, int count) {
  Client client;
  if (!client.library.ipc) return 2;
  if (!client.Init(port)) return 3;
  if (job == L"numbers") return SendNumbered(client, count);
  if (job == L"echo") return EchoUntilGone(client);
  return 6;
}

// A connection to the host that does not use the library, and its first message.
struct Stranger {
  Stranger(const Host& host, const void* data, std::size_t bytes) {
    const vorn::ipc::PipePath path(host.server.port_name().c_str());
    EXPECT_EQ(vorn::ipc::OpenPipe(path, vorn::ipc::Direction::kBoth, 5000, pipe), 0u);
    EXPECT_EQ(vorn::ipc::WriteMessage(pipe.get(), data, static_cast<std::uint32_t>(bytes), event.get(),
                                      nullptr, 20'000),
              0u)
        << bytes;
  }
  vorn::windows::UniqueHandle pipe, event{CreateEventW(nullptr, TRUE, FALSE, nullptr)};
};

// ---- Tests ----

TEST(IpcPort, MessagesOfAnEndedProcessArriveWholeAndInOrder) {
  Host host;
  Process process(L"numbers", host.server.port_name(), 5000);
  EXPECT_EQ(process.Wait(), 0u);
  ASSERT_TRUE(host.server.WaitUntilIdle(60s));
  ASSERT_EQ(host.received.size(), 5000u);
  for (int i = 0; i < 5000; ++i) {
    ASSERT_EQ(host.received[i].first, process.info.dwProcessId);
    ASSERT_EQ(host.received[i].second,
              std::to_string(i) + ":" + std::string(static_cast<std::size_t>(i) * 37 % 9000, 'x'));
  }
  EXPECT_EQ(host.gone, std::vector<std::uint32_t>{process.info.dwProcessId});
}

TEST(IpcPort, HostReachesProcessesAndNoticesTheirEnd) {
  Host host;
  Process process(L"echo", host.server.port_name(), 0);
  ASSERT_TRUE(host.WaitFor([&] { return host.received.size() == 1; }));
  for (int i = 0; i < 200; ++i) {
    const auto error = host.server.Send(process.info.dwProcessId, Bytes("hello " + std::to_string(i)));
    ASSERT_FALSE(error) << error.message();
  }
  ASSERT_TRUE(host.WaitFor([&] { return host.received.size() == 201; }));
  EXPECT_EQ(host.received.back().second, "echo hello 199");
  Process killed(L"echo", host.server.port_name(), 0);
  ASSERT_TRUE(host.WaitFor([&] { return host.received.size() == 202; }));
  TerminateProcess(killed.info.hProcess, 9);
  ASSERT_TRUE(host.WaitFor([&] { return host.gone.size() == 1; }));
  EXPECT_EQ(host.gone[0], killed.info.dwProcessId);
  EXPECT_EQ(host.server.Send(killed.info.dwProcessId, Bytes("x")).value(), ERROR_NOT_FOUND);
  host.server.Stop();
  EXPECT_EQ(process.Wait(), 7u) << "the process hears that the host went away";
}

TEST(IpcPort, SizesUpToTheLimitPassAndLargerOnesAreRefused) {
  Host host;
  Client client;
  ASSERT_TRUE(client.Init(host.server.port_name()));
  client.StartLoop();
  const std::string largest(vorn::ipc::kMaxMessageBytes, 'L');
  for (const std::string& message :
       {std::string("a"), std::string(4096, 'b'), std::string(4097, 'c'), largest}) {
    EXPECT_TRUE(client.Send(message)) << message.size();
    ASSERT_TRUE(
        host.WaitFor([&] { return !host.received.empty() && host.received.back().second == message; }));
    const auto error = host.server.Send(GetCurrentProcessId(), Bytes(message));
    EXPECT_FALSE(error) << error.message();
    ASSERT_TRUE(
        client.WaitFor([&] { return !client.received.empty() && client.received.back() == message; }));
  }
  EXPECT_TRUE(client.errors.empty());
  EXPECT_FALSE(client.Send(largest + "x"));
  EXPECT_FALSE(client.Send(""));
  ASSERT_EQ(client.errors.size(), 2u);
  EXPECT_NE(client.errors[0].find("1048577"), std::string::npos) << client.errors[0];
  EXPECT_EQ(host.server.Send(GetCurrentProcessId(), Bytes(largest + "x")).value(), ERROR_INVALID_PARAMETER);
  EXPECT_EQ(host.server.Send(GetCurrentProcessId(), {}).value(), ERROR_INVALID_PARAMETER);
  EXPECT_EQ(host.server.Send(4, Bytes("x")).value(), ERROR_NOT_FOUND);
}

// A peer that does not use the library can write what it likes.
TEST(IpcPort, MalformedMessagesOfAStrangerDoNotHarmTheServer) {
  Host host;
  std::size_t expected_errors = 0;
  // A local port that the host would look for outside of the pipes.
  const vorn::ipc::Hello elsewhere{vorn::ipc::kHandshakeMagic, vorn::ipc::kHandshakeVersion, 0, 10,
                                   L"../C:/file"};
  for (const std::string& junk :
       {std::string(3, '\x7f'), std::string(4000, '\x7f'), std::string(3 << 20, '\x7f'),
        std::string(reinterpret_cast<const char*>(&elsewhere), vorn::ipc::Hello::Bytes(10))}) {
    const Stranger stranger(host, junk.data(), junk.size());
    ++expected_errors;
    EXPECT_TRUE(host.WaitFor([&] { return host.errors.size() == expected_errors; })) << junk.size();
  }
  EXPECT_TRUE(host.connected.empty());
  Client client;
  EXPECT_TRUE(client.Init(host.server.port_name()));
  EXPECT_TRUE(client.Send("still here"));
  EXPECT_TRUE(host.WaitFor([&] { return host.received.size() == 1; }));
}

TEST(IpcPort, EitherSideMayRefuseTheOther) {
  Host refusing(/*accept=*/false);
  Client refused;
  EXPECT_FALSE(refused.Init(refusing.server.port_name()));
  ASSERT_FALSE(refused.errors.empty());
  EXPECT_NE(refused.errors.back().find("refused this process"), std::string::npos) << refused.errors.back();
  ASSERT_EQ(refusing.connected.size(), 1u);
  EXPECT_EQ(refusing.connected[0].pid, GetCurrentProcessId());

  Host host;
  Client choosy;
  choosy.accept = false;
  EXPECT_FALSE(choosy.Init(host.server.port_name()));
  EXPECT_EQ(choosy.auth_pid, GetCurrentProcessId()) << "the pid is the pipe's word";
  const std::wstring name = host.server.port_name();
  EXPECT_EQ(choosy.auth_port, std::string(name.begin(), name.end()));
  EXPECT_FALSE(choosy.Send("x"));
}

TEST(IpcPort, HostRefusesAPortThatBelongsToAnotherProcess) {
  Host host;
  Process process(L"echo", host.server.port_name(), 0);
  ASSERT_TRUE(host.WaitFor([&] { return host.received.size() == 1; }));
  // This process introduces itself with the other one's port.
  const std::wstring& port = host.connected[0].port;
  vorn::ipc::Hello hello{vorn::ipc::kHandshakeMagic,
                         vorn::ipc::kHandshakeVersion,
                         0,
                         static_cast<std::uint32_t>(port.size()),
                         {}};
  port.copy(hello.local_port, port.size());
  Stranger stranger(host, &hello, vorn::ipc::Hello::Bytes(port.size()));
  vorn::ipc::MessageReader welcome;
  welcome.SetEvent(stranger.event.get());
  ASSERT_EQ(welcome.Start(stranger.pipe.get()), 0u);
  ASSERT_EQ(WaitForSingleObject(stranger.event.get(), 20'000), WAIT_OBJECT_0);
  EXPECT_EQ(host.server.Send(GetCurrentProcessId(), Bytes("secret")).value(), ERROR_ACCESS_DENIED);
}

}  // namespace

int main(int argc, char** argv) {
  if (argc == 5 && std::string(argv[1]) == "client") {
    const std::string job = argv[2], port = argv[3];
    return ClientMain({job.begin(), job.end()}, {port.begin(), port.end()}, std::stoi(argv[4]));
  }
  testing::InitGoogleTest(&argc, argv);
  return RUN_ALL_TESTS();
}
