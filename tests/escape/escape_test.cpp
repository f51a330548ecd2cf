// Ways out of confinement, one a row: a few lines of shell that try to read what a policy denies, or to
// change what it protects. All rows run unconfined first, where each must succeed (its control), and then
// under `vorn run`. A row escapes when a secret turns up where it was not, a protected file is no longer what
// it was, or the row itself says ESCAPED.
//
// Each row has a folder of its own:
//
//   denied\s.txt               secret   deny
//   read\f.txt                 old      read
//   plain\f.txt                old      no rule
//   work\                               write
//   work\proj\secret\s.txt     secret   deny, below the writable folder
//   work\later\                         read for work\later\x, which is not there
//                                       deny for a folder "Ab" there, with A umlaut, which is not there
//
// A row whose call the system lacks says UNSUPPORTED; it is blocked all the same.
//
// docs/threat-model.md states how many rows there are; the numbers are compared.
#include <gtest/gtest.h>

#include <cstdlib>
#include <map>
#include <nlohmann/json.hpp>
#include <set>
#include <sstream>
#include <utility>

#include "tests/e2e/confinement.h"

namespace vorn::test {
namespace {

namespace fs = std::filesystem;

enum class Outcome { kBlocked, kLimit };
enum class Report { kNone, kEvent };  // whether the refusal must have come as an event

struct Row {
  const char* name;  // also its folder's
  const char*
      lines;  // @ is the row's folder, # a name that nothing else has, $ escape_probe, ! vorn, + its folder
  Outcome outcome = Outcome::kBlocked;
  Report report = Report::kEvent;
  const char* limit = "";  // why it is one
  const char* about = "";  // what its events name, where that does not lie in its folder
  bool explained = true;   // `vorn explain` knows as much as the run
};

constexpr char kPolicy[] = "own-policy\\work\\policy.toml", kEvents[] = "own-events\\work\\events.jsonl";
constexpr char kSecret[] = "what nobody may read";

constexpr Row kRows[] = {
    // Spellings of one place.
    {"plain", "type @\\denied\\s.txt\necho new> @\\read\\f.txt\necho new> @\\plain\\f.txt"},
    {"slashes", "type \"@/denied/s.txt\""},
    {"long-form", "type \\\\?\\@\\denied\\s.txt"},
    {"other-case", "type @\\DENIED\\S.TXT"},
    {"dots", "type @\\work\\..\\.\\denied\\s.txt"},
    {"relative", "cd /d @\\denied\ntype s.txt"},
    {"stream", "echo new> @\\read\\f.txt:x& if exist @\\read\\f.txt:x echo ESCAPED"},
    // Changes by name.
    {"delete", "del @\\read\\f.txt"},
    {"rename", "ren @\\read\\f.txt g.txt"},
    {"move-out", "move @\\read\\f.txt @\\work\\f.txt"},
    {"move-over", "echo new> @\\work\\n.txt\nmove /y @\\work\\n.txt @\\read\\f.txt"},
    {"copy-out", "copy @\\denied\\s.txt @\\work\\s.txt"},
    {"copy-over", "echo new> @\\work\\n.txt\ncopy /y @\\work\\n.txt @\\read\\f.txt"},
    {"hard-link", "mklink /H @\\work\\h.txt @\\read\\f.txt\necho new> @\\work\\h.txt"},
    {"hard-link-held", "mklink /H @\\work\\h.txt @\\read\\f.txt\n$ held @\\read\\f.txt @\\work\\h.txt"},
    {"hard-link-deny", "mklink /H @\\work\\h.txt @\\denied\\s.txt\ntype @\\work\\h.txt"},
    // Free places belong to the host.
    {"own-temp", "set TMP=@\nset TEMP=@\ncmd /c type @\\denied\\s.txt"},
    {"own-temp-write", "set TMP=@\nset TEMP=@\ncmd /c echo new^> @\\plain\\f.txt"},
    {"no-temp", "set TMP=\nset TEMP=\nset USERPROFILE=@\ncmd /c type @\\denied\\s.txt"},
    {.name = "temp-link",
     .lines = "mklink /H %TEMP%\\# @\\plain\\f.txt\necho new> %TEMP%\\#\ndel %TEMP%\\#",
     .about = "Temp\\#",
     .explained = false},
    {.name = "denied-temp", .lines = "type %TEMP%\\#-denied\\s.txt", .about = "\\#-denied"},
    // A second run.
    {.name = "unix-program",
     .lines = "cd /d @\\work\nif not exist Z:\\bin\\cp echo UNSUPPORTED\n"
              "$ start \"Z:\\bin\\cp ../denied/s.txt stolen.txt\"",
     .about = "\\bin\\cp",
     .explained = false},
    {.name = "nested",
     .lines = "echo [files]> @\\work\\open.toml\n! run -p @\\work\\open.toml -- cmd /c type @\\denied\\s.txt",
     .report = Report::kNone},
    // What belongs to vorn, although a rule opens it.
    {"own-policy", "$ write @\\work\\policy.toml"},
    {.name = "own-events", .lines = "$ write @\\work\\events.jsonl", .explained = false},
    {.name = "own-folder", .lines = "$ write +\\#.dll", .about = "\\#.dll"},
    {.name = "own-data",
     .lines = "for %%d in (logs dumps runs) do $ write %LOCALAPPDATA%\\Vorn\\%%d\\#",
     .about = "\\Vorn\\logs\\#"},
    // The section is the host's.
    {"own-section", "$ section @\\denied\\s.txt"},
    {"section-rules", "$ rules @\\denied\\s.txt"},
    // Other ways to a file.
    {"reopen", "$ reopen @\\read\\f.txt"},
    {.name = "map", .lines = "$ map @\\read\\f.txt", .report = Report::kNone},
    {"file-id", "$ id @\\read\\f.txt"},
    {"drive-letters", "$ root @\\read\\f.txt"},
    {"replace", "echo new> @\\work\\n.txt\n$ replace @\\read\\f.txt @\\work\\n.txt"},
    {"device-form", "type \\\\.\\@\\denied\\s.txt"},
    {"loopback-share",
     "set p=@\\denied\\s.txt\nif not exist \\\\localhost\\%p:~0,1%$\\ echo UNSUPPORTED\ntype "
     "\\\\localhost\\%p:~0,1%$%p:~2%"},
    {"rename-class", "$ info @\\read\\f.txt 10"},
    {"link-class", "$ info @\\read\\f.txt 11"},
    {"delete-class", "$ info @\\read\\f.txt 13"},
    {"allocation-class", "$ info @\\read\\f.txt 19"},
    {"size-class", "$ info @\\read\\f.txt 20"},
    {"valid-data-class", "$ info @\\read\\f.txt 39"},
    {"short-name-class", "$ info @\\read\\f.txt 40"},
    {"delete-ex-class", "$ info @\\read\\f.txt 64"},
    {"rename-ex-class", "$ info @\\read\\f.txt 65"},
    {"link-ex-class", "$ info @\\read\\f.txt 72"},
    {.name = "zero-data", .lines = "$ zero @\\read\\f.txt", .report = Report::kNone},
    // What is not refused.
    {.name = "size-of-denied",
     .lines = "$ size @\\denied\\s.txt",
     .outcome = Outcome::kLimit,
     .report = Report::kNone,
     .limit = "attributes, sizes and times are asked for by calls that are not intercepted"},
    {.name = "list-above-denied",
     .lines = "for /d %%d in (@\\d*) do echo ESCAPED",
     .outcome = Outcome::kLimit,
     .report = Report::kNone,
     .limit = "a folder that may be read shows the names of all that lies in it"},
    // The loader.
    {"dll-main",
     "set ESCAPE_READ=@\\denied\\s.txt\nset ESCAPE_COPY=@\\work\\c.txt\nset ESCAPE_WRITE=@\\read\\f.txt\n"
     "set ESCAPE_DELETE=@\\plain\\f.txt\n$ load"},
    {"delay-load", "$ delay-load @\\denied\\s.txt"},
    // Protection is a right.
    {"access-list", "$ acl @\\read\\f.txt"},
    {"attributes", "$ attributes @\\read\\f.txt"},
    {"times", "$ times @\\read\\f.txt"},
    // Rules hold their place.
    {"rename-parent", "ren @\\work\\proj p2\ntype @\\work\\p2\\secret\\s.txt"},
    {"move-parent", "move @\\work\\proj @\\work\\p2\ntype @\\work\\p2\\secret\\s.txt"},
    {"remove-parent", "rd @\\work\\later\nif not exist @\\work\\later echo ESCAPED"},
    {"other-letter-case", "$ letter @\\work"},
};

class Escape : public testing::Test, public TestFolder {
 protected:
  Escape() {
    for (const Row& row : kRows) MakeTree(row);
    fs::create_directory(denied_temp_);
    std::ofstream(denied_temp_ / L"s.txt", std::ios::binary) << kSecret;
  }
  ~Escape() {
    std::error_code ignored;
    fs::remove_all(denied_temp_, ignored);
  }

