// The manager's handlers behind real hooks in ws2_32, dnsapi and KernelBase, between real sockets on the
// loopback interface. 127.0.0.1 stands for the allowed side, 127.0.0.2 for the refused one; each refusal has
// an allowed twin.
#include "net_confinement.h"

#include <atomic>
#include <thread>

#include "Net/dns_cache.h"
#include "Platform/guard.h"
#include "VornCore/Hook/kernel_base.h"
#include "VornCore/Hook/mod.h"

extern "C" {
NTSTATUS NTAPI LdrLockLoaderLock(ULONG flags, ULONG* state, ULONG_PTR* cookie);
NTSTATUS NTAPI LdrUnlockLoaderLock(ULONG flags, ULONG_PTR cookie);
}

namespace VornCore::test {
namespace {

constexpr std::uint32_t kConnect = 8, kSend = 9, kRecv = 10, kTcp = 6, kUdp = 17;
constexpr std::uint8_t kAllowed = 1, kDenied = 2;

class NetHooks : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    static bool installed = false;  // (each parameterised suite comes through here)
    if (installed) return;
    installed = true;
    Confinement::Get();
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
    Confinement::Get().SetRules(
        {AddressRule(1, {127, 0, 0, kAllowed}), AddressRule(0, {127, 0, 0, kDenied}), DefaultRule(0)});
  }

  void TearDown() override {
    EXPECT_EQ(GetNetMgr().contexts().live_count(), 0);
    EXPECT_EQ(GetNetMgr().model().socket_count(), 0);
    EXPECT_EQ(GetThreadState()->hookDepth, 0u);
    EXPECT_EQ(GetThreadState()->bInNetCall, 0);
  }

  static std::vector<Audit> Audits(std::size_t count) { return Confinement::Get().host().Audits(count); }

