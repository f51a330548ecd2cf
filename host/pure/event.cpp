#include "vorn/event.h"

#include <fmt/format.h>

#include <algorithm>
#include <chrono>
#include <nlohmann/json.hpp>

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

std::string_view AccessText(std::uint32_t access) {
  switch (static_cast<policy::FileACL>(access)) {
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

std::string ProtocolText(std::uint32_t protocol) {
  if (protocol == 6) return "tcp";
  if (protocol == 17) return "udp";
  return fmt::format("protocol {}", protocol);
}

std::string_view OutcomeText(ChildOutcome outcome) {
  switch (outcome) {
    case ChildOutcome::kConfined:
      return "confined";
    case ChildOutcome::kNotConfined:
      return "not-confined";
    case ChildOutcome::kExitedImmediately:
      return "exited-immediately";
  }
  return "unknown";
}

std::string_view SampleName(std::uint16_t subtype) {
  switch (subtype) {
    case policy::kSubtypeSampleFileCreate:
      return "file-create";
    case policy::kSubtypeSampleSocketCheck:
      return "socket-check";
    case policy::kSubtypeSampleRioActivity:
      return "registered-io";
    case policy::kSubtypeSampleDnsCache:
      return "network-start";
    default:
      return "unknown";
  }
}

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
          [](const policy::ProcessStart& m) -> EventBody {
            return ProcessStartEvent{m.parent_pid, std::string(m.image_name), std::string(m.command_line)};
          },
          [](const policy::ProcessEvent& m) -> EventBody {
            const auto kind = static_cast<policy::ProcessEventKind>(m.kind);
            const auto outcome = kind == policy::ProcessEventKind::kInjected ? ChildOutcome::kConfined
                                 : kind == policy::ProcessEventKind::kInjectionFailed
                                     ? ChildOutcome::kNotConfined
                                     : ChildOutcome::kExitedImmediately;
            return ChildEvent{outcome, m.child_pid, m.code, std::string(m.image_name)};
          },
          [](const policy::CrashNotice& m) -> EventBody {
            return CrashEvent{m.exception_code, m.hook_depth, m.thread_id};
          },
          [](const policy::FileAudit& m) -> EventBody {
            return FileEvent{m.type,
                             m.error,
                             m.source_access,
                             m.destination_access,
                             std::string(m.source),
                             std::string(m.destination)};
          },
          [](const policy::NetAudit& m) -> EventBody {
            return NetEvent{m.type,
                            m.error,
                            m.verdict,
                            m.protocol,
                            std::string(m.destination),
                            m.destination_port,
                            std::string(m.source),
                            m.source_port,
                            std::string(m.domain)};
          },
          [](const policy::Sample& m) -> EventBody {
            return SampleEvent{m.subtype, m.first, m.second, m.third, std::string(m.text)};
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
    return fmt::format("started {} (parent {}): {}", Printable(e.image), e.parent_pid,
                       Printable(e.command_line));
  }
  std::string operator()(const ChildEvent& e) const {
    const std::string child = e.image.empty() ? fmt::format("child {}", e.child_pid)
                                              : fmt::format("child {} {}", e.child_pid, Printable(e.image));
    switch (e.outcome) {
      case ChildOutcome::kConfined:
        return child + " is confined";
      case ChildOutcome::kNotConfined:
        return fmt::format("{} RUNS UNCONFINED: {}", child, Error(e.code));
      case ChildOutcome::kExitedImmediately:
        break;
    }
    return fmt::format("{} exited immediately with code {:#x}", child, e.code);
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
    line += policy::AuditTypeName(e.operation);
    line += " " + Printable(e.path);
    if (e.destination.empty()) {
      line += fmt::format(" ({})", AccessText(e.access));
    } else {
      line += fmt::format(" -> {} ({} -> {})", Printable(e.destination), AccessText(e.access),
                          AccessText(e.destination_access));
    }
    return e.error ? line + ": " + Error(e.error) : line;
  }
  std::string operator()(const NetEvent& e) const {
    std::string line = e.verdict == policy::kVerdictDeny ? "refused " : "";
    line += fmt::format("{} {} {}", policy::AuditTypeName(e.operation), ProtocolText(e.protocol),
                        Endpoint(e.address, e.port));
    if (!e.domain.empty()) line += " " + Printable(e.domain);
    if (!e.source_address.empty()) line += " from " + Endpoint(e.source_address, e.source_port);
    line += fmt::format(" ({})", policy::VerdictText(e.verdict));
    return e.error ? line + ": " + Error(e.error) : line;
  }
  std::string operator()(const SampleEvent& e) const {
    return fmt::format("sample {} {} {} {}{}{}", SampleName(e.subtype), e.first, e.second, e.third,
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

void PutBody(Json& json, const EventBody& body) {
  std::visit(Cases{
                 [&](const MalformedEvent& e) {
                   json["reason"] = e.reason;
                   json["offset"] = e.offset;
                   json["size"] = e.size;
                 },
                 [&](const ProcessStartEvent& e) {
                   json["parent_pid"] = e.parent_pid;
                   json["image"] = e.image;
                   json["command_line"] = e.command_line;
                 },
                 [&](const ChildEvent& e) {
                   json["outcome"] = OutcomeText(e.outcome);
                   json["child_pid"] = e.child_pid;
                   json["code"] = e.code;
                   if (!e.image.empty()) json["image"] = e.image;
                 },
                 [&](const CrashEvent& e) {
                   json["exception_code"] = e.code;
                   json["hook_depth"] = e.hook_depth;
                   json["thread_id"] = e.thread_id;
                   if (const auto name = ExceptionName(e.code); !name.empty()) json["exception"] = name;
                   if (!e.dump.empty()) json["dump"] = e.dump;
                   if (!e.dump_problem.empty()) json["dump_problem"] = e.dump_problem;
                   if (!HasRead(e)) return;
                   json["address"] = e.address;
                   if (!e.fault.empty()) json["fault"] = e.fault;
                   if (e.module.empty()) return;
                   json["module"] = e.module;
                   json["offset"] = e.offset;
                 },
                 [&](const FileEvent& e) {
                   json["operation"] = policy::AuditTypeName(e.operation);
                   json["error"] = e.error;
                   json["access"] = AccessText(e.access);
                   json["path"] = e.path;
                   if (!e.destination.empty()) {
                     json["destination_access"] = AccessText(e.destination_access);
                     json["destination"] = e.destination;
                   }
                 },
                 [&](const NetEvent& e) {
                   json["operation"] = policy::AuditTypeName(e.operation);
                   json["error"] = e.error;
                   json["verdict"] = policy::VerdictText(e.verdict);
                   json["protocol"] = ProtocolText(e.protocol);
                   json["address"] = e.address;
                   json["port"] = e.port;
                   if (!e.source_address.empty()) {
                     json["source_address"] = e.source_address;
                     json["source_port"] = e.source_port;
                   }
                   if (!e.domain.empty()) json["domain"] = e.domain;
                 },
                 [&](const SampleEvent& e) {
                   json["sample"] = SampleName(e.subtype);
                   json["first"] = e.first;
                   json["second"] = e.second;
                   json["third"] = e.third;
                   if (!e.text.empty()) json["text"] = e.text;
                 },
             },
             body);
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
  return std::visit(Cases{[](const FileEvent& e) { return e.error != 0; },
                          [](const NetEvent& e) { return e.verdict == policy::kVerdictDeny; },
                          [](const ChildEvent& e) { return e.outcome == ChildOutcome::kNotConfined; },
                          [](const auto&) { return false; }},
                    event.body);
}

std::string EventLine(const Event& event, ErrorTextFunction error_text) {
  std::string line = fmt::format("[{}] ", event.pid);
  if (event.stated_pid != event.pid) line += fmt::format("(calls itself {}) ", event.stated_pid);
  return line + std::visit(LineWriter(error_text), event.body);
}

std::string EventJson(const Event& event) {
  Json json;
  json["time"] = IsoTime(event.time_ms);
  json["pid"] = event.pid;
  if (event.stated_pid != event.pid) json["stated_pid"] = event.stated_pid;
  json["event"] = EventName(event.body);
  PutBody(json, event.body);
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