  void MakeTree(const Row& row) const {
    const fs::path top = Path(row.name);
    std::error_code ignored;
    fs::remove_all(top, ignored);
    fs::create_directories(top / "work" / "proj" / "secret");
    for (const char* folder : {"denied", "read", "plain", "work\\later"}) fs::create_directory(top / folder);
    for (const char* file : {"\\denied\\s.txt", "\\work\\proj\\secret\\s.txt"})
      Write(std::string(row.name) + file, kSecret);
    for (const char* file : {"\\read\\f.txt", "\\plain\\f.txt"}) Write(std::string(row.name) + file, "old");
    std::string lines = std::string("@echo off\n") + row.lines + "\n";
    for (const auto& [mark, text] : {std::pair{'@', Dos(row.name)},
                                     {'#', unique_},
                                     {'$', host::ToUtf8(BuildPath("escape_probe.exe").wstring())},
                                     {'!', host::ToUtf8(BuildPath("vorn.exe").wstring())},
                                     {'+', host::ToUtf8(BuildPath("").parent_path().wstring())}})
      for (std::size_t at = 9; (at = lines.find(mark, at)) != lines.npos; at += text.size())
        lines.replace(at, 1, text);
    Write(std::string(row.name) + "\\row.bat", lines);
  }

  std::string Policy() const {
    std::string deny = "'%TEMP%\\" + unique_ + "-denied'", read;
    std::string write =
        "'" + host::ToUtf8(BuildPath("").parent_path().wstring()) + "', '%LOCALAPPDATA%\\Vorn', ";
    for (const Row& row : kRows) {
      const std::string top = Dos(row.name);
      deny += ", '" + top + "\\denied', '" + top + "\\work\\proj\\secret', '" + top + "\\work\\\u00C4B'";
      read += "'" + top + "\\read', '" + top + "\\work\\later\\x', ";
      write += "'" + top + "\\work', ";
    }
    return "[files]\ndeny = [" + deny + "]\nread = [" + read + "]\nwrite = [" + write + "]\n";
  }

