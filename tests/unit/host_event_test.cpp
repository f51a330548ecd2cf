// Messages as the library encodes them, seen by the host: typed, as a line, as JSON.
#include "vorn/event.h"

#include <gtest/gtest.h>

#include <nlohmann/json.hpp>
#include <vector>

#include "Policy/file_rules.h"
#include "Policy/message.h"

namespace {

using namespace vorn;
using host::Event;

constexpr std::uint64_t kTime = 1'769'903'999'123;  // 2026-01-31T23:59:59.123Z

template <class Message>
std::vector<std::byte> Encoded(const Message& message, std::uint32_t pid = 7) {
  std::vector<std::byte> bytes(policy::EncodedSize(message));
  EXPECT_EQ(policy::Encode(message, {.time_ms = kTime, .pid = pid}, bytes), bytes.size());
  return bytes;
}
template <class Message>
Event Decoded(const Message& message) {
  return host::DecodeEvent(Encoded(message), 7);
}
nlohmann::json JsonOf(const Event& event) { return nlohmann::json::parse(host::EventJson(event)); }

struct Row {
  Event event;
  bool refusal;
  const char* line;
  const char* json;  // without pid and time, or nothing to compare
};

TEST(HostEvent, EveryKindHasItsLineAndItsJson) {
  using policy::AuditType;
  using policy::FileACL;
  using policy::ProcessEventKind;
  const auto child = [](ProcessEventKind kind, std::uint32_t code, std::string_view image = "b.exe") {
    return Decoded(policy::ProcessEvent{7, kind, 8, code, image});
  };
  const Row rows[] = {
      {Decoded(policy::FileAudit{AuditType::kCreate, 5, FileACL::kDeny, {}, "C:\\s\\a.txt"}), true,
       "refused create C:\\s\\a.txt (deny): error 5",
       R"({"event":"file","operation":"create","error":5,"access":"deny","path":"C:\\s\\a.txt"})"},
      {Decoded(
           policy::FileAudit{AuditType::kRename, 5, FileACL::kReadWrite, FileACL::kRead, "C:\\a", "C:\\b"}),
       true, "refused rename C:\\a -> C:\\b (read-write -> read): error 5",
       R"({"event":"file","operation":"rename","error":5,"access":"read-write","path":"C:\\a",)"
       R"("destination":"C:\\b","destination_access":"read"})"},
      {Decoded(policy::FileAudit{AuditType::kDeleteToRecycle, 0, FileACL::kReadWrite, {}, "C:\\a"}), false,
       "delete to recycle C:\\a (read-write)", ""},
      {Decoded(policy::NetAudit{AuditType::kConnect,
                                5,
                                policy::Verdict::kDeny,
                                policy::Protocol::kTcp,
                                443,
                                0,
                                "::1",
                                {},
                                "example.com"}),
       true, "refused connect tcp [::1]:443 example.com (deny): error 5", ""},
      {Decoded(policy::NetAudit{AuditType::kConnect, 0, policy::Verdict::kAllow, policy::Protocol::kUdp, 53,
                                1024, "127.0.0.1", "127.0.0.2"}),
       false, "connect udp 127.0.0.1:53 from 127.0.0.2:1024 (allow)",
       R"({"event":"net","operation":"connect","error":0,"verdict":"allow","protocol":"udp","port":53,)"
       R"("address":"127.0.0.1","source_address":"127.0.0.2","source_port":1024})"},
      {Decoded(policy::ProcessStart{4, "app.exe", "app.exe -x"}), false,
       "started app.exe (parent 4): app.exe -x", ""},
      {child(ProcessEventKind::kInjected, 0), false, "child 8 b.exe is confined", ""},
      {child(ProcessEventKind::kInjectionFailed, 50), true, "child 8 b.exe RUNS UNCONFINED: error 50", ""},
      {child(ProcessEventKind::kExitedImmediately, 0x100000CB, ""), false,
       "child 8 exited immediately with code 0x100000cb", ""},
      {Decoded(policy::CrashNotice{0xC0000005, 2, 9}), false,
       "crashed with exception 0xc0000005 (access violation) on thread 9, inside the library (depth 2)", ""},
      {Decoded(policy::Sample{0, 11, 22, 3, "C:\\x"}), false, "sample file-create 11 22 3 C:\\x",
       R"({"event":"sample","sample":"file-create","path_us":11,"decision_us":22,"access":"read-write",)"
       R"("path":"C:\\x"})"},
      // Values that no enumeration has are kept, and shown as unknown.
      {Decoded(policy::FileAudit{AuditType{77}, 5, FileACL{9}, {}, "C:\\a"}), true,
       "refused unknown C:\\a (unknown): error 5", ""},
      {Decoded(policy::NetAudit{.type = AuditType::kConnect,
                                .verdict = policy::Verdict{5},
                                .protocol = policy::Protocol{99},
                                .extended = true,
                                .rule = 3}),
       false, "connect protocol 99 :0 (unknown)", ""},
      {child(ProcessEventKind{9}, 5), false, "child 8 b.exe: unknown outcome 9, code 0x5", ""},
  };
  EXPECT_EQ(std::get<host::NetEvent>(rows[std::size(rows) - 2].event.body).rule, 3u);
  EXPECT_EQ(std::get<host::FileEvent>(rows[std::size(rows) - 3].event.body).type, AuditType{77});
  for (const Row& row : rows) {
    EXPECT_EQ(host::EventLine(row.event), std::string("[7] ") + row.line);
    EXPECT_EQ(host::IsRefusal(row.event), row.refusal) << row.line;
    auto json = JsonOf(row.event);
    EXPECT_EQ(json["pid"], 7);
    EXPECT_EQ(json["time"], row.event.time_ms ? "2026-01-31T23:59:59.123Z" : "");
    for (const char* common : {"pid", "time"}) json.erase(common);
    if (*row.json) {
      EXPECT_EQ(json, nlohmann::json::parse(row.json)) << row.line;
    }
  }
  EXPECT_EQ(host::EventLine(rows[0].event, [](std::uint32_t) { return std::string("Access is denied"); }),
            "[7] refused create C:\\s\\a.txt (deny): Access is denied");
}

TEST(HostEvent, BrokenMessagesAreEventsTooAndThePipeSaysWhoSentThem) {
  auto bytes = Encoded(policy::FileAudit{.type = policy::AuditType{1}, .source = "C:\\a"});
  bytes.pop_back();
  const Event broken = host::DecodeEvent(bytes, 9);
  ASSERT_TRUE(std::holds_alternative<host::MalformedEvent>(broken.body));
  EXPECT_EQ(broken.pid, 9u);
  EXPECT_EQ(JsonOf(broken)["event"], "malformed");
  EXPECT_EQ(JsonOf(broken)["size"], bytes.size());
  EXPECT_FALSE(host::EventLine(host::DecodeEvent({}, 9)).empty());

  const Event lie = host::DecodeEvent(Encoded(policy::CrashNotice{1, 0, 2}, 1234), 9);
  EXPECT_EQ(lie.pid, 9u);
  EXPECT_TRUE(host::EventLine(lie).starts_with("[9] (calls itself 1234) ")) << host::EventLine(lie);
  EXPECT_EQ(JsonOf(lie)["stated_pid"], 1234);
}

TEST(HostEvent, TextsOfAProcessCannotControlTheTerminalOrBreakTheJson) {
  const Event event = Decoded(policy::FileAudit{
      .type = policy::AuditType{1}, .error = 5, .source = "C:\\\x1b[2J\nx\xc2\x9b\xff\xc3\xa9"});
  const std::string line = host::EventLine(event);
  EXPECT_NE(line.find("C:\\\\x1b[2J\\x0ax\\x9b\xff\xc3\xa9 ("), std::string::npos) << line;
  const std::string json = host::EventJson(event);
  EXPECT_EQ(json.find('\n'), std::string::npos);
  EXPECT_TRUE(nlohmann::json::accept(json)) << json;
}

TEST(HostEvent, AnyStatedTimeHasAText) {
  EXPECT_EQ(host::IsoTime(0), "1970-01-01T00:00:00.000Z");
  EXPECT_EQ(host::IsoTime(1'709'164'800'000), "2024-02-29T00:00:00.000Z");
  EXPECT_EQ(host::IsoTime(~0ull), "9999-12-31T23:59:59.999Z");
}

}  // namespace
