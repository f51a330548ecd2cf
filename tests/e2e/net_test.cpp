// A really confined process and real servers of another one, on 127.0.0.1 and ::1. Every list of calls runs
// twice: under rules, and without any as the control.
#include <algorithm>
#include <atomic>
#include <thread>

#include "tests/e2e/net_run.h"

namespace vorn::test {
namespace {

using policy::AuditType;
using policy::Protocol;
constexpr AuditType kConnect = AuditType::kConnect, kSend = AuditType::kSend, kRecv = AuditType::kRecv;
constexpr Protocol kTcp = Protocol::kTcp, kUdp = Protocol::kUdp;
const std::string kUnreachable = " 10051";

std::string Text(std::uint16_t port) { return std::to_string(port); }

// A bound socket of this process.
struct Listener : Socket {
  Listener(int family, int type)
      : Socket(family, type), port(Bind(family == AF_INET ? Local(1) : Local6()).port()) {
    EXPECT_NE(port, 0) << WSAGetLastError();
    if (type == SOCK_STREAM) listen(*this, 100);
  }
  const std::uint16_t port;
};

// The servers of a test: "good" is allowed by the rules, "bad" is not. The datagram server answers "good" and
// "bad" from the socket of that name, and nothing else.
class Servers {
 public:
  Servers() {
    responder_ = std::thread([this] {
      char data[64];
      for (;;) {
        Address from{};
        int length = sizeof from;
        const int got = recvfrom(udp_good, data, sizeof data, 0, &from.any, &length);
        if (stop_) return;
        const std::string ask(data, got > 0 ? static_cast<std::size_t>(got) : 0);
        ++asked;
        if (ask != "good" && ask != "bad") continue;
        sendto(ask == "good" ? udp_good : udp_bad, "secret", 6, 0, &from.any, length);
      }
    });
  }
  ~Servers() {
    stop_ = true;
    udp_good.Close();
    responder_.join();
  }

  // IPv4 and IPv6 loopback, but for the ports of the bad servers.
  std::vector<host::NetRule> Rules() const {
    std::vector<std::uint8_t> v6(16);
    v6[15] = 1;
    return {AddressRule(0, {127, 0, 0, 1}, {udp_bad.port, tcp_bad.port}), AddressRule(1, {127, 0, 0, 1}),
            AddressRule(1, v6, {tcp6_good.port, udp6_good.port}), DefaultRule(0)};
  }

  Listener udp_good{AF_INET, SOCK_DGRAM}, udp_bad{AF_INET, SOCK_DGRAM};
  Listener tcp_good{AF_INET, SOCK_STREAM}, tcp_bad{AF_INET, SOCK_STREAM};
  Listener udp6_good{AF_INET6, SOCK_DGRAM}, udp6_bad{AF_INET6, SOCK_DGRAM};
  Listener tcp6_good{AF_INET6, SOCK_STREAM}, tcp6_bad{AF_INET6, SOCK_STREAM};
  std::atomic<int> asked = 0;

