// Domain rules decide connections by the name that the program resolved, on every way to resolve one. This
// program is the name server of its own network (see with-own-resolver): it answers on 127.0.0.1:53, with
// addresses of the loopback interface, where its TCP server listens.
#include <array>
#include <atomic>
#include <map>
#include <random>
#include <thread>

#include "tests/e2e/net_run.h"

namespace vorn::test {
namespace {

// Name → CNAME and IPv4 address 127.0.0.last. A name that is not known does not exist; "slow" ones get no
// answer.
struct Entry {
  std::string alias_of;
  std::uint8_t last = 0;
};

class NameServer {
 public:
  explicit NameServer(std::map<std::string, Entry> names) : names_(std::move(names)) {
    working = socket_.Bind(Local(1, 53)).port() == 53;
    thread_ = std::thread([this] { Serve(); });
  }
  ~NameServer() {
    socket_.Close();
    thread_.join();
  }

  std::atomic<bool> working = false;

 private:
  void Serve() {
    for (;;) {
      char data[512];
      Address from{};
      int length = sizeof from;
      const int got = recvfrom(socket_, data, sizeof data, 0, &from.any, &length);
      if (got < 12) return;
      const std::string answer = Answer(std::string(data, static_cast<std::size_t>(got)));
      if (!answer.empty())
        sendto(socket_, answer.data(), static_cast<int>(answer.size()), 0, &from.any, length);
    }
  }

  static std::string Labels(const std::string& name) {
    std::string labels;
    for (std::size_t at = 0; at < name.size();) {
      const std::size_t dot = std::min(name.find('.', at), name.size());
      labels += static_cast<char>(dot - at) + name.substr(at, dot - at);
      at = dot + 1;
    }
    return labels + '\0';
  }
  static std::string Record(const std::string& name, char type, const std::string& data) {
    return Labels(name) + std::string({0, type, 0, 1, 0, 0, 0, 60, 0, static_cast<char>(data.size())}) + data;
  }

  // The answer to a query, or "" for none.
  std::string Answer(const std::string& query) const {
    std::string name;
    std::size_t at = 12;
    while (at < query.size() && query[at]) {
      const auto length = static_cast<unsigned char>(query[at]);
      name += (name.empty() ? "" : ".") + query.substr(at + 1, length);
      at += 1u + length;
    }
    if (at + 5 > query.size() || name.find("slow") != name.npos) return "";
    const char type = query[at + 2];
    const auto entry = names_.find(name);
    std::string records;
    char count = 0;
    if (entry != names_.end()) {
      std::string owner = name;
      if (!entry->second.alias_of.empty()) {
        records += Record(owner, 5, Labels(entry->second.alias_of));
        owner = entry->second.alias_of;
        ++count;
      }
      if (type == 1) {
        records += Record(owner, 1, {127, 0, 0, static_cast<char>(entry->second.last)});
        ++count;
      }
    }
    const char status = entry == names_.end() ? 3 : 0;
    return query.substr(0, 2) +
           std::string({'\x81', static_cast<char>('\x80' | status), 0, 1, 0, count, 0, 0, 0, 0}) +
           query.substr(12, at + 5 - 12) + records;
  }

  std::map<std::string, Entry> names_;
  Socket socket_{AF_INET, SOCK_DGRAM};
  std::thread thread_;
};

const char* const kWays[] = {"hostent",          "addrinfo", "addrinfo_narrow", "addrinfoex",
                             "addrinfoex_event", "dns_a",    "dns_w",           "dns_utf8"};

// A dot at the end makes no difference.
std::string Unrooted(std::string name) {
  if (name.ends_with('.')) name.pop_back();
  return name;
}

class NetNames : public NetTest {
 protected:
  void SetUp() override {
    Address anywhere{};
    anywhere.any.sa_family = AF_INET;
    port_ = listener_.Bind(anywhere).port();
    ASSERT_NE(port_, 0);
    listen(listener_, 100);
  }

  std::vector<host::NetRule> Rules() const {
    return ContentsOf(Compile("[network]\nallow = ['*.allowed.test:" + std::to_string(port_) + "']\n"))
        .net_rules;
  }
  std::string Resolve(const std::string& how, const std::string& name) const {
    return "resolve " + how + " " + name + " " + std::to_string(port_);
  }

