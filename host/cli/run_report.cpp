#include "run_report.h"

#include <windows.h>

#include <fmt/format.h>

#include <filesystem>
#include <utility>

#include "Policy/message.h"
#include "commands.h"
#include "vorn/crash_dump.h"
#include "vorn/deletions.h"
#include "vorn/event.h"
#include "vorn/text.h"

namespace vorn::cli {
RunReport::RunReport(const host::CompiledPolicy& policy, host::RunJournal& journal,
                     std::wstring dump_directory, bool quiet)
    : policy_(policy),
      journal_(journal),
      dump_directory_(std::move(dump_directory)),
      quiet_(quiet),
      screen_([](const std::string& line) { PrintErrorLine(line); }),
      events_queue_([this](const std::string& line) { WriteEvent(line); }) {}

bool RunReport::WriteEventsTo(const std::string& file) {
  events_.open(std::filesystem::path(host::ToWide(file)), std::ios::binary | std::ios::trunc);
  writes_events_ = events_.is_open();
  // Who reads nothing but the events has to know, too.
  const host::PolicyDocument& document = policy_.document();
  if (!NotConfined(document).empty())
    events_queue_.Push(fmt::format(R"({{"event":"run","files_confined":{},"network_confined":{}}})",
                                   document.enforce_files, document.has_network && document.enforce_network));
  return writes_events_;
}

// On the queue's thread.
void RunReport::WriteEvent(const std::string& line) {
  if (!events_.is_open() || (events_ << line << '\n' << std::flush)) return;
  screen_.Push("vorn: the events file is incomplete, it cannot be written any more: " +
               host::Win32ErrorText(GetLastError()));
  events_.close();
}

void RunReport::OnMessage(std::uint32_t pid, std::span<const std::byte> message) {
  host::Event event = host::DecodeEvent(message, pid);
  // A process whose start was on its way when it ended sends it again: once is enough.
  if (std::holds_alternative<host::ProcessStartEvent>(event.body) &&
      std::exchange(started_at_ms_[pid], event.time_ms) == event.time_ms)
    return;
  if (std::holds_alternative<host::CrashEvent>(event.body))
    host::AddCrashDump(event, dump_directory_, started_at_ms_[pid]);
  const std::string rule = std::visit([&](const auto& body) { return RuleText(body); }, event.body);
  if (writes_events_) events_queue_.Push(host::EventJson(event, rule));
  std::visit([&](const auto& body) { On(event, body, rule); }, event.body);
}

void RunReport::OnTransportError(const std::string& text) {
  if (!quiet_) screen_.Push("vorn: channel: " + text);
}

void RunReport::OnProcesses(std::uint32_t program, const std::vector<host::LaunchedProcess>& all) {
  wchar_t system[MAX_PATH + 1] = {};
  GetSystemDirectoryW(system, MAX_PATH);
  const std::wstring console_host = std::wstring(system) + L"\\conhost.exe";
  const auto role = [&](const host::LaunchedProcess& process) {
    if (process.injection_helper) return ProcessRole::kInjectionHelper;
    return CompareStringOrdinal(process.image.c_str(), -1, console_host.c_str(), -1, TRUE) == CSTR_EQUAL
               ? ProcessRole::kConsoleHost
               : ProcessRole::kProgram;
  };
  for (const host::LaunchedProcess& process : all) {
    const std::string name = host::ToUtf8(std::filesystem::path(process.image).filename().wstring());
    if (process.pid == program)
      processes_.Injected(process.parent_pid, process.pid, name);
    else
      processes_.AddFromJob(process.pid, process.parent_pid, name, role(process));
  }
}

void RunReport::On(const host::Event& event, const host::ProcessStartEvent& start, const std::string&) {
  processes_.Started(event.pid, start.parent_pid, start.image_name);
  Show(event);
}

void RunReport::On(const host::Event& event, const host::ChildEvent& child, const std::string&) {
  switch (child.kind) {
    case policy::ProcessEventKind::kInjected:
      processes_.Injected(event.pid, child.child_pid, child.image_name);
      return;  // the child introduces itself
    case policy::ProcessEventKind::kInjectionFailed:
      processes_.NotInjected(event.pid, child.child_pid, child.image_name, child.code);
      break;
    case policy::ProcessEventKind::kExitedImmediately:
      processes_.ExitedAtOnce(event.pid, child.child_pid, child.code);
      break;
  }
  Show(event);
}

void RunReport::On(const host::Event& event, const host::CrashEvent&, const std::string&) {
  // A process that crashes says so once per thread; one that lies must not fill the memory.
  constexpr std::size_t kShownCrashes = 50;
  ++crashes_;
  if (crash_lines_.size() < kShownCrashes) {
    const ProcessNode* process = processes_.Find(event.pid);
    crash_lines_.push_back((process ? host::Printable(process->name) + " " : "") + host::EventLine(event));
  }
  Show(event);
}

void RunReport::On(const host::Event& event, const host::FileEvent& file, const std::string& rule) {
  if (file.error == 0) {
    if (file.type == policy::AuditType::kDeleteToRecycle &&
        !journal_.Add({host::ToWide(file.source), event.time_ms, event.pid}))
      screen_.Push("vorn: the run's journal cannot be written: vorn restore will not know " +
                   host::Printable(file.source));
    return Show(event);
  }
  Refused(file.type, rule);
  Show(event, rule);
}

void RunReport::On(const host::Event& event, const host::NetEvent& net, const std::string& rule) {
  if (net.verdict == policy::Verdict::kAllow)
    ++connections_;
  else
    Refused(net.type, rule);
  Show(event, rule);
}

void RunReport::On(const host::Event& event, const host::MalformedEvent&, const std::string&) {
  ++malformed_;
  Show(event);
}

void RunReport::Refused(policy::AuditType operation, const std::string& rule) {
  ++refused_;
  ++refusals_[fmt::format("{:<8}{}", policy::AuditTypeName(operation), rule)];
}

std::string RunReport::RuleText(const host::FileEvent& file) const {
  return policy_.Describe(policy::FileVerdict{.fact = file.fact, .rule = file.rule});
}

std::string RunReport::RuleText(const host::NetEvent& net) const {
  return policy_.Describe(policy::DestinationDecision{
      .verdict = static_cast<std::uint32_t>(net.verdict), .fact = net.fact, .rule = net.rule});
}

void RunReport::Show(const host::Event& event, const std::string& rule) {
  if (quiet_) return;
  std::string line = "vorn: " + host::EventLine(event, host::Win32ErrorText);
  if (!rule.empty()) line += "  <- " + rule;
  screen_.Push(line);
}

void RunReport::Finish() {
  events_queue_.Finish();
  screen_.Finish();
}

void RunReport::PrintSummary(const std::string& end) {
  Finish();
  PrintErrorLine(fmt::format("vorn: ---- {} ----", end));
  PrintErrorLine(
      fmt::format("vorn: {} process{}{}", processes_.size(), processes_.size() == 1 ? "" : "es",
                  processes_.unconfined() ? fmt::format(", {} NOT CONFINED", processes_.unconfined()) : ""));
  for (const std::string& line : processes_.Lines()) PrintErrorLine("vorn:   " + line);
  if (const std::string off = NotConfined(policy_.document()); !off.empty())
    PrintErrorLine(fmt::format("vorn: {} NOT CONFINED: enforce = false", off));
  PrintErrorLine(fmt::format("vorn: {} refused{}", refused_, refused_ ? ":" : ""));
  for (const auto& [what, count] : refusals_) PrintErrorLine(fmt::format("vorn:   {:>5} x {}", count, what));
  if (crashes_) PrintErrorLine(fmt::format("vorn: {} crash{}:", crashes_, crashes_ == 1 ? "" : "es"));
  for (const std::string& line : crash_lines_) PrintErrorLine("vorn:   " + line);
  if (policy_.document().has_network)
    PrintErrorLine(fmt::format("vorn: {} connection{} allowed", connections_, connections_ == 1 ? "" : "s"));
  // The bin knows, also of what a process that was ended could not tell any more.
  if (const auto deletions = host::ListDeletions(journal_.run()); deletions && !deletions->empty())
    PrintErrorLine(fmt::format("vorn: {} moved to the recycle bin; put back with: vorn restore {}",
                               deletions->size(), journal_.run()));
  if (screen_.dropped())
    PrintErrorLine(fmt::format("vorn: {} lines were not shown: nobody read them", screen_.dropped()));
  if (events_queue_.dropped())
    PrintErrorLine(fmt::format("vorn: {} events are missing in the events file: it was not written in time",
                               events_queue_.dropped()));
  if (malformed_)
    PrintErrorLine(fmt::format("vorn: {} malformed message{}", malformed_, malformed_ == 1 ? "" : "s"));
}

}  // namespace vorn::cli
