#include "vorn/event.h"

#include <fmt/format.h>

#include <algorithm>
#include <chrono>
#include <iterator>
#include <nlohmann/json.hpp>
#include <type_traits>

#include "Policy/file_rules.h"
#include "Policy/message.h"
#include "vorn/minidump.h"

namespace vorn::host {

namespace {

// Overloads for std::visit.
template <class... Fs>
struct Cases : Fs... {
  using Fs::operator()...;
};
template <class... Fs>
Cases(Fs...) -> Cases<Fs...>;

// How values of enumerations are shown.
std::string_view ValueText(policy::AuditType type) { return policy::AuditTypeName(type); }
std::string_view ValueText(policy::Verdict verdict) { return policy::VerdictText(verdict); }
std::string_view ValueText(policy::DecidingFact fact) { return policy::DecidingFactText(fact); }
std::string_view ValueText(policy::FileACL access) {
  switch (access) {
    case policy::FileACL::kDeny:
      return "deny";
    case policy::FileACL::kRead:
      return "read";
    case policy::FileACL::kReadWrite:
      return "read-write";
    default:
      return "unknown";
  }
}

std::string ValueText(policy::Protocol protocol) {
  if (protocol == policy::Protocol::kTcp) return "tcp";
  if (protocol == policy::Protocol::kUdp) return "udp";
  return fmt::format("protocol {}", static_cast<std::uint32_t>(protocol));
}
std::string_view ValueText(policy::ProcessEventKind outcome) {
  switch (outcome) {
    case policy::ProcessEventKind::kInjected:
      return "confined";
    case policy::ProcessEventKind::kInjectionFailed:
      return "not-confined";
    case policy::ProcessEventKind::kExitedImmediately:
      return "exited-immediately";
  }
  return "unknown";
}

// What the values of a sample are called; null: it has none.
struct SampleKind {
  const char* name;
  const char* first;
  const char* second;
  const char* third;
  const char* text;
};
constexpr SampleKind kSampleKinds[] = {
    {"file-create", "path_us", "decision_us", "access", "path"},    // kSubtypeSampleFileCreate
    {"socket-check", nullptr, "decision_us", "verdict", "domain"},  // kSubtypeSampleSocketCheck
    {"registered-io", "sends", nullptr, nullptr, nullptr},          // kSubtypeSampleRioActivity
    {"network-start", "starts", nullptr, nullptr, nullptr},         // kSubtypeSampleDnsCache
};
static_assert(std::size(kSampleKinds) == policy::kSubtypeSampleDnsCache + 1);

std::string Endpoint(const std::string& address, std::uint32_t port) {
  const bool v6 = address.find(':') != std::string::npos;
  return fmt::format("{}{}{}:{}", v6 ? "[" : "", Printable(address), v6 ? "]" : "", port);
}

// Whether the crash's dump has been read.
bool HasRead(const CrashEvent& e) { return !e.dump.empty() && e.dump_problem.empty(); }

EventBody ToBody(const policy::Decoded& decoded, std::size_t size) {
  return std::visit(
      Cases{
          [&](std::monostate) -> EventBody {
            return MalformedEvent{policy::DecodeReasonText(decoded.error.reason), decoded.error.offset, size};
          },
          [](const policy::CrashNotice& m) -> EventBody { return CrashEvent{m}; },
          []<template <class> class MessageOf>(const MessageOf<std::string_view>& m) -> EventBody {
            return policy::CopyFields<MessageOf<std::string>>(m);
          },
      },
      decoded.body);
}

// The readable line behind the process id.
class LineWriter {
 public:
  explicit LineWriter(ErrorTextFunction error_text) : error_text_(error_text) {}

