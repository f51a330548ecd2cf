// Two real processes over real pipes: this program is the host; started again as "client", it loads
// vorn_ipc.dll as a confined process does.
#include <gtest/gtest.h>

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
#include "tests/test_process.h"
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

// What a side of the channel saw, waited for.
struct Recorder {
  template <class Change>
  void Note(Change change) {
    std::lock_guard lock(mutex);
    change();
    changed.notify_all();
  }
  template <class Predicate>
  bool WaitFor(Predicate predicate) {
    std::unique_lock lock(mutex);
    return changed.wait_for(lock, 60s, predicate);
  }

  std::mutex mutex;
  std::condition_variable changed;
  std::vector<std::string> errors;
};

// The client's side: vorn_ipc.dll as its user sees it.
struct Client : Recorder {
  Client() {
    if (!module || !Export<bool __stdcall(IPC**)>(vorn::ipc::kCreateIPCInterface2)(&ipc)) return;
    callbacks.OnRecvData = [](void* self, const void* data, std::uint32_t bytes) {
      Of(self).Note([&] { Of(self).received.emplace_back(static_cast<const char*>(data), bytes); });
    };
    callbacks.OnIpcError = [](void* self, const char* text) {
      Of(self).Note([&] { Of(self).errors.emplace_back(text); });
    };
    callbacks.OnConnectAuth = [](void* self, std::uint32_t pid, std::uint32_t, const char* port) {
      Of(self).Note([&] { Of(self).asked = {pid, port}; });
      return Of(self).accept;
    };
    callbacks.OnDisconnectNotify = [](void* self, std::uint32_t, std::uint32_t, const char*) {
      Of(self).Note([&] { ++Of(self).disconnects; });
    };
    callbacks.context = this;
  }
  ~Client() {
    if (loop.joinable()) {
      ipc->Stop();
      loop.join();
    }
    if (ipc) Export<void __stdcall(IPC*)>(vorn::ipc::kDestroyIPCInterface)(ipc);
    if (module) FreeLibrary(module);
  }

  template <class Function>
  Function* Export(const char* name) const {
    return reinterpret_cast<Function*>(reinterpret_cast<void*>(GetProcAddress(module, name)));
  }
  static Client& Of(void* self) { return *static_cast<Client*>(self); }
  bool Init(const std::wstring& server) {
    return ipc->Init(RandomName(L"client").c_str(), server.c_str(), &callbacks);
  }
  void StartLoop() {
    loop = std::thread([this] { ipc->RecvLoop(); });
  }
  bool Send(const std::string& text) {
    return ipc->Send(text.data(), static_cast<std::uint32_t>(text.size()), 0);
  }

  const HMODULE module = LoadLibraryW(vorn::test::BuildPath("vorn_ipc.dll").c_str());
  IPC* ipc = nullptr;
  IpcCallbacks callbacks{};
  std::thread loop;
  std::vector<std::string> received;
  std::pair<std::uint32_t, std::string> asked;  // whether to accept a server of this process id and port
  bool accept = true;
  int disconnects = 0;
};

// The host's side.
struct Host : Recorder {
  explicit Host(bool accept = true)
      : server(RandomName(L"host"),
               {.on_message =
                    [this](const Peer& peer, std::span<const std::byte> message) {
                      Note([&] { received.emplace_back(peer.pid, Text(message)); });
                    },
                .on_connect =
                    [this, accept](const Peer& peer) {
                      Note([&] { connected.push_back(peer); });
                      return accept;
                    },
                .on_disconnect = [this](const Peer& peer) { Note([&] { gone.push_back(peer.pid); }); },
                .on_error = [this](const std::string& text) { Note([&] { errors.push_back(text); }); }}) {}
  ~Host() { server.Stop(); }

  std::vector<std::pair<std::uint32_t, std::string>> received;
  std::vector<Peer> connected;
  std::vector<std::uint32_t> gone;
  MessageServer server;
};

// This program again, as a client process with one job.
struct Process : vorn::test::TestProcess {
  Process(const std::wstring& job, const Host& host)
      : TestProcess(L"\"" + vorn::test::ThisProgram().wstring() + L"\" client " + job + L" " +
                    host.server.port_name()) {}
};

// ---- What the client process does ----

constexpr int kNumbered = 5000;
// Lengths from a few bytes to beyond the reader's first buffer and the pipe's.
std::string Numbered(int i) {
  return std::to_string(i) + ":" + std::string(static_cast<std::size_t>(i) * 37 % 9000, 'x');
}

int EchoUntilGone(Client& client) {
  client.StartLoop();
  if (!client.Send("ready")) return 5;
  for (std::size_t next = 0;; ++next) {
    std::unique_lock lock(client.mutex);
    client.changed.wait(lock, [&] { return client.received.size() > next || client.disconnects; });
    if (client.received.size() == next) return 7;  // the host went away
    const std::string message = client.received[next];
    lock.unlock();
    if (!client.Send("echo " + message)) return 5;
  }
}

int ClientMain(const std::string& job, const std::string& port) {
  Client client;
  if (!client.ipc) return 2;
  if (!client.Init({port.begin(), port.end()})) return 3;
  if (job == "echo") return EchoUntilGone(client);
  for (int i = 0; i < kNumbered; ++i)
    if (!client.Send(Numbered(i))) return 4;
  return 0;
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
  Process process(L"numbers", host);
  EXPECT_EQ(process.RunToEnd(), 0u);
  ASSERT_TRUE(host.server.WaitUntilIdle(60s));
  ASSERT_EQ(host.received.size(), std::size_t{kNumbered});
  for (int i = 0; i < kNumbered; ++i)
    ASSERT_EQ(host.received[static_cast<std::size_t>(i)],
              std::pair(std::uint32_t{process.id()}, Numbered(i)));
  EXPECT_EQ(host.gone, std::vector<std::uint32_t>{process.id()});
}

TEST(IpcPort, HostReachesProcessesAndNoticesTheirEnd) {
  Host host;
  Process process(L"echo", host);
  ASSERT_TRUE(host.WaitFor([&] { return host.received.size() == 1; }));
  for (int i = 0; i < 200; ++i) {
    const auto error = host.server.Send(process.id(), Bytes("hello " + std::to_string(i)));
    ASSERT_FALSE(error) << error.message();
  }
  ASSERT_TRUE(host.WaitFor([&] { return host.received.size() == 201; }));
  EXPECT_EQ(host.received.back().second, "echo hello 199");
  Process killed(L"echo", host);
  ASSERT_TRUE(host.WaitFor([&] { return host.received.size() == 202; }));
  TerminateProcess(killed.handle(), 9);
  ASSERT_TRUE(host.WaitFor([&] { return host.gone.size() == 1; }));
  EXPECT_EQ(host.gone[0], killed.id());
  EXPECT_EQ(host.server.Send(killed.id(), Bytes("x")).value(), ERROR_NOT_FOUND);
  host.server.Stop();
  EXPECT_EQ(process.RunToEnd(), 7u) << "the process hears that the host went away";
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
  const std::wstring name = host.server.port_name();
  EXPECT_EQ(choosy.asked,
            std::pair(std::uint32_t{GetCurrentProcessId()}, std::string(name.begin(), name.end())))
      << "the process id is the pipe's word";
  EXPECT_FALSE(choosy.Send("x"));
}

TEST(IpcPort, HostRefusesAPortThatBelongsToAnotherProcess) {
  Host host;
  Process process(L"echo", host);
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
  if (argc == 4 && std::string(argv[1]) == "client") return ClientMain(argv[2], argv[3]);
  testing::InitGoogleTest(&argc, argv);
  return RUN_ALL_TESTS();
}
