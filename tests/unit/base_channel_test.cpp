// The channel over a transport that the test controls. That real transports fail and work is shown end to
// end.
#include <gtest/gtest.h>

#include <chrono>
#include <mutex>
#include <optional>
#include <regex>
#include <thread>

#include "VornCore/Base/channel.h"
#include "base_environment.h"
#include "ipc/ipc_interface.h"

namespace {

using Lines = std::vector<std::string>;

// What fake_transport.dll leads to.
struct Transport final : vorn::ipc::IPC {
  bool __stdcall Init(const wchar_t* local, const wchar_t* server,
                      const vorn::ipc::IpcCallbacks* given) override {
    calls.emplace_back("Init");
    local_port = local;
    server_port = server;
    callbacks = *given;
    return true;
  }
  void __stdcall UnInit() override { calls.emplace_back("UnInit"); }
  bool __stdcall RecvLoop() override { return WaitForSingleObject(stopped, INFINITE) == WAIT_OBJECT_0; }
  bool __stdcall Stop() override {
    calls.emplace_back("Stop");
    return SetEvent(stopped);
  }
  bool __stdcall Send(const void* data, std::uint32_t bytes, std::uint32_t) override {
    const auto* begin = static_cast<const std::byte*>(data);
    std::lock_guard guard(mutex);
    sent.emplace_back(begin, begin + bytes);
    return true;
  }

  std::wstring local_port, server_port;
  vorn::ipc::IpcCallbacks callbacks = {};
  HANDLE stopped = CreateEventW(nullptr, TRUE, FALSE, nullptr);
  Lines calls;  // every operation but Send
  std::mutex mutex;
  std::vector<std::vector<std::byte>> sent;
};
std::optional<Transport> transport;
void (*at_process_end)() = nullptr;

}  // namespace

extern "C" {
__declspec(dllexport) vorn::ipc::IPC* CreateTransport() { return &*transport; }
__declspec(dllexport) void DestroyTransport() { transport->calls.emplace_back("Destroy"); }
__declspec(dllexport) void AtProcessEnd() {
  if (at_process_end) at_process_end();
}
}

namespace VornCore {
namespace {

using namespace std::chrono_literals;
namespace policy = vorn::policy;

constexpr wchar_t kServer[] = L"server port";

bool Eventually(auto condition) {
  for (const auto deadline = std::chrono::steady_clock::now() + 30s;
       std::chrono::steady_clock::now() < deadline; std::this_thread::sleep_for(1ms))
    if (condition()) return true;
  return false;
}

class Channel : public testing::Test {
 protected:
  void SetUp() override {
    ASSERT_EQ(log.start_error(), 0u);
    log.SetFlags(0xF);
    log.NewText();
    transport.emplace();
  }
  void TearDown() override {
    channel::UnInit();
    CloseHandle(transport->stopped);
  }

  // Starts and waits for the process start message, which it removes.
  void Start() {
    ASSERT_TRUE(channel::Init(kServer, false));
    ASSERT_TRUE(WaitForSent(1));
    for (const char* thread : {"IPCRecvThreadProc", "IPCSendThreadProc", "DispatchMsg"})
      ASSERT_TRUE(WaitForLog(std::string(thread) + " thread start\n"));
    transport->sent.clear();
    seen.clear();
  }
  static bool WaitForSent(std::size_t count) {
    return Eventually([&] {
      std::lock_guard guard(transport->mutex);
      return transport->sent.size() >= count;
    });
  }
  // Waits for a log message with this text.
  bool WaitForLog(const std::string& text) {
    return Eventually([&] {
      for (const auto& message : log.NewMessages()) seen += message + "\n";
      return seen.find(text) != std::string::npos;
    });
  }
  static std::vector<std::byte> Message(std::uint16_t type, std::uint16_t subtype, std::size_t bytes = 30) {
    std::vector<std::byte> message(bytes);
    if (bytes >= sizeof(policy::TIPHeader))
      InitTipHeader(message.data(), type, subtype, static_cast<std::uint32_t>(bytes - 30), 1);
    return message;
  }
  static bool Send(const std::vector<std::byte>& message) {
    return SendToHost(message.data(), static_cast<std::uint32_t>(message.size()));
  }

