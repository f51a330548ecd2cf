// What the handlers do to the state of the process, behind real hooks in ws2_32, dnsapi and KernelBase:
// sockets of this process, contexts of receives in flight, threads, faults. (tests/e2e/net_test.cpp shows
// every road of a confined process from outside.) Destinations: 127.0.0.1 is allowed, 127.0.0.2 is not.
// Sources are told apart by their port, because Wine sends from 127.0.0.1 whatever loopback address a socket
// is bound to.
#include "net_confinement.h"

#include <atomic>
#include <map>
#include <memory>
#include <span>
#include <thread>

#include "Platform/guard.h"
#include "VornCore/Hook/kernel_base.h"
#include "VornCore/Hook/late_modules.h"
#include "tests/stdcall.h"
#include "tests/unit/open_handles.h"

extern "C" {
NTSTATUS NTAPI LdrLockLoaderLock(ULONG flags, ULONG* state, ULONG_PTR* cookie);
NTSTATUS NTAPI LdrUnlockLoaderLock(ULONG flags, ULONG_PTR cookie);
}

namespace VornCore::test {
namespace {

constexpr std::uint8_t kAllowed = 1, kDenied = 2;

class NetHooks : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    SetNetRules({DefaultRule(1)});  // without rules nothing is ever intercepted
    // As during the library's attach: no other thread loads a module meanwhile.
    ULONG_PTR cookie = 0;
    LdrLockLoaderLock(0, nullptr, &cookie);
    KernelBase::Init();
    GetNetMgr().Init();
    mod::Watch(CNetMgr::WatchedModules());
    const bool watching = mod::Init();
    LdrUnlockLoaderLock(0, cookie);
    ASSERT_TRUE(watching);
    LoadLibraryW(L"dnsapi.dll");
    WSADATA data;
    ASSERT_EQ(WSAStartup(MAKEWORD(2, 2), &data), 0);
  }

  void SetUp() override {
    SetNetRules(
        {AddressRule(1, {127, 0, 0, kAllowed}), AddressRule(0, {127, 0, 0, kDenied}), DefaultRule(0)});
  }

  void TearDown() override {
    EXPECT_EQ(GetNetMgr().contexts().live_count(), 0);
    EXPECT_EQ(GetNetMgr().model().socket_count(), 0);
    EXPECT_EQ(GetThreadState()->hookDepth, 0u);
    EXPECT_EQ(GetThreadState()->bInNetCall, 0);
  }
};

// ---- Connections ----

TEST_F(NetHooks, OwnServersAreReachableAndUnknownSocketsNotChecked) {
  Socket server(AF_INET, SOCK_STREAM), client(AF_INET, SOCK_STREAM);
  const Address at = server.Bind(Local(kDenied));
  listen(server, 5);
  EXPECT_EQ(connect(client, &at.any, at.length()), 0) << WSAGetLastError();
  Peer peer(Local(kDenied), SOCK_STREAM);
  Unrecorded unrecorded;
  Socket unknown(AF_INET, SOCK_STREAM);
  EXPECT_EQ(connect(unknown, &peer.address.any, peer.address.length()), 0);
}

// ---- Datagrams ----

int Send(SOCKET s, const Address* to) {
  return sendto(s, "hello", 5, 0, to ? &to->any : nullptr, to ? to->length() : 0);
}

TEST_F(NetHooks, SendWithoutAddressIsJudgedByThePeer) {
  Peer peer(Local(kAllowed));
  Socket client(AF_INET, SOCK_DGRAM);
  EXPECT_EQ(Send(client, nullptr), -1);  // nobody to ask about
  EXPECT_EQ(WSAGetLastError(), WSAENETUNREACH);

  EXPECT_EQ(connect(client, &peer.address.any, peer.address.length()), 0);
  EXPECT_EQ(Send(client, nullptr), 5);
  SetNetRules({DefaultRule(0)});
  EXPECT_EQ(Send(client, nullptr), -1);
  EXPECT_EQ(WSAGetLastError(), WSAENETUNREACH);
}

// A client socket that has sent, so that it is no server, and a peer on each side.
struct Conversation {
  Conversation() : socket(AF_INET, SOCK_DGRAM), allowed(Local(kAllowed)), denied(Local(kAllowed)) {
    SetNetRules({AddressRule(0, {127, 0, 0, 1}, {denied.address.port()}), AddressRule(1, {127, 0, 0, 1}),
                 DefaultRule(0)});
    at = socket.Bind(Local(kAllowed));
    sendto(socket, "x", 1, 0, &allowed.address.any, allowed.address.length());
    EXPECT_EQ(allowed.Receive(), "x");
    socket.SetReceiveTimeout(3000);
  }
  Socket socket;
  Peer allowed, denied;
  Address at;
};