  // Exactly one audit came, with these facts.
  static void ExpectAudit(std::uint32_t type, std::uint32_t verdict, const std::string& destination,
                          std::uint16_t port, std::uint32_t protocol) {
    const auto audits = Audits(1);
    ASSERT_EQ(audits.size(), 1u);
    EXPECT_EQ(audits[0].type, type);
    EXPECT_EQ(audits[0].verdict, verdict);
    EXPECT_EQ(audits[0].error, verdict ? 0u : static_cast<std::uint32_t>(ERROR_ACCESS_DENIED));
    EXPECT_EQ(audits[0].destination, destination);
    EXPECT_EQ(audits[0].destination_port, port);
    EXPECT_EQ(audits[0].protocol, protocol);
    Confinement::Get().host().Forget();
  }
  static void ExpectNoAudit() {
    Confinement::Get().host().CatchUp();
    EXPECT_TRUE(Audits(0).empty());
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

using Connector = int (*)(SOCKET, const Address&);

int ConnectPlain(SOCKET s, const Address& to) { return connect(s, &to.any, to.length()); }
int ConnectWsa(SOCKET s, const Address& to) {
  return WSAConnect(s, &to.any, to.length(), nullptr, nullptr, nullptr, nullptr);
}
int ConnectEx(SOCKET s, const Address& to) {
  Address any{};
  any.any.sa_family = to.any.sa_family;
  bind(s, &any.any, any.length());
  const auto connect_ex = Extension<LPFN_CONNECTEX>(s, WSAID_CONNECTEX);
  OVERLAPPED overlapped{};
  overlapped.hEvent = CreateEventW(nullptr, TRUE, FALSE, nullptr);
  DWORD bytes = 0;
  int result = 0;
  if (!connect_ex(s, &to.any, to.length(), nullptr, 0, nullptr, &overlapped)) {
    result = -1;
    if (WSAGetLastError() == WSA_IO_PENDING)
      result = GetOverlappedResult(reinterpret_cast<HANDLE>(s), &overlapped, &bytes, TRUE) ? 0 : -1;
  }
  const DWORD error = GetLastError();
  CloseHandle(overlapped.hEvent);
  SetLastError(error);
  return result;
}

class NetHooksConnect : public NetHooks, public ::testing::WithParamInterface<Connector> {};
INSTANTIATE_TEST_SUITE_P(EveryWay, NetHooksConnect,
                         ::testing::Values(&ConnectPlain, &ConnectWsa, &ConnectEx));

TEST_P(NetHooksConnect, AnAllowedConnectionIsMadeAndReported) {
  Peer server(Local(kAllowed), SOCK_STREAM);
  Socket client(AF_INET, SOCK_STREAM);
  EXPECT_EQ(GetParam()(client, server.address), 0) << WSAGetLastError();
  ExpectAudit(kConnect, 1, "127.0.0.1", server.address.port(), kTcp);
}

TEST_P(NetHooksConnect, ARefusedConnectionFailsLikeAnUnreachableNetwork) {
  Peer server(Local(kDenied), SOCK_STREAM);
  Socket client(AF_INET, SOCK_STREAM);
  EXPECT_EQ(GetParam()(client, server.address), -1);
  EXPECT_EQ(WSAGetLastError(), WSAENETUNREACH);
  ExpectAudit(kConnect, 0, "127.0.0.2", server.address.port(), kTcp);
}

TEST_F(NetHooks, MappedIPv6DestinationsFallUnderIPv4Rules) {
  Peer refused(Local(kDenied), SOCK_STREAM), allowed(Local(kAllowed), SOCK_STREAM);
  for (const auto& [server, last, verdict] :
       {std::tuple(&refused, kDenied, 0u), std::tuple(&allowed, kAllowed, 1u)}) {
    Socket client(AF_INET6, SOCK_STREAM);
    const DWORD off = 0;
    setsockopt(client, IPPROTO_IPV6, IPV6_V6ONLY, reinterpret_cast<const char*>(&off), sizeof off);
    const Address to = Mapped(last, server->address.port());
    EXPECT_EQ(connect(client, &to.any, to.length()), verdict ? 0 : -1);
    ExpectAudit(kConnect, verdict, "127.0.0." + std::to_string(last), server->address.port(), kTcp);
  }
}

TEST_F(NetHooks, IPv6RulesDecideIPv6DestinationsByPort) {
  Peer server(Local6(), SOCK_STREAM), other(Local6(), SOCK_STREAM);
  std::vector<std::uint8_t> loopback(16);
  loopback[15] = 1;
  Confinement::Get().SetRules({AddressRule(1, loopback, {server.address.port()}), DefaultRule(0)});
  Socket a(AF_INET6, SOCK_STREAM), b(AF_INET6, SOCK_STREAM);
  EXPECT_EQ(connect(a, &server.address.any, server.address.length()), 0);
  ExpectAudit(kConnect, 1, "::1", server.address.port(), kTcp);
  EXPECT_EQ(connect(b, &other.address.any, other.address.length()), -1);
  EXPECT_EQ(WSAGetLastError(), WSAENETUNREACH);
  ExpectAudit(kConnect, 0, "::1", other.address.port(), kTcp);
}

TEST_F(NetHooks, AnOwnServerIsReachedWhateverTheRulesSay) {
  Socket server(AF_INET, SOCK_STREAM);
  const Address at = server.Bind(Local(kDenied));
  listen(server, 5);
  Socket client(AF_INET, SOCK_STREAM);
  EXPECT_EQ(connect(client, &at.any, at.length()), 0) << WSAGetLastError();
  ExpectAudit(kConnect, 1, "127.0.0.2", at.port(), kTcp);
}

TEST_F(NetHooks, SocketsThatTheLibraryDidNotSeeCreatedAreNotChecked) {
  Peer server(Local(kDenied), SOCK_STREAM);
  Unrecorded unrecorded;
  Socket client(AF_INET, SOCK_STREAM);
  EXPECT_EQ(connect(client, &server.address.any, server.address.length()), 0);
}

TEST_F(NetHooks, AConnectionIsReportedWithTheNameThatItsAddressWasResolvedFrom) {
  Peer server(Local(kDenied), SOCK_STREAM);
  ADDRINFOW info{};
  Address answer = server.address;
  info.ai_addr = &answer.any;
  info.ai_addrlen = sizeof answer.v4;
  GetDnsCache().AddAddrInfo(L"Files.Example.ORG", &info);
  Confinement::Get().SetRules({DomainRule(1, L"*.example.org", {server.address.port()}), DefaultRule(0)});
  Socket client(AF_INET, SOCK_STREAM);
  EXPECT_EQ(connect(client, &server.address.any, server.address.length()), 0);
  const auto audits = Audits(1);
  ASSERT_EQ(audits.size(), 1u);
  EXPECT_EQ(audits[0].domain, "Files.Example.ORG");
  EXPECT_EQ(audits[0].verdict, 1u);
  EXPECT_EQ(audits[0].source, "");  // a socket has no address before it connects
}

// ---- Datagrams out ----

using Sender = int (*)(SOCKET, const Address*);

int SendPlain(SOCKET s, const Address* to) {
  return sendto(s, "hello", 5, 0, to ? &to->any : nullptr, to ? to->length() : 0);
}
int SendWsa(SOCKET s, const Address* to) {
  WSABUF buffer{5, const_cast<char*>("hello")};
  DWORD sent = 0;
  const int result =
      WSASendTo(s, &buffer, 1, &sent, 0, to ? &to->any : nullptr, to ? to->length() : 0, nullptr, nullptr);
  return result == 0 ? static_cast<int>(sent) : result;
}
int SendMessageExtension(SOCKET s, const Address* to) {
  const auto send_msg = Extension<LPFN_WSASENDMSG>(s, WSAID_WSASENDMSG);
  WSABUF buffer{5, const_cast<char*>("hello")};
  Address copy = to ? *to : Address{};
  WSAMSG message{};
  message.name = to ? &copy.any : nullptr;
  message.namelen = to ? to->length() : 0;
  message.lpBuffers = &buffer;
  message.dwBufferCount = 1;
  DWORD sent = 0;
  const int result = send_msg(s, &message, 0, &sent, nullptr, nullptr);
  return result == 0 ? static_cast<int>(sent) : result;
}

class NetHooksSend : public NetHooks, public ::testing::WithParamInterface<Sender> {};
INSTANTIATE_TEST_SUITE_P(EveryWay, NetHooksSend,
                         ::testing::Values(&SendPlain, &SendWsa, &SendMessageExtension));

TEST_P(NetHooksSend, AnAllowedDatagramArrivesUnreported) {
  Peer peer(Local(kAllowed));
  Socket client(AF_INET, SOCK_DGRAM);
  EXPECT_EQ(GetParam()(client, &peer.address), 5) << WSAGetLastError();
  EXPECT_EQ(peer.Receive(), "hello");
  ExpectNoAudit();
}

TEST_P(NetHooksSend, ARefusedDatagramIsNotSent) {
  Peer peer(Local(kDenied));
  Socket client(AF_INET, SOCK_DGRAM);
  EXPECT_EQ(GetParam()(client, &peer.address), -1);
  EXPECT_EQ(WSAGetLastError(), WSAENETUNREACH);
  ExpectAudit(kSend, 0, "127.0.0.2", peer.address.port(), kUdp);
  EXPECT_EQ(peer.Receive(50), "");
}

TEST_P(NetHooksSend, WithoutAnAddressThePeerDecides) {
  Peer peer(Local(kAllowed));
  Socket client(AF_INET, SOCK_DGRAM);
  EXPECT_EQ(GetParam()(client, nullptr), -1);  // nobody to ask about
  EXPECT_EQ(WSAGetLastError(), WSAENETUNREACH);
  ExpectNoAudit();

  EXPECT_EQ(connect(client, &peer.address.any, peer.address.length()), 0);
  ExpectAudit(kConnect, 1, "127.0.0.1", peer.address.port(), kUdp);
  Confinement::Get().SetRules({DefaultRule(0)});
  EXPECT_EQ(GetParam()(client, nullptr), -1);
  EXPECT_EQ(WSAGetLastError(), WSAENETUNREACH);
  ExpectAudit(kSend, 0, "127.0.0.1", peer.address.port(), kUdp);
}

// ---- Datagrams in ----

// A client socket that has sent, so that it is no server, and a peer on each side.
struct Conversation {
  Conversation() : socket(AF_INET, SOCK_DGRAM), allowed(Local(kAllowed)), denied(Local(kAllowed)) {
    Confinement::Get().SetRules({AddressRule(0, {127, 0, 0, 1}, {denied.address.port()}),
                                 AddressRule(1, {127, 0, 0, 1}), DefaultRule(0)});
    at = socket.Bind(Local(kAllowed));
    sendto(socket, "x", 1, 0, &allowed.address.any, allowed.address.length());
    EXPECT_EQ(allowed.Receive(), "x");
    const DWORD timeout = 3000;
    setsockopt(socket, SOL_SOCKET, SO_RCVTIMEO, reinterpret_cast<const char*>(&timeout), sizeof timeout);
  }
  Socket socket;
  Peer allowed, denied;
  Address at;
};

struct Received {
  int result = 0;
  int error = 0;
  DWORD bytes = 0;
  char data[16] = "---------------";
  Address from{};
  int from_length = sizeof(Address);
  bool has_from = true;
};

using Receiver = Received (*)(SOCKET);

Received RecvFrom(SOCKET s) {
  Received r;
  r.result = recvfrom(s, r.data, 8, 0, &r.from.any, &r.from_length);
  r.error = WSAGetLastError();
  r.bytes = r.result > 0 ? static_cast<DWORD>(r.result) : 0;
  return r;
}
Received Recv(SOCKET s) {
  Received r;
  r.has_from = false;
  r.result = recv(s, r.data, 8, 0);
  r.error = WSAGetLastError();
  r.bytes = r.result > 0 ? static_cast<DWORD>(r.result) : 0;
  return r;
}
Received WsaRecvFrom(SOCKET s) {
  Received r;
  WSABUF buffers[2] = {{2, r.data}, {6, r.data + 2}};
  DWORD flags = 0;
  r.result = WSARecvFrom(s, buffers, 2, &r.bytes, &flags, &r.from.any, &r.from_length, nullptr, nullptr);
  r.error = WSAGetLastError();
  return r;
}
Received WsaRecv(SOCKET s) {
  Received r;
  r.has_from = false;
  WSABUF buffer{8, r.data};
  DWORD flags = 0;
  r.result = WSARecv(s, &buffer, 1, &r.bytes, &flags, nullptr, nullptr);
  r.error = WSAGetLastError();
  return r;
}
Received RecvMsg(SOCKET s) {
  Received r;
  const auto recv_msg = Extension<LPFN_WSARECVMSG>(s, WSAID_WSARECVMSG);
  WSABUF buffer{8, r.data};
  WSAMSG message{};
  message.name = &r.from.any;
  message.namelen = r.from_length;
  message.lpBuffers = &buffer;
  message.dwBufferCount = 1;
  r.result = recv_msg(s, &message, &r.bytes, nullptr, nullptr);
  r.error = WSAGetLastError();
  EXPECT_EQ(message.name, &r.from.any);
  r.from_length = message.namelen;
  return r;
}

class NetHooksReceive : public NetHooks, public ::testing::WithParamInterface<Receiver> {};
INSTANTIATE_TEST_SUITE_P(EveryWay, NetHooksReceive,
                         ::testing::Values(&RecvFrom, &Recv, &WsaRecvFrom, &WsaRecv, &RecvMsg));

TEST_P(NetHooksReceive, AnAllowedSourceIsDeliveredWithItsAddress) {
  Conversation talk;
  talk.allowed.SendTo(talk.at, "hello");
  const Received r = GetParam()(talk.socket);
  EXPECT_GE(r.result, 0) << r.error;
  EXPECT_EQ(r.bytes, 5u);
  EXPECT_EQ(std::string(r.data, 5), "hello");
  if (r.has_from) {
    EXPECT_EQ(r.from.port(), talk.allowed.address.port());
    EXPECT_EQ(r.from_length, static_cast<int>(sizeof(sockaddr_in)));
  }
  ExpectNoAudit();
}

TEST_P(NetHooksReceive, ARefusedSourceIsWiped) {
  Conversation talk;
  talk.denied.SendTo(talk.at, "hello");
  const Received r = GetParam()(talk.socket);
  EXPECT_EQ(r.result, -1);
  EXPECT_EQ(r.error, WSAEADDRNOTAVAIL);
  EXPECT_EQ(r.bytes, 0u);
  EXPECT_EQ(std::string(r.data, 5), std::string(5, '\0'));
  EXPECT_EQ(r.from.any.sa_family, 0);
  ExpectAudit(kRecv, 0, "127.0.0.1", talk.denied.address.port(), kUdp);
}

TEST_F(NetHooks, ABoundSocketThatReceivesFirstIsAServerAndLeftAlone) {
  Socket server(AF_INET, SOCK_DGRAM);
  const Address at = server.Bind(Local(kAllowed));
  Peer peer(Local(kDenied));
  peer.SendTo(at, "ask");
  const Received r = RecvFrom(server);
  EXPECT_EQ(r.bytes, 3u);
  EXPECT_EQ(SendPlain(server, &peer.address), 5);
  EXPECT_EQ(peer.Receive(), "hello");
  ExpectNoAudit();
}

TEST_F(NetHooks, TooLittleRoomForTheSourceDropsTheSourceAlone) {
  Conversation talk;
  talk.allowed.SendTo(talk.at, "hello");
  char data[8];
  char from[8] = "keep";
  int from_length = 4;
  EXPECT_EQ(recvfrom(talk.socket, data, sizeof data, 0, reinterpret_cast<sockaddr*>(from), &from_length), 5);
  EXPECT_EQ(std::string(from), "keep");
  EXPECT_EQ(from_length, static_cast<int>(sizeof(sockaddr_in)));
}

// ---- Overlapped receives ----

struct Overlapped : Received {
  OVERLAPPED overlapped{};
  WSABUF buffer{8, data};
  WSAMSG message{};
  DWORD flags = 0;
  bool by_message = false;

  explicit Overlapped(bool message_call) : by_message(message_call) {}
  Overlapped(const Overlapped&) = delete;

  void Start(SOCKET s, LPWSAOVERLAPPED_COMPLETION_ROUTINE routine = nullptr) {
    if (by_message) {
      const auto recv_msg = Extension<LPFN_WSARECVMSG>(s, WSAID_WSARECVMSG);
      message.name = &from.any;
      message.namelen = from_length;
      message.lpBuffers = &buffer;
      message.dwBufferCount = 1;
      result = recv_msg(s, &message, &bytes, &overlapped, routine);
    } else {
      // Winsock captures the description of the buffers: it is gone when the operation completes.
      auto description = std::make_unique<WSABUF>(buffer);
      result =
          WSARecvFrom(s, description.get(), 1, &bytes, &flags, &from.any, &from_length, &overlapped, routine);
      description->buf = reinterpret_cast<char*>(8);
    }
    error = WSAGetLastError();
  }
  bool pending() const { return result == -1 && error == WSA_IO_PENDING; }
  int source_length() const { return by_message ? message.namelen : from_length; }

  void ExpectDelivered(const Peer& peer) const {
    EXPECT_EQ(std::string(data, 5), "hello");
    EXPECT_EQ(from.port(), peer.address.port());
    EXPECT_EQ(source_length(), static_cast<int>(sizeof(sockaddr_in)));
    if (by_message) {
      EXPECT_EQ(message.name, &from.any);
    }
  }
  void ExpectWiped() const {
    EXPECT_EQ(std::string(data, 5), std::string(5, '\0'));
    EXPECT_EQ(from.any.sa_family, 0);
    if (by_message) {
      EXPECT_EQ(message.name, &from.any);
    }
  }
};

struct Collected {
  BOOL ok = FALSE;
  DWORD bytes = 99;
};
using Collector = Collected (*)(SOCKET, HANDLE port, OVERLAPPED*);

Collected ByGetOverlappedResult(SOCKET s, HANDLE, OVERLAPPED* overlapped) {
  Collected c;
  c.ok = GetOverlappedResult(reinterpret_cast<HANDLE>(s), overlapped, &c.bytes, TRUE);
  return c;
}
Collected ByGetOverlappedResultEx(SOCKET s, HANDLE, OVERLAPPED* overlapped) {
  Collected c;
  c.ok = GetOverlappedResultEx(reinterpret_cast<HANDLE>(s), overlapped, &c.bytes, 3000, FALSE);
  return c;
}
Collected ByWsaGetOverlappedResult(SOCKET s, HANDLE, OVERLAPPED* overlapped) {
  Collected c;
  DWORD flags = 0;
  c.ok = WSAGetOverlappedResult(s, overlapped, &c.bytes, TRUE, &flags);
  return c;
}
Collected ByPort(SOCKET, HANDLE port, OVERLAPPED* overlapped) {
  Collected c;
  ULONG_PTR key = 0;
  OVERLAPPED* got = nullptr;
  c.ok = GetQueuedCompletionStatus(port, &c.bytes, &key, &got, 3000);
  EXPECT_EQ(got, overlapped);
  return c;
}
Collected ByPortEx(SOCKET, HANDLE port, OVERLAPPED* overlapped) {
  // Three entries come out, of which the second is the receive.
  OVERLAPPED other{};
  Collected c;
  OVERLAPPED_ENTRY entries[4] = {};
  ULONG removed = 0;
  c.ok = GetQueuedCompletionStatusEx(port, entries, 1, &removed, 3000, FALSE);
  EXPECT_EQ(removed, 1u);
  EXPECT_EQ(entries[0].lpOverlapped, overlapped);
  c.bytes = entries[0].dwNumberOfBytesTransferred;
  PostQueuedCompletionStatus(port, 7, 0, &other);
  EXPECT_TRUE(GetQueuedCompletionStatusEx(port, entries, 4, &removed, 3000, FALSE));
  EXPECT_EQ(entries[0].dwNumberOfBytesTransferred, 7u);
  return c;
}

struct Path {
  Collector collect;
  bool port;
  bool message;
};
std::vector<Path> Paths() {
  std::vector<Path> paths;
  for (const bool message : {false, true}) {
    paths.push_back({&ByGetOverlappedResult, false, message});
    paths.push_back({&ByGetOverlappedResultEx, false, message});
    paths.push_back({&ByWsaGetOverlappedResult, false, message});
    paths.push_back({&ByPort, true, message});
    paths.push_back({&ByPortEx, true, message});
  }
  return paths;
}

class NetHooksCompletion : public NetHooks, public ::testing::WithParamInterface<Path> {
 protected:
  void Associate(SOCKET s) {
    if (GetParam().port) port_ = CreateIoCompletionPort(reinterpret_cast<HANDLE>(s), nullptr, 1, 0);
  }
  void TearDown() override {
    if (port_) CloseHandle(port_);
    NetHooks::TearDown();
  }
  HANDLE port_ = nullptr;
};
INSTANTIATE_TEST_SUITE_P(EveryPath, NetHooksCompletion, ::testing::ValuesIn(Paths()));

TEST_P(NetHooksCompletion, APendingReceiveFromAnAllowedSourceIsDelivered) {
  Conversation talk;
  Associate(talk.socket);
  Overlapped receive(GetParam().message);
  receive.Start(talk.socket);
  ASSERT_TRUE(receive.pending()) << receive.error;
  EXPECT_EQ(GetNetMgr().contexts().live_count(), 1);
  talk.allowed.SendTo(talk.at, "hello");
  const Collected c = GetParam().collect(talk.socket, port_, &receive.overlapped);
  EXPECT_TRUE(c.ok);
  EXPECT_EQ(c.bytes, 5u);
  receive.ExpectDelivered(talk.allowed);
  ExpectNoAudit();
}

TEST_P(NetHooksCompletion, APendingReceiveFromARefusedSourceIsWiped) {
  Conversation talk;
  Associate(talk.socket);
  Overlapped receive(GetParam().message);
  receive.Start(talk.socket);
  ASSERT_TRUE(receive.pending()) << receive.error;
  talk.denied.SendTo(talk.at, "hello");
  const Collected c = GetParam().collect(talk.socket, port_, &receive.overlapped);
  EXPECT_TRUE(c.ok);
  EXPECT_EQ(c.bytes, 0u);
  receive.ExpectWiped();
  ExpectAudit(kRecv, 0, "127.0.0.1", talk.denied.address.port(), kUdp);
}

class NetHooksAtOnce : public NetHooks, public ::testing::WithParamInterface<bool> {};
INSTANTIATE_TEST_SUITE_P(BothCalls, NetHooksAtOnce, ::testing::Bool());

// A receive completes in the call when its datagram is there already.
TEST_P(NetHooksAtOnce, AReceiveThatCompletesInTheCallIsJudgedInTheCall) {
  Conversation talk;
  for (const bool allowed : {true, false}) {
    Peer& peer = allowed ? talk.allowed : talk.denied;
    peer.SendTo(talk.at, "hello");
    Sleep(
        20);  // until the datagram has crossed the loopback interface; a pending receive is judged elsewhere
    Overlapped receive(GetParam());
    receive.Start(talk.socket);
    if (receive.pending()) GTEST_SKIP() << "the system completes no receive in the call";
    if (allowed) {
      EXPECT_EQ(receive.result, 0);
      EXPECT_EQ(receive.bytes, 5u);
      receive.ExpectDelivered(peer);
    } else {
      EXPECT_EQ(receive.result, -1);
      EXPECT_EQ(receive.error, WSAEADDRNOTAVAIL);
      EXPECT_EQ(receive.bytes, 0u);
      receive.ExpectWiped();
      ExpectAudit(kRecv, 0, "127.0.0.1", peer.address.port(), kUdp);
    }
    EXPECT_EQ(GetNetMgr().contexts().live_count(), 0);
  }
}

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

TEST_P(NetHooksAtOnce, ACompletionRoutineLearnsTheVerdict) {
  Conversation talk;
  for (const bool allowed : {true, false}) {
    routine_call = {};
    Overlapped receive(GetParam());
    receive.Start(talk.socket, &Routine);
    ASSERT_TRUE(receive.pending());
    Peer& peer = allowed ? talk.allowed : talk.denied;
    peer.SendTo(talk.at, "hello");
    for (int i = 0; i < 10 && !routine_call.calls; ++i) SleepEx(300, TRUE);
    EXPECT_EQ(routine_call.calls, 1);
    EXPECT_EQ(routine_call.error, allowed ? 0u : static_cast<DWORD>(WSAEADDRNOTAVAIL));
    EXPECT_EQ(routine_call.bytes, allowed ? 5u : 0u);
    allowed ? receive.ExpectDelivered(peer) : receive.ExpectWiped();
    if (!allowed) ExpectAudit(kRecv, 0, "127.0.0.1", peer.address.port(), kUdp);
  }
}

TEST_P(NetHooksAtOnce, ARefusalInTheCallDoesNotReachTheRoutine) {
  Conversation talk;
  routine_call = {};
  talk.denied.SendTo(talk.at, "hello");
  Sleep(20);
  Overlapped receive(GetParam());
  receive.Start(talk.socket, &Routine);
  if (receive.pending()) GTEST_SKIP() << "the system completes no receive in the call";
  EXPECT_EQ(receive.error, WSAEADDRNOTAVAIL);
  SleepEx(50, TRUE);
  EXPECT_EQ(routine_call.calls, 0);
  ExpectAudit(kRecv, 0, "127.0.0.1", talk.denied.address.port(), kUdp);
}

TEST_F(NetHooks, ARoutineMayStartTheNextReceiveWithTheSameOverlapped) {
  Conversation talk;
  routine_call = {};
  Overlapped receive(false);
  routine_call.then = [&] {
    if (routine_call.calls < 3) receive.Start(talk.socket, &Routine);
  };
  receive.Start(talk.socket, &Routine);
  for (int i = 0; i < 3; ++i) {
    talk.allowed.SendTo(talk.at, "hello");
    for (int j = 0; j < 10 && routine_call.calls <= i; ++j) SleepEx(300, TRUE);
  }
  EXPECT_EQ(routine_call.calls, 3);
}

TEST_F(NetHooks, AnOverlappedThatIsUsedAgainUncollectedWorks) {
  Conversation talk;
  Overlapped receive(true);
  receive.Start(talk.socket);
  ASSERT_TRUE(receive.pending());
  talk.allowed.SendTo(talk.at, "first");
  while (!HasOverlappedIoCompleted(&receive.overlapped)) SleepEx(1, FALSE);
  receive.Start(talk.socket);
  ASSERT_TRUE(receive.pending());
  EXPECT_EQ(GetNetMgr().contexts().live_count(), 1);
  talk.allowed.SendTo(talk.at, "hello");
  EXPECT_EQ(ByGetOverlappedResult(talk.socket, nullptr, &receive.overlapped).bytes, 5u);
  receive.ExpectDelivered(talk.allowed);
}

TEST_F(NetHooks, ClosingASocketReleasesItsPendingReceives) {
  Conversation talk;
  routine_call = {};
  Overlapped a(false), b(true);
  a.Start(talk.socket, &Routine);
  b.Start(talk.socket);
  EXPECT_EQ(GetNetMgr().contexts().live_count(), 2);
  talk.socket.Close();
  EXPECT_EQ(GetNetMgr().contexts().live_count(), 0);
  EXPECT_EQ(b.message.name, &b.from.any);
  SleepEx(50, TRUE);
  EXPECT_EQ(routine_call.calls, 0);
}

TEST_F(NetHooks, AnUnfinishedReceiveIsNotJudged) {
  Conversation talk;
  Overlapped receive(false);
  receive.Start(talk.socket);
  DWORD bytes = 0;
  EXPECT_FALSE(GetOverlappedResult(reinterpret_cast<HANDLE>(static_cast<SOCKET>(talk.socket)),
                                   &receive.overlapped, &bytes, FALSE));
  EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_IO_INCOMPLETE));
  EXPECT_EQ(GetNetMgr().contexts().live_count(), 1);
}

