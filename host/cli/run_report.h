// What a run shows: a line per event while it runs, and a summary at its end. Handlers of the message server
// call it one at a time, and never wait for who reads; the summary is asked for when the server has stopped.
#pragma once

#include <cstdint>
#include <fstream>
#include <map>
#include <span>
#include <string>
#include <unordered_map>

#include "output_queue.h"
#include "process_tree.h"
#include "vorn/compiled_policy.h"
#include "vorn/event.h"
#include "vorn/launcher.h"
#include "vorn/run_journal.h"

namespace vorn::cli {

class RunReport {
 public:
  // dump_directory: where crashed processes leave their dumps; empty: nowhere.
  RunReport(const host::CompiledPolicy& policy, host::RunJournal& journal, std::wstring dump_directory,
            bool quiet);

  // False when the events file cannot be written.
  bool WriteEventsTo(const std::string& file);

  // pid: of the peer that sent it.
  void OnMessage(std::uint32_t pid, std::span<const std::byte> message);
  void OnTransportError(const std::string& text);
  // The program itself, which its launcher knows to be confined, and whatever else ran under the launcher.
  void OnProcesses(std::uint32_t program, const std::vector<host::LaunchedProcess>& all);
  // Waits until what was said so far is written; nothing may be said after it.
  void Finish();
  // Finish, and then the summary. end: "exit code 7", "ended by Ctrl-C", …
  void PrintSummary(const std::string& end);

 private:
  // rule: what decided about the event; empty where nothing did.
  void On(const host::Event& event, const host::ProcessStartEvent& start, const std::string& rule);
  void On(const host::Event& event, const host::ChildEvent& child, const std::string& rule);
  void On(const host::Event& event, const host::CrashEvent& crash, const std::string& rule);
  void On(const host::Event& event, const host::FileEvent& file, const std::string& rule);
  void On(const host::Event& event, const host::NetEvent& net, const std::string& rule);
  void On(const host::Event& event, const host::MalformedEvent& malformed, const std::string& rule);
  void On(const host::Event&, const host::SampleEvent&, const std::string&) {}

  std::string RuleText(const host::FileEvent& file) const;
  std::string RuleText(const host::NetEvent& net) const;
  std::string RuleText(const auto&) const { return {}; }
  void Refused(policy::AuditType operation, const std::string& rule);
  void Show(const host::Event& event, const std::string& rule = {});
  void WriteEvent(const std::string& line);

  const host::CompiledPolicy& policy_;
  host::RunJournal& journal_;
  const std::wstring dump_directory_;
  const bool quiet_;
  bool writes_events_ = false;
  std::ofstream events_;
  OutputQueue screen_;
  OutputQueue events_queue_;  // writes events_
  ProcessTree processes_;
  std::map<std::string, std::size_t> refusals_;                     // by operation and rule
  std::unordered_map<std::uint32_t, std::uint64_t> started_at_ms_;  // by process id
  std::vector<std::string> crash_lines_;
  std::size_t crashes_ = 0;
  std::size_t refused_ = 0;
  std::size_t connections_ = 0;
  std::size_t malformed_ = 0;
};

}  // namespace vorn::cli