TEST_F(NetHooks, SourceIsHandedOverWhenThereIsRoomForIt) {
  Conversation talk;
  constexpr int kNeeded = sizeof(sockaddr_in);
  for (const int room : {4, kNeeded - 1, kNeeded}) {
    talk.allowed.SendTo(talk.at, "hello");
    char data[8];
    Address from{};
    int from_length = room;
    EXPECT_EQ(recvfrom(talk.socket, data, sizeof data, 0, &from.any, &from_length), 5);
    EXPECT_EQ(from.port(), room < kNeeded ? 0 : talk.allowed.address.port()) << room;
    EXPECT_EQ(from_length, kNeeded);
  }
}

TEST_F(NetHooks, ReusedHandleValueGetsAFreshRecord) {
  Socket first(AF_INET, SOCK_DGRAM);
  const SOCKET value = first;
  Peer peer(Local(kAllowed));
  EXPECT_EQ(Send(first, &peer.address), 5);
  EXPECT_EQ(GetNetMgr().model().QuerySocket(value, false).send_count, 1u);
  CloseHandle(first.handle());
  std::vector<std::unique_ptr<Socket>> sockets;  // until one of them has the value again
  do sockets.push_back(std::make_unique<Socket>(AF_INET, SOCK_DGRAM));
  while (*sockets.back() != value && sockets.size() < 1000);
  first.Release();
  ASSERT_EQ(*sockets.back(), value);
  EXPECT_EQ(GetNetMgr().model().QuerySocket(value, false).send_count, 0u);
}

// ---- Receives in flight ----

// A receive that completes later; room for eight bytes.
struct Pending : vorn::test::Receive {
  Pending() { buffer.len = 8; }
  bool Start(SOCKET s, LPWSAOVERLAPPED_COMPLETION_ROUTINE routine = nullptr) {
    return Run(s, "wsarecvfrom", &overlapped, routine) == WSA_IO_PENDING;
  }
};

// The call fails in any case; what lies in the buffers depends on the source.
TEST_F(NetHooks, TruncatedDatagramOfARefusedSourceIsWiped) {
  Conversation talk;
  for (Peer* from : {&talk.allowed, &talk.denied})
    for (const char* how : {"recvfrom", "wsarecvfrom", "recvmsg"})
      for (const bool overlapped : {false, true}) {
        from->SendTo(talk.at, "longer than the buffer");
        fd_set readable{1, {talk.socket}};
        timeval patience{3, 0};
        select(0, &readable, nullptr, nullptr, &patience);
        Pending receive;
        EXPECT_EQ(receive.Run(talk.socket, how, overlapped ? &receive.overlapped : nullptr), WSAEMSGSIZE)
            << how;
        EXPECT_EQ(std::string(receive.data, 8),
                  from == &talk.allowed ? std::string("longer t") : std::string(8, '\0'))
            << how;
      }
}

TEST_F(NetHooks, RoutineMayReuseItsOverlapped) {
  Conversation talk;
  static int calls;
  static std::function<bool()> start;
  Pending receive;
  start = [&] {
    return receive.Start(talk.socket, vorn::test::Stdcall([](DWORD, DWORD, LPWSAOVERLAPPED, DWORD) {
                           if (++calls < 3) start();
                         }));
  };
  ASSERT_TRUE(start());
  for (int i = 0; i < 3; ++i) {
    talk.allowed.SendTo(talk.at, "hello");
    for (int j = 0; j < 10 && calls <= i; ++j) SleepEx(300, TRUE);
  }
  EXPECT_EQ(calls, 3);
}

