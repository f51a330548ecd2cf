// The configuration section: what a host tells the confined processes, built from a plain description.
//
//   vorn::host::SectionContents contents;
//   contents.UseLibrariesIn(L"C:\\Program Files\\Vorn");
//   contents.log_directory = L"C:\\Logs";
//   contents.server_port = server.port_name();
//   contents.file_rules.push_back({vorn::policy::FileACL::kDeny, ToNtPath(L"C:\\Secrets")});
//   vorn::host::SharedSection section(contents);    // its name goes into VORN_SHARED_DATA_NAME
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>
#include <string>
#include <vector>

#include "Policy/crash_dump.h"
#include "Policy/file_rules.h"
#include "Policy/section_format.h"
#include "vorn/recycle_bin.h"

namespace vorn::host {

struct FileRule {
  policy::FileACL access = policy::FileACL::kRead;
  std::wstring path = {};  // canonical NT path (ToNtPath); a backslash at the end is dropped
};

struct NetRule {
  std::uint32_t verdict = policy::kVerdictDeny;
  policy::NetRuleKind kind = policy::NetRuleKind::kDefault;
  std::vector<std::uint8_t> address = {};  // address rules: 4 or 16 bytes, network order
  std::uint32_t prefix = 0;                // address rules: leading bits that must match
  std::vector<std::uint16_t> ports = {};   // empty: every port
  std::wstring domain = {};                // domain rules: a name, or a pattern with "*"
};

// A dump directory that leaves room for the names of the dumps in a path of the system's usual length (260
// UTF-16 units with its end). In a longer one most programs could not write a dump.
inline constexpr std::size_t kMaxDumpDirectoryUnits = 259 - 1 - policy::kDumpNameUnits;

// The options of every run of vorn (policy::SectionOption bits).
inline constexpr std::uint32_t kRunOptions = policy::OptionBits(
    policy::SectionOption::kDecisionInAudit, policy::SectionOption::kKeepByLink,
    policy::SectionOption::kPlacesFromRules, policy::SectionOption::kLoaderOnlyLoads,
    policy::SectionOption::kProtectionIsAWrite, policy::SectionOption::kRulesHoldPlaces,
    policy::SectionOption::kOnDemand, policy::SectionOption::kNoSamples, policy::SectionOption::kProveHooks,
    policy::SectionOption::kHandleDecides, policy::SectionOption::kFoldAllLetters,
    policy::SectionOption::kStartOnlyImages, policy::SectionOption::kOneAccessPerPlace);

struct SectionContents {
  std::wstring log_directory;  // drive-letter path of an existing folder
  // The same, at most kMaxDumpDirectoryUnits; empty: crashes leave no dump and no notice.
  std::wstring dump_directory;
  std::wstring server_port;  // MessageServer::port_name
  // Full NT name to which a process's id is appended: NamedObjectPath(RandomName(L"vorn_init")) + L"_".
  // Filled in by SharedSection when empty.
  std::wstring init_event_prefix;
  std::wstring core_x64, core_x86;  // vorn_core.dll, vorn_core32.dll
  std::wstring ipc_x64, ipc_x86;    // vorn_ipc.dll, vorn_ipc32.dll
  std::uint32_t flags = 0x07;       // SharedDataFlags: log levels 1, 2 and 4
  std::uint32_t options = 0;        // policy::SectionOption bits; 0: the plain section, without the block
  // Where deleted files are kept (SectionOption::kKeepByLink), and the run's name in what is kept there.
  KeepPlaces keep_places;
  std::string run;
  std::vector<FileRule> file_rules;
  std::vector<NetRule> net_rules;  // empty: the network is not confined

  // The four libraries under their usual names in this folder.
  void UseLibrariesIn(const std::wstring& folder);
};

// The bytes of the section. Throws std::invalid_argument for contents that it cannot express: an empty rule
// path, an address that is not 4 or 16 bytes long or has fewer bits than the prefix, an empty domain, an
// init-event prefix or a dump directory that is too long, more than 2 GiB.
std::vector<std::byte> LayOutSection(const SectionContents& contents);

// The section as a named object that the current user alone may open. Exists as long as this object or a
// process that mapped it; moves, does not copy.
class SharedSection {
 public:
  // Throws std::invalid_argument (as LayOutSection) or std::system_error.
  explicit SharedSection(SectionContents contents);
  SharedSection(SharedSection&&) noexcept;
  SharedSection& operator=(SharedSection&&) noexcept;
  ~SharedSection();

  const std::wstring& name() const noexcept;         // full NT name
  const SectionContents& contents() const noexcept;  // with the init-event prefix in use
  std::span<std::byte> bytes() const noexcept;       // the mapped section, which processes read at any time

 private:
  struct Impl;
  std::unique_ptr<Impl> impl_;
};

}  // namespace vorn::host