  std::string operator()(const MalformedEvent& e) const {
    return fmt::format("a message of {} bytes cannot be read: {} (at byte {})", e.size, e.reason, e.offset);
  }
  std::string operator()(const ProcessStartEvent& e) const {
    return fmt::format("started {} (parent {}): {}", Printable(e.image_name), e.parent_pid,
                       Printable(e.command_line));
  }
  std::string operator()(const ChildEvent& e) const {
    const std::string child = e.image_name.empty()
                                  ? fmt::format("child {}", e.child_pid)
                                  : fmt::format("child {} {}", e.child_pid, Printable(e.image_name));
    switch (e.kind) {
      case policy::ProcessEventKind::kInjected:
        return child + " is confined";
      case policy::ProcessEventKind::kInjectionFailed:
        return fmt::format("{} RUNS UNCONFINED: {}", child, Error(e.code));
      case policy::ProcessEventKind::kExitedImmediately:
        return fmt::format("{} exited immediately with code {:#x}", child, e.code);
    }
    return fmt::format("{}: unknown outcome {}, code {:#x}", child, static_cast<std::uint32_t>(e.kind),
                       e.code);
  }
  std::string operator()(const CrashEvent& e) const {
    std::string line = "crashed with " + ExceptionText(e.code, e.fault);
    if (HasRead(e))
      line += e.module.empty() ? fmt::format(" at {:#x} in no module", e.address)
                               : fmt::format(" in {}+{:#x}", Printable(e.module), e.offset);
    line += fmt::format(" on thread {}", e.thread_id);
    if (e.hook_depth) line += fmt::format(", inside the library (depth {})", e.hook_depth);
    if (!e.dump.empty()) line += ", dump " + Printable(e.dump);
    if (!e.dump_problem.empty())
      line += (e.dump.empty() ? ", " : " cannot be read: ") + Printable(e.dump_problem);
    return line;
  }
  std::string operator()(const FileEvent& e) const {
    std::string line = e.error ? "refused " : "";
    line += ValueText(e.type);
    line += " " + Printable(e.source);
    if (e.destination.empty()) {
      line += fmt::format(" ({})", ValueText(e.source_access));
    } else {
      line += fmt::format(" -> {} ({} -> {})", Printable(e.destination), ValueText(e.source_access),
                          ValueText(e.destination_access));
    }
    if (e.error) return line + ": " + Error(e.error);
    return e.type == policy::AuditType::kDelete ? line + ": for good, it could not be kept" : line;
  }
  std::string operator()(const NetEvent& e) const {
    std::string line = e.verdict == policy::Verdict::kDeny ? "refused " : "";
    line += fmt::format("{} {} {}", ValueText(e.type), ValueText(e.protocol),
                        Endpoint(e.destination, e.destination_port));
    if (!e.domain.empty()) line += " " + Printable(e.domain);
    if (!e.source.empty()) line += " from " + Endpoint(e.source, e.source_port);
    line += fmt::format(" ({})", ValueText(e.verdict));
    return e.error ? line + ": " + Error(e.error) : line;
  }
  std::string operator()(const SampleEvent& e) const {
    return fmt::format("sample {} {} {} {}{}{}", kSampleKinds[e.subtype].name, e.first, e.second, e.third,
                       e.text.empty() ? "" : " ", Printable(e.text));
  }

 private:
  std::string Error(std::uint32_t error) const {
    return error_text_ ? error_text_(error) : fmt::format("error {}", error);
  }