TEST_F(NetHooks, UncollectedOverlappedMayBeReused) {
  Conversation talk;
  Pending receive;
  ASSERT_TRUE(receive.Start(talk.socket));
  talk.allowed.SendTo(talk.at, "first");
  while (!HasOverlappedIoCompleted(&receive.overlapped)) SleepEx(1, FALSE);
  ASSERT_TRUE(receive.Start(talk.socket));
  EXPECT_EQ(GetNetMgr().contexts().live_count(), 1);
  // Asking too early, or wrongly, does not end it.
  DWORD bytes = 0;
  EXPECT_FALSE(GetOverlappedResultEx(talk.socket.handle(), &receive.overlapped, &bytes, 10, FALSE));
  EXPECT_EQ(GetLastError(), static_cast<DWORD>(WAIT_TIMEOUT));
  EXPECT_FALSE(WSAGetOverlappedResult(INVALID_SOCKET, &receive.overlapped, &bytes, FALSE, &receive.flags));
  EXPECT_EQ(WSAGetLastError(), WSAENOTSOCK);
  EXPECT_EQ(GetNetMgr().contexts().live_count(), 1);
  talk.allowed.SendTo(talk.at, "hello");
  EXPECT_TRUE(WSAGetOverlappedResult(talk.socket, &receive.overlapped, &bytes, TRUE, &receive.flags));
  EXPECT_EQ(bytes, 5u);
  EXPECT_EQ(receive.from.port(), talk.allowed.address.port());
}

TEST_F(NetHooks, OtherCompletionsOfAPortAreNotTouched) {
  Conversation talk;
  const HANDLE port = CreateIoCompletionPort(talk.socket.handle(), nullptr, 1, 0);
  OVERLAPPED first{}, third{};
  PostQueuedCompletionStatus(port, 7, 0, &first);
  Pending receive;
  ASSERT_TRUE(receive.Start(talk.socket));
  talk.denied.SendTo(talk.at, "hello");
  while (!HasOverlappedIoCompleted(&receive.overlapped)) SleepEx(1, FALSE);
  PostQueuedCompletionStatus(port, 9, 0, &third);
  std::map<OVERLAPPED*, DWORD> bytes;
  while (bytes.size() < 3) {
    OVERLAPPED_ENTRY entries[4] = {};
    ULONG removed = 0;
    ASSERT_TRUE(GetQueuedCompletionStatusEx(port, entries, 4, &removed, 3000, FALSE));
    for (const OVERLAPPED_ENTRY& entry : std::span(entries, removed))
      bytes[entry.lpOverlapped] = entry.dwNumberOfBytesTransferred;
  }
  EXPECT_EQ(bytes, (std::map<OVERLAPPED*, DWORD>{{&first, 7}, {&receive.overlapped, 0}, {&third, 9}}));
  CloseHandle(port);
}

// ---- Many threads ----

TEST_F(NetHooks, CountsOfManyThreadsAddUp) {
  constexpr int kThreads = 4, kDatagrams = 5'000;
  SetNetRules({AddressRule(1, {127, 0, 0, kAllowed}), AddressRule(0, {127, 0, 0, kDenied}), DefaultRule(0)},
              0x07);
  Peer allowed(Local(kAllowed)), denied(Local(kDenied));
  std::atomic<int> sent = 0, refused = 0;
  const auto send = [&] {
    Socket client(AF_INET, SOCK_DGRAM);
    for (int i = 0; i < kDatagrams; ++i) {
      const Address& to = (i % 2 ? denied : allowed).address;
      WSABUF data{1, const_cast<char*>("x")};
      DWORD bytes = 0;
      const int result = i / 2 % 2
                             ? sendto(client, "x", 1, 0, &to.any, to.length())
                             : WSASendTo(client, &data, 1, &bytes, 0, &to.any, to.length(), nullptr, nullptr);
      sent += result != -1;
      refused += result == -1 && WSAGetLastError() == WSAENETUNREACH;
    }
    EXPECT_EQ(GetNetMgr().model().QuerySocket(client, false).send_count, std::uint64_t{kDatagrams});
    const SOCKET closed = client;
    client.Close();
    EXPECT_EQ(GetNetMgr().model().QuerySocket(closed, false).socket, INVALID_SOCKET);
    EXPECT_EQ(GetThreadState()->hookDepth, 0u);
    FreeThreadState();
  };
  int handles = 0;
  for (int round = 0; round < 2; ++round) {  // the first allocates what is needed once
    handles = vorn::test::OpenHandles();
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) threads.emplace_back(send);
    for (std::thread& thread : threads) thread.join();
  }
  EXPECT_LT(vorn::test::OpenHandles() - handles, kThreads);
  EXPECT_EQ(sent, kThreads * kDatagrams);
  EXPECT_EQ(refused, kThreads * kDatagrams);
  EXPECT_EQ(denied.Receive(50), "");
}

}  // namespace
}  // namespace VornCore::test