// ---- Bad input ----

TEST_F(NetHooks, BadAddressesGetAVerdictAndNeverAFault) {
  Confinement::Get().SetRules({AddressRule(1, {127, 0, 0, kAllowed}), DefaultRule(0)});
  Socket udp(AF_INET, SOCK_DGRAM), tcp(AF_INET, SOCK_STREAM);
  const Address good = Local(kAllowed, 9);
  Address odd = good;
  odd.any.sa_family = 77;
  auto* unreadable = reinterpret_cast<const sockaddr*>(16);
  char roomy[300] = {};
  memcpy(roomy, &good, sizeof good.v4);
  struct Case {
    const sockaddr* address;
    int length;
  };
  for (const Case& c : {Case{unreadable, 16}, Case{&good.any, 0}, Case{&good.any, 1}, Case{&good.any, 3},
                        Case{&good.any, -1}, Case{&odd.any, 16}, Case{nullptr, 16}, Case{nullptr, 0},
                        Case{reinterpret_cast<sockaddr*>(roomy), 300}}) {
    connect(tcp, c.address, c.length);
    sendto(udp, "x", 1, 0, c.address, c.length);
    WSABUF buffer{1, const_cast<char*>("x")};
    DWORD sent = 0;
    WSASendTo(udp, &buffer, 1, &sent, 0, c.address, c.length, nullptr, nullptr);
  }
  // What the library cannot read it hands to the real function, fault and all: the fault is the caller's.
  DWORD received = 0, flags = 0;
  (void)platform::Guarded([&] {
    WSARecvFrom(udp, reinterpret_cast<WSABUF*>(16), 1, &received, &flags, nullptr, nullptr, nullptr, nullptr);
  });
  const auto send_msg = Extension<LPFN_WSASENDMSG>(udp, WSAID_WSASENDMSG);
  const auto recv_msg = Extension<LPFN_WSARECVMSG>(udp, WSAID_WSARECVMSG);
  (void)platform::Guarded([&] { recv_msg(udp, reinterpret_cast<WSAMSG*>(16), &received, nullptr, nullptr); });
  WSABUF one{1, const_cast<char*>("x")};
  WSAMSG message{};
  message.name = const_cast<sockaddr*>(unreadable);
  message.namelen = 16;
  message.lpBuffers = &one;
  message.dwBufferCount = 1;
  EXPECT_EQ(send_msg(udp, &message, 0, &received, nullptr, nullptr), -1);
  EXPECT_EQ(WSAGetLastError(), WSAENETUNREACH);
}

