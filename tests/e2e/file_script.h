// Runs a script of file calls in a really confined process, and says what each call answered, what arrived at
// the host and what the library logged.
//
//   FileScript script;                       // folder\deny, read, write, each with f.txt that holds "old"
//   script.Add("create 0 80000000 1 20 " + script.Nt("deny\\f.txt"));
//   const ScriptRun run = script.Run(script.Rules());
#pragma once

#include <algorithm>
#include <fstream>

#include "Policy/device_path.h"
#include "Policy/file_decision.h"
#include "tests/e2e/confinement.h"
#include "vorn/run_journal.h"

namespace vorn::test {

using policy::AuditType;
using policy::FileACL;

// One file audit, with its texts owned.
struct Audit {
  AuditType type;
  std::uint32_t error;  // Win32
  FileACL source_access, destination_access;
  std::string source, destination;

  bool operator==(const Audit&) const = default;
};

inline void PrintTo(const Audit& audit, std::ostream* out) {
  *out << policy::AuditTypeName(audit.type) << " error " << audit.error << " "
       << policy::ACLName(audit.source_access) << " " << audit.source << " -> "
       << policy::ACLName(audit.destination_access) << " " << audit.destination;
}

// The path of a file as Wine's Unix side spells it; "" on Windows.
inline std::string UnixName(const std::filesystem::path& path) {
  const auto convert = reinterpret_cast<char*(CDECL*)(const wchar_t*)>(
      GetProcAddress(GetModuleHandleW(L"kernel32.dll"), "wine_get_unix_file_name"));
  char* const text = convert ? convert(path.c_str()) : nullptr;
  const std::string name = text ? text : "";
  if (text) HeapFree(GetProcessHeap(), 0, text);
  return name;
}

struct ScriptRun {
  std::int64_t exit_code = -1;
  std::string name;  // by which its deletions are kept; empty where they are not
  std::vector<std::string> answers;
  std::vector<Audit> audits;                  // in the order in which they were sent
  std::vector<policy::FileVerdict> verdicts;  // of the audits, where the section asks for them
  std::vector<Received> messages;
  std::vector<std::string> log;

  std::vector<std::string> LogLines(const std::string& with) const {
    std::vector<std::string> lines;
    std::ranges::copy_if(log, std::back_inserter(lines),
                         [&](const std::string& line) { return line.find(with) != line.npos; });
    return lines;
  }
};

class FileScript : public TestFolder {
 public:
  static constexpr std::uint32_t kEverythingLogged = 0x0F;

  FileScript() {
    for (const char* name : {"deny", "read", "write"}) {
      std::filesystem::create_directory(Path(name));
      Write(std::string(name) + "\\f.txt", "old");
    }
  }

  std::string Nt(const std::string& name) const { return "\\??\\" + Dos(name); }

  // The rules that the names of the folders say.
  std::vector<host::FileRule> Rules() const {
    return {Rule(FileACL::kDeny, "deny"), Rule(FileACL::kRead, "read"), Rule(FileACL::kReadWrite, "write")};
  }
  // Everything may be written.
  std::vector<host::FileRule> NoRefusals() const { return {Rule(FileACL::kReadWrite, "")}; }
  host::FileRule Rule(FileACL access, const std::string& name) const {
    return {access, host::ToNtPath(Path(name).wstring())};
  }

  FileScript& Add(const std::string& command) {
    commands_.push_back(command);
    return *this;
  }

  // The commands so far, for the probe.
  std::filesystem::path WriteScript() const {
    std::ofstream text(Path("script.txt"), std::ios::binary);
    for (const std::string& command : commands_) text << command << "\n";
    return Path("script.txt");
  }

  ScriptRun Run(const std::vector<host::FileRule>& rules, std::uint32_t flags = kEverythingLogged,
                std::uint32_t options = 0) const {
    const std::filesystem::path script = WriteScript(), answers = Path("answers.txt");
    // The program ends when the host has seen its last message: a process takes its queue along.
    const std::wstring last = host::RandomName(L"last");
    const HANDLE seen = CreateEventW(nullptr, TRUE, FALSE, last.c_str());
    const std::string sentinel = Dos(host::ToUtf8(last));
    const auto is_sentinel = [&](const Received& message) {
      const auto* audit = message.As<policy::FileAudit>();
      return audit && audit->source == sentinel;
    };
    ScriptRun run;
    if (options & static_cast<std::uint32_t>(policy::SectionOption::kKeepByLink))
      run.name = host::RunJournal::NewRunName();
    E2eConfinement host([&](host::SectionContents& section) {
      section.file_rules = rules;
      section.file_rules.push_back(Rule(FileACL::kDeny, host::ToUtf8(last)));
      section.flags = flags;
      if (options) section.options = options;
      if (!run.name.empty()) section.keep_places = host::FindKeepPlaces();
      section.run = run.name;
    });
    host.Watch([&](const Received& message) {
      if (is_sentinel(message)) SetEvent(seen);
    });
    run.exit_code =
        host.RunInto(answers, Probe("file_probe.exe", L"\"" + script.wstring() + L"\" \"" +
                                                          (path() / last).wstring() + L"\" " + last));
    run.messages = host.Settle();
    CloseHandle(seen);
    std::erase_if(run.messages, is_sentinel);
    for (const Received& message : run.messages)
      if (const auto* audit = message.As<policy::FileAudit>()) {
        run.audits.push_back({audit->type, audit->error, audit->source_access, audit->destination_access,
                              std::string(audit->source), std::string(audit->destination)});
        run.verdicts.push_back({audit->source_access, audit->fact, audit->rule});
      }
    for (const auto& log : std::filesystem::directory_iterator(host.folder()))
      for (std::string& line : ReadLines(log.path())) run.log.push_back(std::move(line));
    run.answers = ReadLines(answers);
    return run;
  }

 private:
  std::vector<std::string> commands_;
};

}  // namespace vorn::test