  // Runs every row, under prefix or without.
  void RunRows(const std::string& prefix) const {
    std::string all = "@echo off\n";
    for (const Row& row : kRows)
      all += "cmd /c " + Dos(row.name) + "\\row.bat > " + Dos(row.name) + "\\work\\out.txt 2>&1\n";
    Write("rows.bat", all);
    const std::string command = prefix + "cmd /c " + Dos("rows.bat") + " > " + Dos("output.txt") + " 2>&1";
    (void)std::system(("\"" + command + "\"").c_str());
  }

  bool Escaped(const Row& row) const {
    const std::string top = std::string(row.name) + "\\";
    for (const char* file : {"read\\f.txt", "plain\\f.txt"})
      if (Read(top + file) != "old") return true;
    for (const auto& entry : fs::recursive_directory_iterator(Path(row.name))) {
      const std::string name = host::ToUtf8(entry.path().lexically_relative(Path(row.name)).wstring());
      if (!entry.is_regular_file() || name == "denied\\s.txt" || name == "work\\proj\\secret\\s.txt" ||
          name == "row.bat")
        continue;
      const std::string text = Read(top + name);
      if (text.find(kSecret) != text.npos || text.find("ESCAPED") != text.npos) return true;
    }
    return false;
  }

  // A refusal that was reported about a file of the row; null when there is none.
  nlohmann::json Reported(const Row& row) const {
    std::string part = *row.about ? row.about : std::string("\\") + row.name + "\\";
    if (const std::size_t mark = part.find('#'); mark != part.npos) part.replace(mark, 1, unique_);
    std::istringstream events(Read(kEvents));
    for (std::string line; std::getline(events, line);) {
      auto json = nlohmann::json::parse(line, nullptr, false);
      if (!json.is_object() || json["event"] != "file" || json["error"] != ERROR_ACCESS_DENIED) continue;
      for (const auto& value : json)
        if (value.is_string() && value.get<std::string>().find(part) != std::string::npos) return json;
    }
    return {};
  }

