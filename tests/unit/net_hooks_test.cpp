// What the handlers do to the state of the process, behind real hooks in ws2_32, dnsapi and KernelBase:
// sockets of this process, contexts of receives in flight, threads, faults. (tests/e2e/net_test.cpp shows
// every road of a confined process from outside.) Destinations: 127.0.0.1 is allowed, 127.0.0.2 is not.
// Sources are told apart by their port, because Wine sends from 127.0.0.1 whatever loopback address a socket
// is bound to.
#include "net_confinement.h"

#include <atomic>
#include <map>
#include <memory>
#include <thread>

#include "Platform/guard.h"
#include "VornCore/Hook/kernel_base.h"
#include "VornCore/Hook/late_modules.h"
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

template <class Function>
Function Extension(SOCKET s, GUID id) {
  Function function = nullptr;
  DWORD bytes = 0;
  EXPECT_EQ(WSAIoctl(s, SIO_GET_EXTENSION_FUNCTION_POINTER, &id, sizeof id, &function, sizeof function,
                     &bytes, nullptr, nullptr),
            0);
  return function;
}

// ---- Connections ----

TEST_F(NetHooks, OwnServerIsReachableUnderAnyRules) {
  Socket server(AF_INET, SOCK_STREAM);
  const Address at = server.Bind(Local(kDenied));
  listen(server, 5);
  Socket client(AF_INET, SOCK_STREAM);
  EXPECT_EQ(connect(client, &at.any, at.length()), 0) << WSAGetLastError();
}