  test::ProcessLog& log = test::ProcessLog::Get();
  std::string seen;
};

TEST_F(Channel, LocalPortIsNamedAfterTheProcess) {
  ASSERT_TRUE(channel::Init(kServer, false));
  EXPECT_TRUE(channel::Init(kServer, false)) << "it runs already";
  EXPECT_EQ(transport->calls, Lines{"Init"});
  EXPECT_EQ(transport->server_port, kServer);
  const std::wregex name(L"base_channel_test\\.exe_" + std::to_wstring(GetCurrentProcessId()) +
                         L"_0x[1-9a-f][0-9a-f]*");
  EXPECT_TRUE(std::regex_match(transport->local_port, name));
}

TEST_F(Channel, RefusesWhatIsNoMessageAndStopsWhatItStarted) {
  Start();
  auto message = Message(3, 0);
  EXPECT_FALSE(SendToHost(message.data(), 29));
  EXPECT_FALSE(SendToHost(nullptr, 30));
  message[0] ^= std::byte{1};
  EXPECT_FALSE(Send(message));
  EXPECT_EQ(log.NewText(), "");
  channel::UnInit();
  EXPECT_EQ(transport->calls, (Lines{"Init", "Stop", "UnInit", "Destroy"}));
  EXPECT_FALSE(Send(Message(3, 0)));
  Start();  // and starts again
}

TEST_F(Channel, SamplesCarryTheHostsPathsAndAreThrottled) {
  Start();
  channel::SetPathConverter([](wchar_t* path) {
    if (std::wstring_view(path) != L"\\Device\\V1\\\u00e9") return false;
    std::wcscpy(path, L"C:\\\u00e9");
    return true;
  });
  SendSample(1, 2, 3, policy::kSubtypeSampleFileCreate, L"\\Device\\V1\\\u00e9");
  SendSample(4, 5, 6, policy::kSubtypeSampleDnsCache, nullptr);
  channel::SetPathConverter(nullptr);
  ASSERT_TRUE(WaitForSent(2));
  const policy::Decoded first = policy::DecodeMessage(transport->sent[0]),
                        second = policy::DecodeMessage(transport->sent[1]);
  const auto& with_text = std::get<policy::Sample>(first.body);
  EXPECT_EQ(with_text.text, "C:\\\xc3\xa9");
  EXPECT_EQ(with_text.second, 2u);
  EXPECT_EQ(transport->sent[0].size(), 55u + 6u);
  EXPECT_EQ(std::get<policy::Sample>(second.body).third, 6u);
  EXPECT_EQ(transport->sent[1].size(), 55u);

  std::atomic<std::uint64_t> last = 0;
  EXPECT_TRUE(MaySendSample(last, 10'000'000));
  EXPECT_FALSE(MaySendSample(last, 12'000'000)) << "two seconds are not more than two seconds";
  EXPECT_TRUE(MaySendSample(last, 12'000'001));
  EXPECT_FALSE(MaySendSample(last, 5'000'000)) << "a clock that was set back";
}

TEST_F(Channel, HostsMessagesAreCheckedAndNoticesLogged) {
  Start();
  auto message = Message(9, 9);
  const auto receive = [&](std::uint32_t bytes) {
    transport->callbacks.OnRecvData(nullptr, message.data(), bytes);
  };
  receive(30);
  receive(29);
  EXPECT_TRUE(WaitForLog("DispatchMsgToBiz: invalid data\n"));
  message[7] ^= std::byte{1};
  receive(30);
  EXPECT_TRUE(WaitForLog("Not a Tip Message\n"));

  EXPECT_TRUE(transport->callbacks.OnConnectAuth(nullptr, 11, 22, "a port"));
  transport->callbacks.OnIpcError(nullptr, "a text with % signs %s");
  transport->callbacks.OnDisconnectNotify(nullptr, 33, 44, "a port");
  EXPECT_TRUE(WaitForLog("recv disconnect notify, it's pid:33, tid:44, port name:a port\n"));
  EXPECT_EQ(seen,
            "DispatchMsgToBiz: invalid data\nNot a Tip Message\n"
            "connect auth, it's pid:11, tid:22, port name:a port\na text with % signs %s\n"
            "recv disconnect notify, it's pid:33, tid:44, port name:a port\n");
}

// DLLs that detach after a thread has ended inside the queue still send.
TEST_F(Channel, ThreadKilledInsideTheQueueDoesNotBlockProcessEnd) {
  const auto end_inside_push = [] {
    if (!channel::Init(kServer, false) || !WaitForSent(1)) ExitProcess(1);
    static HANDLE inside = CreateEventW(nullptr, TRUE, FALSE, nullptr);
    AddVectoredExceptionHandler(1, [](PEXCEPTION_POINTERS) -> LONG {
      SetEvent(inside);
      Sleep(INFINITE);
      return EXCEPTION_CONTINUE_SEARCH;
    });
    constexpr std::size_t kPage = 4096;
    auto* pages = static_cast<char*>(VirtualAlloc(nullptr, 2 * kPage, MEM_RESERVE, PAGE_NOACCESS));
    VirtualAlloc(pages, kPage, MEM_COMMIT, PAGE_READWRITE);
    void* unreadable_behind_its_header = pages + kPage - sizeof(policy::TIPHeader);
    InitTipHeader(unreadable_behind_its_header, 3, 0, 10, 1);
    std::thread([=] { SendToHost(unreadable_behind_its_header, 40); }).detach();
    WaitForSingleObject(inside, INFINITE);
    at_process_end = [] {
      if (Send(Message(3, 1))) TerminateProcess(GetCurrentProcess(), 2);
      channel::FlushAtProcessEnd();
      TerminateProcess(GetCurrentProcess(), 7);
    };
    ExitProcess(3);
  };
  EXPECT_EXIT(end_inside_push(), testing::ExitedWithCode(7), "");
}

TEST_F(Channel, DisconnectEndsTheProcessOnlyWhenAskedTo) {
  const auto disconnect = [](bool terminate) {
    if (!channel::Init(kServer, terminate)) ExitProcess(1);
    transport->callbacks.OnDisconnectNotify(nullptr, 1, 2, "port");
    ExitProcess(2);
  };
  EXPECT_EXIT(disconnect(true), testing::ExitedWithCode(19960116), "");
  EXPECT_EXIT(disconnect(false), testing::ExitedWithCode(2), "");
}

}  // namespace
}  // namespace VornCore