  bool Says(const Row& row, const char* text) const {
    return Read(std::string(row.name) + "\\work\\out.txt").find(text) != std::string::npos;
  }

  // Asks `vorn explain` about the files of the events: it names the rule that the event names.
  void ExpectExplained(const std::map<const Row*, nlohmann::json>& events) const {
    const auto path_of = [](const nlohmann::json& event) {
      const bool by_destination = event.value("destination_access", "unknown") != "unknown";
      const std::string path = event.value(by_destination ? "destination" : "path", "");
      return path.ends_with('\\') ? path.substr(0, path.size() - 1) : path;
    };
    const std::wstring start =
        L"\"\"" + BuildPath("vorn.exe").wstring() + L"\" explain -p " + Path(kPolicy).wstring();
    const std::wstring end = L" >> " + Path("explained.txt").wstring() + L" 2>&1\"";
    std::wstring line = start;  // at most what a command processor takes
    for (const auto& [row, event] : events) {
      line += L" \"" + host::ToWide(path_of(event)) + L"\"";
      if (line.size() > 6000) (void)_wsystem((std::exchange(line, start) + end).c_str());
    }
    (void)_wsystem((line + end).c_str());
    const std::string explained = Read("explained.txt");
    for (const auto& [row, event] : events) {
      const std::size_t at = explained.find("  " + path_of(event) + "  (");
      const std::string line =
          at == explained.npos ? "" : explained.substr(at, explained.find('\n', at) - at);
      EXPECT_NE(line.find(event.value("rule", "?")), line.npos) << row->name << ": " << event.dump() << "\n"
                                                                << line;
    }
  }

  const std::string unique_ = host::ToUtf8(host::RandomName(L"escape"));
  const fs::path denied_temp_ = fs::temp_directory_path() / (unique_ + "-denied");
};

TEST_F(Escape, EveryRowEscapesUnconfinedAndNoneThatIsBlockedDoesConfined) {
  RunRows("");
  std::set<const Row*> unsupported;
  for (const Row& row : kRows) {
    if (Says(row, "UNSUPPORTED")) unsupported.insert(&row);
    EXPECT_TRUE(Escaped(row) || unsupported.contains(&row))
        << row.name << ": the control does nothing\n"
        << Read(std::string(row.name) + "\\work\\out.txt");
  }
  for (const Row& row : kRows) MakeTree(row);
  Write(kPolicy, Policy());
  RunRows("\"" + host::ToUtf8(BuildPath("vorn.exe").wstring()) + "\" run -p " + Dos(kPolicy) + " -e " +
          Dos(kEvents) + " -- ");
  std::map<Outcome, int> counts;
  std::map<const Row*, nlohmann::json> events;
  for (const Row& row : kRows) {
    ++counts[row.outcome];
    EXPECT_EQ(Escaped(row), row.outcome == Outcome::kLimit)
        << row.name << " " << row.limit << "\n"
        << Read(std::string(row.name) + "\\work\\out.txt");
    if (row.report == Report::kNone || unsupported.contains(&row)) continue;
    const nlohmann::json event = Reported(row);
    EXPECT_TRUE(event.is_object()) << row.name << ": no event";
    if (row.explained && event.is_object()) events.emplace(&row, event);
  }
  ExpectExplained(events);
  EXPECT_EQ(Read("output.txt").find("NOT CONFINED"), std::string::npos) << Read("output.txt");
  const std::string stated = std::to_string(std::size(kRows)) +
                             " ways out: " + std::to_string(counts[Outcome::kBlocked]) + " blocked, " +
                             std::to_string(counts[Outcome::kLimit]) + " limits";
  std::ifstream file(VORN_SOURCE_DIR "/docs/threat-model.md");
  const std::string document{std::istreambuf_iterator<char>(file), {}};
  if (file) {
    EXPECT_NE(document.find(stated), document.npos) << "docs/threat-model.md does not say: " << stated;
  }
}

}  // namespace
}  // namespace vorn::test