  Socket listener_{AF_INET, SOCK_STREAM};
  std::uint16_t port_ = 0;
};

TEST_F(NetNames, RuleDecidesForEveryWayToResolveAName) {
  std::map<std::string, Entry> names;
  std::vector<std::string> commands, asked, confined, plain;
  std::uint8_t last = 10;
  for (const std::string way : kWays) {
    const auto add = [&](const std::string& name, const std::string& alias_of, bool allowed) {
      names[Unrooted(name)] = {alias_of, last++};
      commands.push_back(Resolve(way, name));
      asked.push_back(name);
      confined.push_back(allowed ? "resolve 0 0" : "resolve 0 10051");
      plain.push_back("resolve 0 0");
    };
    add(way + ".allowed.test", "", true);
    add(way + ".other.test", "", false);
    add(way + "-rooted.allowed.test.", "", true);
    add(way + "-alias.allowed.test", way + ".cdn.test", true);  // filed under the name that was asked for
    add(way + "-alias.other.test", way + ".allowed.test.cdn.test", false);
  }
  const NameServer server(names);
  ASSERT_TRUE(server.working);

  EXPECT_EQ(RunProbe(commands, {}).lines, plain);
  const NetRun run = RunProbe(commands, Rules());
  EXPECT_EQ(run.lines, confined);
  ASSERT_EQ(run.audits.size(), commands.size());
  for (std::size_t i = 0; i < commands.size(); ++i) {
    EXPECT_EQ(run.audits[i].domain, asked[i]) << commands[i];
    EXPECT_EQ(run.audits[i].destination, "127.0.0." + std::to_string(names[Unrooted(asked[i])].last));
    EXPECT_EQ(run.audits[i].verdict == policy::Verdict::kAllow, confined[i] == "resolve 0 0");
  }
}

TEST_F(NetNames, NamesThatDoNotExistFailAsTheyDoUnconfined) {
  const NameServer server({});
  ASSERT_TRUE(server.working);
  std::vector<std::string> commands;
  for (const std::string way : kWays) commands.push_back(Resolve(way, way + ".missing.test"));
  const NetRun plain = RunProbe(commands, {});
  EXPECT_EQ(RunProbe(commands, Rules()).lines, plain.lines);
  for (const std::string& line : plain.lines) EXPECT_NE(line, "resolve 0 0");
}

TEST_F(NetNames, UnansweredOverlappedQueryEndsAfterHalfAMinute) {
  const NameServer server({{"next.allowed.test", {"", 90}}});
  ASSERT_TRUE(server.working);
  const NetRun run = RunProbe(
      {Resolve("addrinfoex_bare", "next.allowed.test"), Resolve("addrinfoex_event", "slow.allowed.test"),
       Resolve("addrinfoex_bare", "next.allowed.test")},
      Rules());
  EXPECT_EQ(run.lines, (std::vector<std::string>{"resolve 0 0", "resolve 11004", "resolve 0 0"}));
}

// Addresses and names under generated policies: what the policy says, and what the library reports of a
// confined process, are the same decision.
TEST_F(NetNames, ExplainAndTheLibraryDecideAlike) {
  constexpr int kRounds = 10, kQuestions = 300, kNames = 40;
  const auto seed = std::random_device{}();
  std::mt19937 random(seed);
  const auto one_of = [&](auto... texts) {
    return std::array{std::string(texts)...}[random() % sizeof...(texts)];
  };
  std::map<std::string, Entry> names;
  for (int i = 0; i < kNames; ++i)
    names["n" + std::to_string(i) + ".p" + std::to_string(i % 4) + ".test"] = {
        "", static_cast<std::uint8_t>(10 + i)};
  const NameServer server(names);
  ASSERT_TRUE(server.working);
  const auto address = [&] {
    return "127." + one_of("7", "8", "9") + "." + one_of("0", "1", "2") + "." +
           std::to_string(1 + random() % 4);
  };
  const auto port = [&] { return one_of("", ":81", ":82,83", ":84"); };

  for (int round = 0; round < kRounds; ++round) {
    SCOPED_TRACE("seed " + std::to_string(seed) + " round " + std::to_string(round));
    std::map<std::string, std::string> rules;  // one verdict a destination
    for (int i = 0; i < 20; ++i) {
      const std::string name = std::next(names.begin(), random() % kNames)->first;
      rules[one_of("127.0.0.0/8", "127.8.0.0/16", "127.9.2.0/24", "127.7.1.0/30", address(), address(),
                   "[::1]", name, "*" + name.substr(name.find('.'))) +
            port()] = one_of("allow", "deny");
    }
    std::map<std::string, std::string> lists;
    for (const auto& [destination, verdict] : rules) lists[verdict] += "'" + destination + "', ";
    std::string text = "[network]\ndefault = '" + one_of("allow", "deny") + "'\n";
    for (const auto& [verdict, list] : lists) text += verdict + " = [" + list + "]\n";
    const host::CompiledPolicy policy = Compile(text);

    std::vector<std::string> commands;
    std::vector<policy::DestinationDecision> expected;
    for (int i = 0; i < kQuestions; ++i) {
      const std::string to = one_of("81", "82", "83", "84", "85");
      host::PolicyNetRule asked{};
      if (random() % 3 == 0) {
        const auto name = std::next(names.begin(), random() % kNames);
        commands.push_back("resolve addrinfo " + name->first + " " + to);
        asked.domain = name->first;
        asked.address = {127, 0, 0, name->second.last};
        asked.ports = {static_cast<std::uint16_t>(std::stoi(to))};
      } else {
        const std::string host = one_of(address(), address(), "::1");
        const bool mapped = host[0] != ':' && random() % 4 == 0;  // the same place in another form
        commands.push_back("connect " + (mapped ? "::ffff:" + host : host) + " " + to);
        asked = std::get<host::PolicyNetRule>(
            host::ParseDestination((host[0] == ':' ? "[" + host + "]" : host) + ":" + to));
      }
      expected.push_back(policy.DecideDestination(asked));
    }
    const NetRun run = RunProbe(commands, ContentsOf(policy).net_rules,
                                static_cast<std::uint32_t>(policy::SectionOption::kDecisionInAudit));
    ASSERT_EQ(run.audits.size(), commands.size()) << text;
    for (std::size_t i = 0; i < commands.size(); ++i) {
      const policy::NetAudit& audit = run.audits[i];
      ASSERT_EQ(policy.Describe({static_cast<std::uint32_t>(audit.verdict), audit.fact, audit.rule}),
                policy.Describe(expected[i]))
          << commands[i] << "\n"
          << text;
      ASSERT_EQ(static_cast<std::uint32_t>(audit.verdict), expected[i].verdict) << commands[i] << "\n"
                                                                                << text;
    }
  }
}

}  // namespace
}  // namespace vorn::test