  ErrorTextFunction error_text_;
};

using Json = nlohmann::ordered_json;

const char* EventName(const EventBody& body) {
  return std::visit(Cases{[](const MalformedEvent&) { return "malformed"; },
                          [](const ProcessStartEvent&) { return "process-start"; },
                          [](const ChildEvent&) { return "child"; },
                          [](const CrashEvent&) { return "crash"; }, [](const FileEvent&) { return "file"; },
                          [](const NetEvent&) { return "net"; }, [](const SampleEvent&) { return "sample"; }},
                    body);
}

// All fields of a message that its list shows.
template <class Message>
void PutFields(Json& json, const Message& message) {
  bool text_before = false;
  policy::ForEachField<Message>([&]<class Field>(const Field& field) {
    if constexpr (Field::kKind != policy::FieldKind::kMarker) {
      const auto& value = message.*field.member;
      using Value = std::remove_cvref_t<decltype(value)>;
      if constexpr (Field::kKind == policy::FieldKind::kText) text_before = !value.empty();
      if (field.show == policy::Show::kNever || (field.show != policy::Show::kAlways && !text_before)) return;
      if constexpr (std::is_enum_v<Value>)
        json[field.key] = ValueText(value);
      else
        json[field.key] = value;
    }
  });
}

void PutBody(Json& json, const MalformedEvent& e) {
  json["reason"] = e.reason;
  json["offset"] = e.offset;
  json["size"] = e.size;
}
void PutBody(Json& json, const CrashEvent& e) {
  PutFields<policy::CrashNotice>(json, e);
  if (const auto name = ExceptionName(e.code); !name.empty()) json["exception"] = name;
  if (!e.dump.empty()) json["dump"] = e.dump;
  if (!e.dump_problem.empty()) json["dump_problem"] = e.dump_problem;
  if (!HasRead(e)) return;
  json["address"] = e.address;
  if (!e.fault.empty()) json["fault"] = e.fault;
  if (e.module.empty()) return;
  json["module"] = e.module;
  json["offset"] = e.offset;
}
void PutBody(Json& json, const SampleEvent& e) {
  const SampleKind& kind = kSampleKinds[e.subtype];
  json["sample"] = kind.name;
  if (kind.first) json[kind.first] = e.first;
  if (kind.second) json[kind.second] = e.second;
  if (e.subtype == policy::kSubtypeSampleFileCreate) json[kind.third] = ValueText(policy::FileACL{e.third});
  if (e.subtype == policy::kSubtypeSampleSocketCheck) json[kind.third] = ValueText(policy::Verdict{e.third});
  if (kind.text && !e.text.empty()) json[kind.text] = e.text;
}
template <class Message>
void PutBody(Json& json, const Message& message) {
  PutFields(json, message);
}

}  // namespace

Event DecodeEvent(std::span<const std::byte> message, std::uint32_t pid) {
  const policy::Decoded decoded = policy::DecodeMessage(message);
  Event event;
  event.pid = event.stated_pid = pid;
  event.body = ToBody(decoded, message.size());
  if (decoded.Ok()) {
    event.time_ms = decoded.header.time_ms;
    event.stated_pid = decoded.header.pid;
  }
  return event;
}

bool IsRefusal(const Event& event) {
  return std::visit(
      Cases{[](const FileEvent& e) { return e.error != 0; },
            [](const NetEvent& e) { return e.verdict == policy::Verdict::kDeny; },
            [](const ChildEvent& e) { return e.kind == policy::ProcessEventKind::kInjectionFailed; },
            [](const auto&) { return false; }},
      event.body);
}

std::string EventLine(const Event& event, ErrorTextFunction error_text) {
  std::string line = fmt::format("[{}] ", event.pid);
  if (event.stated_pid != event.pid) line += fmt::format("(calls itself {}) ", event.stated_pid);
  return line + std::visit(LineWriter(error_text), event.body);
}

std::string EventJson(const Event& event, const std::string& rule) {
  Json json;
  json["time"] = IsoTime(event.time_ms);
  json["pid"] = event.pid;
  if (event.stated_pid != event.pid) json["stated_pid"] = event.stated_pid;
  json["event"] = EventName(event.body);
  std::visit([&](const auto& body) { PutBody(json, body); }, event.body);
  if (!rule.empty()) json["rule"] = rule;
  return json.dump(-1, ' ', false, Json::error_handler_t::replace);
}

std::string IsoTime(std::uint64_t time_ms) {
  // A sender may state any time; the calendar ends with the year 9999.
  constexpr std::uint64_t kLastMs = 253'402'300'799'999;
  const std::chrono::sys_time<std::chrono::milliseconds> time(
      std::chrono::milliseconds(std::min(time_ms, kLastMs)));
  const auto day = std::chrono::floor<std::chrono::days>(time);
  const std::chrono::year_month_day date(day);
  const std::chrono::hh_mm_ss clock(time - day);
  return fmt::format("{:04}-{:02}-{:02}T{:02}:{:02}:{:02}.{:03}Z", int(date.year()), unsigned(date.month()),
                     unsigned(date.day()), clock.hours().count(), clock.minutes().count(),
                     clock.seconds().count(), clock.subseconds().count());
}

std::string Printable(std::string_view text) {
  std::string result;
  result.reserve(text.size());
  for (std::size_t i = 0; i < text.size(); ++i) {
    const auto byte = static_cast<unsigned char>(text[i]);
    // C0 and DEL; C1 controls are two bytes in UTF-8.
    const bool c1 = byte == 0xC2 && i + 1 < text.size() && static_cast<unsigned char>(text[i + 1]) >= 0x80 &&
                    static_cast<unsigned char>(text[i + 1]) <= 0x9F;
    if (c1) {
      result += fmt::format("\\x{:02x}", static_cast<unsigned char>(text[++i]));
    } else if (byte < 0x20 || byte == 0x7F) {
      result += fmt::format("\\x{:02x}", byte);
    } else {
      result += text[i];
    }
  }
  return result;
}

}  // namespace vorn::host
