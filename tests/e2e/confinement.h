// A host for end-to-end tests: the real library confines real programs, and everything that they send is
// kept.
//
//   E2eConfinement host([](SectionContents& section) { section.file_rules.push_back(…); });
//   EXPECT_EQ(host.Run(Probe(L"process_probe.exe", L"open C:\\secret.txt")), ERROR_ACCESS_DENIED);
//   for (const Received& message : host.Settle()) …
//
// Every wait is bounded; what still runs ends with the object.
#pragma once

#include <windows.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iterator>
#include <map>
#include <mutex>
#include <set>
#include <span>
#include <string>
#include <variant>
#include <vector>

#include "Policy/message.h"
#include "Policy/section_format.h"
#include "tests/test_process.h"
#include "tests/unit/build_paths.h"
#include "vorn/compiled_policy.h"
#include "vorn/launcher.h"
#include "vorn/message_server.h"
#include "vorn/nt_path.h"
#include "vorn/section.h"
#include "vorn/text.h"
#include "windows/nt.h"
#include "windows/unique_handle.h"

namespace vorn::test {

// Whether the tests run with a section that asks for what changes few outcomes, as they do a second time.
inline bool WithOptions() { return GetEnvironmentVariableW(L"VORN_TEST_OPTIONS", nullptr, 0) != 0; }

// A message as it arrived. The texts of its body point into bytes.
struct Received {
  std::vector<std::byte> bytes;
  policy::Decoded decoded;

  std::uint32_t sender() const { return decoded.header.pid; }
  template <class Body>
  const Body* As() const {
    return std::get_if<Body>(&decoded.body);
  }
};

inline std::vector<std::string> ReadLines(const std::filesystem::path& path) {
  std::vector<std::string> lines;
  std::ifstream file(path, std::ios::binary);
  for (std::string line; std::getline(file, line);) {
    if (line.ends_with('\r')) line.pop_back();
    lines.push_back(line);
  }
  return lines;
}

// A folder of its own, removed with the object. Not below the temporary folder, which is open to every
// process.
class TestFolder {
 public:
  TestFolder() {
    wchar_t base[MAX_PATH] = {};
    EXPECT_NE(GetEnvironmentVariableW(L"LOCALAPPDATA", base, MAX_PATH), 0u);
    path_ = std::filesystem::path(base) / host::RandomName(L"vorn_e2e");
    std::filesystem::create_directories(path_);
  }
  ~TestFolder() {
    std::error_code ignored;
    std::filesystem::remove_all(path_, ignored);
  }
  TestFolder(const TestFolder&) = delete;
  TestFolder& operator=(const TestFolder&) = delete;
  const std::filesystem::path& path() const { return path_; }
  // What lies in it, by name ("sub\\f.txt").
  std::filesystem::path Path(const std::string& name) const { return path_ / name; }
  std::string Dos(const std::string& name) const { return host::ToUtf8(Path(name).wstring()); }
  void Write(const std::string& name, const std::string& text) const {
    std::ofstream(Path(name), std::ios::binary) << text;
  }
  // Content, or "(none)".
  std::string Read(const std::string& name) const {
    std::ifstream file(Path(name), std::ios::binary);
    if (!file) return "(none)";
    return {std::istreambuf_iterator<char>(file), {}};
  }

 private:
  std::filesystem::path path_;
};

// A policy that must be a good one, and the section that it makes.
inline host::CompiledPolicy Compile(const std::string& text) {
  auto document = host::ParsePolicy(text, [](auto) { return std::nullopt; });
  return std::get<host::CompiledPolicy>(host::CompiledPolicy::Make(
      std::get<host::PolicyDocument>(std::move(document)), host::FreePlaces(host::TempFolder::kWrite)));
}
inline host::SectionContents ContentsOf(const host::CompiledPolicy& policy) {
  host::SectionContents contents;
  policy.BuildSectionContents(contents);
  return contents;
}

// The command line of a program of the build.
inline std::wstring Probe(const char* program, const std::wstring& arguments) {
  return L"\"" + BuildPath(program).wstring() + L"\" " + arguments;
}

class E2eConfinement {
 public:
  // adjust changes the section before it is published; by default there are no rules.
  explicit E2eConfinement(const std::function<void(host::SectionContents&)>& adjust = {})
      : server_(host::RandomName(L"vorn_e2e"),
                {.on_message = [this](const host::Peer&, std::span<const std::byte> bytes) { Keep(bytes); },
                 .on_connect = {},
                 .on_disconnect = {},
                 .on_error = [](const std::string& text) { ADD_FAILURE() << text; }}),
        section_(Contents(adjust)),
        launcher_(section_) {}

  const std::filesystem::path& folder() const { return folder_.path(); }
  const host::SharedSection& section() const { return section_; }
  host::Launcher& launcher() { return launcher_; }
  // The published section, which confined processes read at any time.
  policy::SharedDataHeader& header() {
    return *reinterpret_cast<policy::SharedDataHeader*>(section_.bytes().data());
  }

