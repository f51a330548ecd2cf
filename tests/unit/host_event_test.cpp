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
std::string Sentence(std::uint32_t error) { return error == 5 ? "Access is denied" : "?"; }

TEST(HostEvent, FileRefusalNamesOperationPathAccessAndError) {
  const Event event = Decoded(policy::FileAudit{.type = policy::AuditType{1},
                                                .error = 5,
                                                .source_access = policy::FileACL{1},
                                                .source = "C:\\s\\a.txt"});
  EXPECT_EQ(host::EventLine(event, Sentence), "[7] refused create C:\\s\\a.txt (deny): Access is denied");
  EXPECT_EQ(host::EventLine(event), "[7] refused create C:\\s\\a.txt (deny): error 5");
  EXPECT_EQ(host::EventJson(event),
            R"({"time":"2026-01-31T23:59:59.123Z","pid":7,"event":"file","operation":"create","error":5,)"
            R"("access":"deny","path":"C:\\s\\a.txt"})");
  EXPECT_TRUE(host::IsRefusal(event));
}

TEST(HostEvent, RenameShowsBothEndsAndADeletionThatWasDoneIsNoRefusal) {
  const Event rename = Decoded(policy::FileAudit{.type = policy::AuditType{5},
                                                 .error = 5,
                                                 .source_access = policy::FileACL{3},
                                                 .destination_access = policy::FileACL{2},
                                                 .source = "C:\\a",
                                                 .destination = "C:\\b"});
  EXPECT_EQ(host::EventLine(rename), "[7] refused rename C:\\a -> C:\\b (read-write -> read): error 5");
  EXPECT_EQ(JsonOf(rename)["destination_access"], "read");
  const Event deleted = Decoded(policy::FileAudit{
      .type = policy::AuditType{7}, .source_access = policy::FileACL{3}, .source = "C:\\a"});
  EXPECT_EQ(host::EventLine(deleted), "[7] delete to recycle C:\\a (read-write)");
  EXPECT_FALSE(host::IsRefusal(deleted));
}

TEST(HostEvent, NetAuditShowsVerdictNameAddressPortAndProtocol) {
  const Event refused = Decoded(policy::NetAudit{.type = policy::AuditType{8},
                                                 .error = 5,
                                                 .verdict = policy::Verdict::kDeny,
                                                 .protocol = policy::Protocol{6},
                                                 .destination_port = 443,
                                                 .destination = "::1",
                                                 .domain = "example.com"});
  EXPECT_EQ(host::EventLine(refused), "[7] refused connect tcp [::1]:443 example.com (deny): error 5");
  EXPECT_TRUE(host::IsRefusal(refused));
  const Event allowed = Decoded(policy::NetAudit{.type = policy::AuditType{8},
                                                 .verdict = policy::Verdict::kAllow,
                                                 .protocol = policy::Protocol{17},
                                                 .destination_port = 53,
                                                 .source_port = 1024,
                                                 .destination = "127.0.0.1",
                                                 .source = "127.0.0.2"});
  EXPECT_EQ(host::EventLine(allowed), "[7] connect udp 127.0.0.1:53 from 127.0.0.2:1024 (allow)");
  EXPECT_EQ(JsonOf(allowed)["source_port"], 1024);
  EXPECT_FALSE(host::IsRefusal(allowed));
}

TEST(HostEvent, ValuesThatNoEnumerationHasAreKeptAndShownAsUnknown) {
  const Event file = Decoded(policy::FileAudit{policy::AuditType{77}, 5, policy::FileACL{9}, {}, "C:\\a"});
  EXPECT_EQ(host::EventLine(file), "[7] refused unknown C:\\a (unknown): error 5");
  EXPECT_EQ(static_cast<std::uint32_t>(std::get<host::FileEvent>(file.body).type), 77u);
  const Event net = Decoded(policy::NetAudit{
      .verdict = policy::Verdict{5}, .protocol = policy::Protocol{99}, .extended = true, .rule = 3});
  EXPECT_EQ(JsonOf(net)["verdict"], "unknown");
  EXPECT_EQ(JsonOf(net)["protocol"], "protocol 99");
  EXPECT_EQ(std::get<host::NetEvent>(net.body).rule, 3u);
  const Event child = Decoded(policy::ProcessEvent{7, policy::ProcessEventKind{9}, 8, 5, "b.exe"});
  EXPECT_EQ(JsonOf(child)["outcome"], "unknown");
}

TEST(HostEvent, ProcessesChildrenAndCrashes) {
  EXPECT_EQ(host::EventLine(Decoded(policy::ProcessStart{4, "app.exe", "app.exe -x"})),
            "[7] started app.exe (parent 4): app.exe -x");
  const auto child = [](policy::ProcessEventKind kind, std::uint32_t code, std::string_view image) {
    return Decoded(policy::ProcessEvent{7, kind, 8, code, image});
  };
  EXPECT_EQ(host::EventLine(child(policy::ProcessEventKind::kInjected, 0, "b.exe")),
            "[7] child 8 b.exe is confined");
  const Event unconfined = child(policy::ProcessEventKind::kInjectionFailed, 50, "b.exe");
  EXPECT_EQ(host::EventLine(unconfined), "[7] child 8 b.exe RUNS UNCONFINED: error 50");
  EXPECT_TRUE(host::IsRefusal(unconfined));
  EXPECT_EQ(host::EventLine(child(policy::ProcessEventKind::kExitedImmediately, 0x100000CB, "")),
            "[7] child 8 exited immediately with code 0x100000cb");
  EXPECT_EQ(
      host::EventLine(Decoded(policy::CrashNotice{0xC0000005, 2, 9})),
      "[7] crashed with exception 0xc0000005 (access violation) on thread 9, inside the library (depth 2)");
  const Event sample = Decoded(policy::Sample{0, 11, 22, 3, "C:\\x"});
  EXPECT_EQ(host::EventLine(sample), "[7] sample file-create 11 22 3 C:\\x");
  auto json = JsonOf(sample);
  json.erase("time");
  EXPECT_EQ(json, nlohmann::json::parse(R"({"pid":7,"event":"sample","sample":"file-create","path_us":11,)"
                                        R"("decision_us":22,"access":"read-write","path":"C:\\x"})"));
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