 private:
  std::atomic<bool> stop_ = false;
  std::thread responder_;
};

// One call: what it prints under the rules and without them, and its audit under the rules.
struct Case {
  std::string command, confined, plain;
  AuditType audit = {};  // 0: none
  std::uint32_t verdict = 0;
  Protocol protocol = kUdp;
  std::string address = "127.0.0.1";
  std::uint16_t port = 0;
};

void Check(const std::vector<Case>& cases, const std::vector<host::NetRule>& rules) {
  std::vector<std::string> commands;
  for (const Case& c : cases) commands.push_back(c.command);
  const auto word = [](const std::string& command) { return command.substr(0, command.find(' ')); };

  const NetRun plain = RunProbe(commands, {});
  ASSERT_EQ(plain.lines.size(), cases.size());
  for (std::size_t i = 0; i < cases.size(); ++i)
    EXPECT_EQ(plain.lines[i], word(cases[i].command) + cases[i].plain)
        << "without rules: " << cases[i].command;
  EXPECT_TRUE(plain.audits.empty());

  const NetRun confined = RunProbe(commands, rules);
  ASSERT_EQ(confined.lines.size(), cases.size());
  std::size_t next = 0;
  for (std::size_t i = 0; i < cases.size(); ++i) {
    const Case& c = cases[i];
    EXPECT_EQ(confined.lines[i], word(c.command) + c.confined) << c.command;
    if (c.audit == AuditType{}) continue;
    ASSERT_LT(next, confined.audits.size()) << c.command;
    const policy::NetAudit& audit = confined.audits[next++];
    EXPECT_EQ(audit.type, c.audit) << c.command;
    EXPECT_EQ(audit.verdict, policy::Verdict{c.verdict}) << c.command;
    EXPECT_EQ(audit.error, c.verdict ? 0u : static_cast<std::uint32_t>(ERROR_ACCESS_DENIED)) << c.command;
    EXPECT_EQ(audit.protocol, c.protocol) << c.command;
    EXPECT_EQ(audit.destination, c.address) << c.command;
    EXPECT_EQ(audit.destination_port, c.port) << c.command;
    EXPECT_EQ(audit.domain, "") << c.command;
  }
  EXPECT_EQ(next, confined.audits.size());
}

class Net : public NetTest {
 protected:
  Servers servers;
};

TEST_F(Net, ConnectionsAreMadeOrRefusedAndReported) {
  std::vector<Case> cases;
  for (const std::string how : {"connect", "wsaconnect", "connectex"}) {
    for (const auto& [address, good, bad] :
         {std::tuple(std::string("127.0.0.1"), servers.tcp_good.port, servers.tcp_bad.port),
          {std::string("::1"), servers.tcp6_good.port, servers.tcp6_bad.port}}) {
      cases.push_back({how + " " + address + " " + Text(good), " 0", " 0", kConnect, 1, kTcp, address, good});
      cases.push_back(
          {how + " " + address + " " + Text(bad), kUnreachable, " 0", kConnect, 0, kTcp, address, bad});
    }
    // An IPv4 rule holds for IPv4 over an IPv6 socket.
    cases.push_back({how + " ::ffff:127.0.0.1 " + Text(servers.tcp_bad.port), kUnreachable, " 0", kConnect, 0,
                     kTcp, "127.0.0.1", servers.tcp_bad.port});
  }
  Check(cases, servers.Rules());
}

TEST_F(Net, DatagramsAreSentOrRefused) {
  std::vector<Case> cases;
  for (const std::string how : {"sendto", "wsasendto", "sendmsg"}) {
    cases.push_back({how + " 127.0.0.1 " + Text(servers.udp_good.port), " 0", " 0"});
    cases.push_back({how + " 127.0.0.1 " + Text(servers.udp_bad.port), kUnreachable, " 0", kSend, 0, kUdp,
                     "127.0.0.1", servers.udp_bad.port});
    cases.push_back({how + " ::1 " + Text(servers.udp6_good.port), " 0", " 0"});
    cases.push_back({how + " ::1 " + Text(servers.udp6_bad.port), kUnreachable, " 0", kSend, 0, kUdp, "::1",
                     servers.udp6_bad.port});
  }
  Check(cases, servers.Rules());
  EXPECT_EQ(servers.asked, 6) << "three each, with and without rules";
}

TEST_F(Net, ReceivedDatagramsAreDeliveredOrWiped) {
  std::vector<Case> cases;
  const std::string to = " 127.0.0.1 " + Text(servers.udp_good.port);
  const std::string delivered = " 0 6 secret####", wiped = " 10049 0 ......####";
  for (const std::string how : {"recvfrom", "recv", "wsarecvfrom", "wsarecv", "recvmsg"}) {
    const bool whole_buffer = how.size() > 4 && how != "recvfrom";  // those that describe it by an array
    cases.push_back({how + to + " good", delivered, delivered});
    cases.push_back({how + to + " bad", whole_buffer ? " 10049 0 .........." : wiped, delivered, kRecv, 0,
                     kUdp, "127.0.0.1", servers.udp_bad.port});
  }
  Check(cases, servers.Rules());
}

TEST_F(Net, OverlappedReceivesAreJudgedOnEveryPath) {
  std::vector<Case> cases;
  const std::string to = " 127.0.0.1 " + Text(servers.udp_good.port);
  const std::string delivered = " 0 6 secret####", nothing = "0 ..........";
  for (const std::string end : {"result", "resultex", "wsaresult", "port", "portex", "routine"}) {
    for (const std::string call : {"wsarecvfrom", "recvmsg"}) {
      for (const std::string when : {"pending", "immediate"}) {
        const std::string command = "overlapped " + end + " " + call + " " + when + to;
        // In the call and by a routine a refusal is an error; elsewhere it is a receive of nothing.
        const std::string refused = when == "immediate" || end == "routine" ? " 10049 " : " 0 ";
        cases.push_back({command + " good", delivered, delivered});
        cases.push_back({command + " bad", refused + nothing, delivered, kRecv, 0, kUdp, "127.0.0.1",
                         servers.udp_bad.port});
      }
    }
  }
  Check(cases, servers.Rules());
}

TEST_F(Net, TrafficOfAServerIsNotChecked) {
  Listener reserved(AF_INET, SOCK_DGRAM);
  const std::uint16_t port = reserved.port;
  reserved.Close();
  std::atomic<bool> answered = false;
  std::thread client([&] {  // asks from the refused socket until the server is there
    servers.udp_bad.SetReceiveTimeout(100);
    const Address to = Local(1, port);
    char data[16];
    for (int i = 0; i < 600 && !answered; ++i) {
      sendto(servers.udp_bad, "ask", 3, 0, &to.any, to.length());
      answered = recv(servers.udp_bad, data, sizeof data, 0) == 6;
    }
  });
  const NetRun run = RunProbe({"serve " + Text(port)}, servers.Rules());
  client.join();
  EXPECT_TRUE(answered);
  EXPECT_EQ(run.lines, std::vector<std::string>{"serve 0 3 ask#######"});
  EXPECT_TRUE(run.audits.empty());
}

TEST_F(Net, EachProcessReportsItsFirstUseOfWinsockAndItsChecks) {
  const NetRun run = RunProbe({"connect 127.0.0.1 " + Text(servers.tcp_good.port)}, servers.Rules());
  int starts = 0, checks = 0;
  for (const Received& message : run.messages) {
    const auto* sample = message.As<policy::Sample>();
    if (!sample) continue;
    starts += sample->subtype == policy::kSubtypeSampleDnsCache && sample->first == 1;
    checks += sample->subtype == policy::kSubtypeSampleSocketCheck && sample->third == 1;
  }
  EXPECT_EQ(starts, 1);
  EXPECT_EQ(checks, 1);
}

}  // namespace
}  // namespace vorn::test