  // Called for every message as it arrives, on the server's thread. Before the first run.
  void Watch(std::function<void(const Received&)> watcher) { watcher_ = std::move(watcher); }

  // The exit code of a confined program, or -1 with a test failure when it does not start or end.
  std::int64_t Run(const std::wstring& command_line, host::LaunchOptions options = {}) {
    return RunTogether({command_line}, std::move(options)).front();
  }

  // The same with what it prints in a file.
  std::int64_t RunInto(const std::filesystem::path& file, const std::wstring& command_line) {
    const windows::UniqueHandle output = OutputFile(file);
    return Run(command_line, {.standard_output = output.get()});
  }

  // The same for several that run at the same time.
  std::vector<std::int64_t> RunTogether(const std::vector<std::wstring>& command_lines,
                                        host::LaunchOptions options = {}) {
    std::vector<std::variant<host::ConfinedProcess, host::LaunchFailure>> started;
    for (const std::wstring& command_line : command_lines) {
      options.command_line = command_line;
      started.push_back(launcher_.Start(options));
    }
    std::vector<std::int64_t> codes;
    for (const auto& start : started) {
      const auto* process = std::get_if<host::ConfinedProcess>(&start);
      const auto code = process ? process->Wait(kPatience) : std::nullopt;
      EXPECT_TRUE(code) << (process ? "does not end" : std::get<host::LaunchFailure>(start).text);
      codes.push_back(code ? std::int64_t{*code} : -1);
    }
    return codes;
  }

  // Starts a program and ends it after this time, whatever it is doing then.
  void RunAndEnd(const std::wstring& command_line, std::chrono::milliseconds after) {
    host::LaunchOptions options;
    options.command_line = command_line;
    const windows::UniqueHandle nowhere = OutputFile(L"NUL");
    options.standard_output = nowhere.get();
    const auto start = launcher_.Start(options);
    const auto* process = std::get_if<host::ConfinedProcess>(&start);
    ASSERT_TRUE(process) << std::get<host::LaunchFailure>(start).text;
    if (!process->Wait(after)) process->Terminate(1);
    EXPECT_TRUE(process->Wait(kPatience));
  }

  // Waits for everything that was started, then gives the messages so far.
  std::vector<Received> Settle() {
    EXPECT_TRUE(launcher_.WaitForAll(kPatience));
    EXPECT_TRUE(server_.WaitUntilIdle(kPatience));
    std::lock_guard lock(mutex_);
    DropRepetitions();
    return std::move(received_);
  }

 private:
  static constexpr std::chrono::milliseconds kPatience = std::chrono::seconds(300);

  host::SectionContents Contents(const std::function<void(host::SectionContents&)>& adjust) {
    host::SectionContents contents;
    contents.UseLibrariesIn(ThisProgram().parent_path().wstring());
    contents.log_directory = folder_.path().wstring();
    contents.server_port = server_.port_name();
    if (WithOptions())
      contents.options =
          policy::OptionBits(policy::SectionOption::kDecisionInAudit, policy::SectionOption::kOnDemand,
                             policy::SectionOption::kProveHooks, policy::SectionOption::kHandleDecides);
    if (adjust) adjust(contents);
    return contents;
  }

  // The message that was on its way when a process ended is sent again rather than lost: it may come twice,
  // before those that waited behind it.
  void DropRepetitions() {
    std::map<std::uint32_t, std::vector<std::size_t>> by_sender;
    for (std::size_t i = 0; i < received_.size(); ++i) by_sender[received_[i].sender()].push_back(i);
    std::set<std::size_t> repeated;
    for (const auto& [sender, indexes] : by_sender) {
      const auto twice = std::adjacent_find(
          indexes.rbegin(), indexes.rend(),
          [&](std::size_t a, std::size_t b) { return received_[a].bytes == received_[b].bytes; });
      if (twice != indexes.rend()) repeated.insert(*twice);
    }
    std::erase_if(received_, [&](const Received& each) {
      return repeated.contains(static_cast<std::size_t>(&each - received_.data()));
    });
  }

  void Keep(std::span<const std::byte> bytes) {
    Received message{.bytes = {bytes.begin(), bytes.end()}, .decoded = {}};
    message.decoded = policy::DecodeMessage(message.bytes);
    EXPECT_TRUE(message.decoded.Ok()) << policy::DecodeReasonText(message.decoded.error.reason);
    if (watcher_) watcher_(message);
    std::lock_guard lock(mutex_);
    received_.push_back(std::move(message));
  }

  TestFolder folder_;
  std::mutex mutex_;
  std::vector<Received> received_;
  std::function<void(const Received&)> watcher_;
  host::MessageServer server_;
  host::SharedSection section_;
  host::Launcher launcher_;
};

}  // namespace vorn::test
