// What the transport adds to a bare named pipe: per message (until the host's handler has it), and per
// connection.
#include <windows.h>

#include <atomic>
#include <cstdio>
#include <string>
#include <thread>
#include <vector>

#include "bench/bench_clock.h"
#include "ipc/port/process_port.h"
#include "vorn/message_server.h"
#include "vorn/text.h"

namespace {

using namespace vorn;

constexpr int kBatch = 500;
constexpr int kRounds = 10;

// Counts arrivals; the sender waits for a batch of them.
class Arrivals {
 public:
  void Add() {
    if (count_.fetch_add(1) + 1 == kBatch) SetEvent(full_.get());
  }
  void WaitForBatch() {
    WaitForSingleObject(full_.get(), INFINITE);
    count_ = 0;
  }

 private:
  std::atomic<int> count_ = 0;
  windows::UniqueHandle full_{CreateEventW(nullptr, FALSE, FALSE, nullptr)};
};

// A message pipe as small as it gets: blocking writes, a thread that reads.
class BarePipe {
 public:
  BarePipe() : path_(L"\\\\.\\pipe\\" + host::RandomName(L"bare")) {
    server_ = windows::UniqueHandle(CreateNamedPipeW(path_.c_str(), PIPE_ACCESS_DUPLEX,
                                                     PIPE_TYPE_MESSAGE | PIPE_READMODE_MESSAGE, 1, 65536,
                                                     65536, 0, nullptr));
    client_ = windows::UniqueHandle(
        CreateFileW(path_.c_str(), GENERIC_READ | GENERIC_WRITE, 0, nullptr, OPEN_EXISTING, 0, nullptr));
    reader_ = std::thread([this] {
      char buffer[4096];
      DWORD bytes = 0;
      while (ReadFile(server_.get(), buffer, sizeof buffer, &bytes, nullptr)) arrivals_.Add();
    });
  }
  ~BarePipe() {
    client_.reset();
    reader_.join();
  }
  void SendBatch(const std::string& message) {
    DWORD bytes = 0;
    for (int i = 0; i < kBatch; ++i) {
      WriteFile(client_.get(), message.data(), static_cast<DWORD>(message.size()), &bytes, nullptr);
    }
    arrivals_.WaitForBatch();
  }

 private:
  std::wstring path_;
  windows::UniqueHandle server_, client_;
  Arrivals arrivals_;
  std::thread reader_;
};

}  // namespace

int main() {
  Arrivals arrivals;
  host::MessageServer server(host::RandomName(L"bench"),
                             {.on_message = [&](const host::Peer&, auto) { arrivals.Add(); }});
  const ipc::IpcCallbacks silent{};
  ipc::ProcessPort port;
  if (!port.Init(host::RandomName(L"local").c_str(), server.port_name().c_str(), &silent)) return 1;
  BarePipe bare;

  for (const std::size_t bytes : {100, 1000}) {
    const std::string message(bytes, 'm');
    const auto [transport, pipe] = bench::SideBySide(
        kRounds, 1,
        [&] {
          for (int i = 0; i < kBatch; ++i) port.Send(message.data(), static_cast<std::uint32_t>(bytes), 0);
          arrivals.WaitForBatch();
        },
        [&] { bare.SendBatch(message); });
    std::printf("%4zu-byte message: bare pipe %.1f us, transport %.1f us, ratio %.2f\n", bytes,
                pipe / kBatch / 1e3, transport / kBatch / 1e3, transport / pipe);
  }
  port.UnInit();

  const auto [connect, bare_connect] = bench::SideBySide(
      kRounds, 10,
      [&] {
        ipc::ProcessPort client;
        client.Init(host::RandomName(L"local").c_str(), server.port_name().c_str(), &silent);
        client.UnInit();
      },
      [] { BarePipe pipe; });
  std::printf(
      "connection: bare pipe with its thread %.0f us, transport with both greetings %.0f us, ratio %.2f\n",
      bare_connect / 1e3, connect / 1e3, connect / bare_connect);
  return 0;
}