// ---- Many threads ----

TEST_F(NetHooks, CountsOfManyThreadsAddUp) {
  constexpr int kThreads = 4, kDatagrams = 10'000;
  Confinement::Get().SetRules(
      {AddressRule(1, {127, 0, 0, kAllowed}), AddressRule(0, {127, 0, 0, kDenied}), DefaultRule(0)}, 0x07);
  Peer allowed(Local(kAllowed)), denied(Local(kDenied));
  std::atomic<int> sent = 0, refused = 0, other = 0;
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([&] {
      Socket client(AF_INET, SOCK_DGRAM);
      for (int i = 0; i < kDatagrams; ++i) {
        const Peer& to = i % 2 ? denied : allowed;
        if (sendto(client, "x", 1, 0, &to.address.any, to.address.length()) == 1)
          ++sent;
        else if (WSAGetLastError() == WSAENETUNREACH)
          ++refused;
        else
          ++other;
      }
      EXPECT_EQ(GetNetMgr().model().QuerySocket(client, false).send_count,
                static_cast<std::uint64_t>(kDatagrams));
      client.Close();
      EXPECT_EQ(GetThreadState()->hookDepth, 0u);
      FreeThreadState();
    });
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(sent, kThreads * kDatagrams / 2);
  EXPECT_EQ(refused, kThreads * kDatagrams / 2);
  EXPECT_EQ(other, 0);
  EXPECT_EQ(denied.Receive(50), "");
  Confinement::Get().host().CatchUp();
}

// ---- Names ----

TEST_F(NetHooks, ResolvedNamesAreRemembered) {
  ADDRINFOW* info = nullptr;
  ASSERT_EQ(GetAddrInfoW(L"localhost", nullptr, nullptr, &info), 0);
  FreeAddrInfoW(info);
  DomainName name;
  const Address address = Local(1);
  GetDnsCache().FindDomainByAddress(&address.any, sizeof address.v4, name);
  ASSERT_TRUE(name.get());
  EXPECT_STREQ(name.get(), L"localhost");
  EXPECT_TRUE(gethostbyname("localhost"));
}

TEST_F(NetHooks, AFaultInsideAResolutionLeavesTheThreadChecked) {
  (void)platform::Guarded([] { (void)gethostbyname(reinterpret_cast<const char*>(16)); });
  (void)platform::Guarded([] {
    ADDRINFOW* info = nullptr;
    (void)GetAddrInfoW(reinterpret_cast<const wchar_t*>(16), nullptr, nullptr, &info);
  });
  EXPECT_EQ(GetThreadState()->bInNetCall, 0);
  EXPECT_EQ(GetThreadState()->hookDepth, 0u);
}

}  // namespace
}  // namespace VornCore::test