TEST_F(NetHooks, UnknownSocketsAreNotChecked) {
  Peer server(Local(kDenied), SOCK_STREAM);
  Unrecorded unrecorded;
  Socket client(AF_INET, SOCK_STREAM);
  EXPECT_EQ(connect(client, &server.address.any, server.address.length()), 0);
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

struct Receive {
  char data[16] = {};
  Address from{};
  int from_length = sizeof(Address);
  WSABUF buffer{8, data};
  DWORD bytes = 0, flags = 0;
  OVERLAPPED overlapped{};

  // True when the receive is pending.
  bool Start(SOCKET s, LPWSAOVERLAPPED_COMPLETION_ROUTINE routine = nullptr) {
    from_length = sizeof from;
    return WSARecvFrom(s, &buffer, 1, &bytes, &flags, &from.any, &from_length, &overlapped, routine) == -1 &&
           WSAGetLastError() == WSA_IO_PENDING;
  }
};

struct RoutineCall {
  int calls = 0;
  DWORD error = 99, bytes = 99;
  std::function<void()> then;
} routine_call;

void CALLBACK Routine(DWORD error, DWORD bytes, LPWSAOVERLAPPED, DWORD) {
  ++routine_call.calls;
  routine_call.error = error;
  routine_call.bytes = bytes;
  if (routine_call.then) routine_call.then();
}

// The call fails in any case; what lies in the buffers depends on the source.
TEST_F(NetHooks, TruncatedDatagramOfARefusedSourceIsWiped) {
  Conversation talk;
  const auto recv_msg = Extension<LPFN_WSARECVMSG>(talk.socket, WSAID_WSARECVMSG);
  for (Peer* from : {&talk.allowed, &talk.denied}) {
    for (int call = 0; call < 5; ++call) {
      from->SendTo(talk.at, "longer than the buffer");
      fd_set readable{1, {talk.socket}};
      timeval patience{3, 0};
      select(0, &readable, nullptr, nullptr, &patience);
      Receive receive;
      WSAMSG message{&receive.from.any, receive.from_length, &receive.buffer, 1, {}, 0};
      OVERLAPPED* const with = call % 2 ? &receive.overlapped : nullptr;
      EXPECT_EQ(call == 0  ? recvfrom(talk.socket, receive.data, 8, 0, nullptr, nullptr)
                : call < 3 ? WSARecvFrom(talk.socket, &receive.buffer, 1, &receive.bytes, &receive.flags,
                                         nullptr, nullptr, with, nullptr)
                           : recv_msg(talk.socket, &message, &receive.bytes, with, nullptr),
                -1);
      EXPECT_EQ(WSAGetLastError(), WSAEMSGSIZE) << call;
      EXPECT_STREQ(receive.data, from == &talk.allowed ? "longer t" : "") << call;
      EXPECT_EQ(receive.data[7], from == &talk.allowed ? 't' : 0) << call;
    }
  }
}

TEST_F(NetHooks, RoutineMayReuseItsOverlapped) {
  Conversation talk;
  routine_call = {};
  Receive receive;
  routine_call.then = [&] {
    if (routine_call.calls < 3) receive.Start(talk.socket, &Routine);
  };
  ASSERT_TRUE(receive.Start(talk.socket, &Routine));
  for (int i = 0; i < 3; ++i) {
    talk.allowed.SendTo(talk.at, "hello");
    for (int j = 0; j < 10 && routine_call.calls <= i; ++j) SleepEx(300, TRUE);
  }
  EXPECT_EQ(routine_call.calls, 3);
}

TEST_F(NetHooks, UncollectedOverlappedMayBeReused) {
  Conversation talk;
  Receive receive;
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
  Receive receive;
  ASSERT_TRUE(receive.Start(talk.socket));
  talk.denied.SendTo(talk.at, "hello");
  while (!HasOverlappedIoCompleted(&receive.overlapped)) SleepEx(1, FALSE);
  PostQueuedCompletionStatus(port, 9, 0, &third);
  std::map<OVERLAPPED*, DWORD> bytes;
  while (bytes.size() < 3) {
    OVERLAPPED_ENTRY entries[4] = {};
    ULONG removed = 0;
    ASSERT_TRUE(GetQueuedCompletionStatusEx(port, entries, 4, &removed, 3000, FALSE));
    for (ULONG i = 0; i < removed; ++i)
      bytes[entries[i].lpOverlapped] = entries[i].dwNumberOfBytesTransferred;
  }
  EXPECT_EQ(bytes[&first], 7u);
  EXPECT_EQ(bytes[&receive.overlapped], 0u);
  EXPECT_EQ(bytes[&third], 9u);
  CloseHandle(port);
}

// ---- Many threads ----

TEST_F(NetHooks, CountsOfManyThreadsAddUp) {
  constexpr int kThreads = 4, kDatagrams = 10'000, kWarmUp = 1'000;
  SetNetRules({AddressRule(1, {127, 0, 0, kAllowed}), AddressRule(0, {127, 0, 0, kDenied}), DefaultRule(0)},
              0x07);
  Peer allowed(Local(kAllowed)), denied(Local(kDenied));
  std::atomic<int> sent = 0, refused = 0;
  const auto run = [&](int datagrams) {
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
      threads.emplace_back([&] {
        Socket client(AF_INET, SOCK_DGRAM);
        for (int i = 0; i < datagrams; ++i) {
          const Peer& to = i % 2 ? denied : allowed;
          WSABUF data{1, const_cast<char*>("x")};
          DWORD bytes = 0;
          if (i / 2 % 2 ? sendto(client, "x", 1, 0, &to.address.any, to.address.length()) == 1
                        : WSASendTo(client, &data, 1, &bytes, 0, &to.address.any, to.address.length(),
                                    nullptr, nullptr) == 0)
            ++sent;
          else if (WSAGetLastError() == WSAENETUNREACH)
            ++refused;
        }
        EXPECT_EQ(GetNetMgr().model().QuerySocket(client, false).send_count,
                  static_cast<std::uint64_t>(datagrams));
        const SOCKET closed = client;
        client.Close();
        EXPECT_EQ(GetNetMgr().model().QuerySocket(closed, false).socket, INVALID_SOCKET);
        EXPECT_EQ(GetThreadState()->hookDepth, 0u);
        FreeThreadState();
      });
    }
    for (std::thread& thread : threads) thread.join();
  };
  run(kWarmUp);  // one-time allocations
  const int handles = vorn::test::OpenHandles();
  run(kDatagrams - kWarmUp);
  EXPECT_LT(vorn::test::OpenHandles() - handles, kThreads);
  EXPECT_EQ(sent, kThreads * kDatagrams / 2);
  EXPECT_EQ(refused, kThreads * kDatagrams / 2);
  EXPECT_EQ(denied.Receive(50), "");
}

}  // namespace
}  // namespace VornCore::test
