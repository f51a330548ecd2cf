// Layout of the shared configuration section, version 2: what the host writes and the library reads.
//
//   0    SharedDataHeader
//   100  SectionOptions        optional: what a host asks for beyond the plain section
//   ...  file rule table      file rule count × FileRuleRecord, back to back
//   ...  network rule table   network rule count × NetRuleRecord, back to back
//   ...  strings, addresses, port lists, in any order and at any alignment
//
// Integers are 32-bit unsigned little-endian. Offsets count bytes from the start of the section, lengths
// count bytes; strings are UTF-16LE and their length leaves out a terminator. A length of 0 means absent.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>

namespace vorn::policy {

// A 32-bit field at any alignment in memory that another process may be writing. Each conversion to a value
// is exactly one load: a value that was checked is the value that is used.
class [[gnu::packed, gnu::may_alias]] SharedU32 {
 public:
  SharedU32() noexcept = default;
  // A field is written and read like a number.
  constexpr SharedU32(std::uint32_t value) noexcept : value_(value) {}
  operator std::uint32_t() const noexcept {
    const volatile SharedU32* self = this;
    return self->value_;
  }

 private:
  std::uint32_t value_ = 0;
};
static_assert(sizeof(SharedU32) == 4 && alignof(SharedU32) == 1);

inline constexpr std::uint32_t kSharedDataMagic = 0x566F726E;
inline constexpr std::uint32_t kSharedDataVersion = 2;

// SharedDataFlags.
inline constexpr std::uint32_t kFlagLogLevelMask = 0xFF;
inline constexpr std::uint32_t kFlagDebugLog = 0x08;  // part of the level mask: detail lines are written
inline constexpr std::uint32_t kFlagFileCreateCheckOff = 0x100;
inline constexpr std::uint32_t kFlagNetCheckOff = 0x200;

// An init-event prefix of this many characters or more is not used.
inline constexpr std::uint32_t kMaxInitEventPrefix = 260;

struct SharedString {
  SharedU32 length;  // bytes
  SharedU32 offset;
};

struct SharedDataHeader {
  SharedU32 magic;
  SharedU32 version;
  SharedU32 reserved[2];
  SharedU32 flags;
  SharedString log_directory;
  SharedString dump_directory;
  SharedString server_port_name;
  SharedString create_process_event_prefix;
  // The four library paths are followed by a terminator: they go to functions that measure them.
  SharedString biz_dll_path_x64;
  SharedString biz_dll_path_x86;
  SharedString ipc_path_64;
  SharedString ipc_path_32;
  SharedU32 file_rule_count;
  SharedU32 file_rule_offset;
  SharedU32 net_rule_count;
  SharedU32 net_rule_offset;
};
static_assert(sizeof(SharedDataHeader) == 100 && alignof(SharedDataHeader) == 1);
static_assert(offsetof(SharedDataHeader, flags) == 16);
static_assert(offsetof(SharedDataHeader, log_directory) == 20);
static_assert(offsetof(SharedDataHeader, create_process_event_prefix) == 44);
static_assert(offsetof(SharedDataHeader, ipc_path_32) == 76);
static_assert(offsetof(SharedDataHeader, file_rule_count) == 84);
static_assert(offsetof(SharedDataHeader, net_rule_offset) == 96);

// What a host can ask for beyond the plain section: bits of SectionOptions::enabled. A section without the
// block, or with a block that is too short to hold a field, asks for none of it.
enum class SectionOption : std::uint32_t {
  kDecisionInAudit = 1u << 0,  // audits carry the rule and the fact that decided
  kAuditAllowed = 1u << 1,     // files that a program may open are audited, too
  // Deletions and replacements are the system's own, at once; what is deleted is kept by a second name in one
  // of the keep places. Without such a place for its volume, a file's deletion waits for the close.
  kKeepByLink = 1u << 2,
  kPlacesFromRules = 1u << 3,  // no place is open by itself: temp folder and recycle bins take rules as well
  kLoaderOnlyLoads = 1u << 4,  // inside the loader only modules pass unjudged
  kProtectionIsAWrite = 1u << 5,  // changing who may do what with a file, or its attributes, is writing it
  kRulesHoldPlaces = 1u << 6,     // a folder with a stricter rule below keeps its name and its place
  kOnDemand = 1u << 7,            // threads and the log file are made when there is something for them
  kNoSamples = 1u << 8,           // no samples are sent
  // What was opened decides, not what its path said before; only refusals of ours are reported as refusals,
  // and each is.
  kHandleDecides = 1u << 10,
  kProveHooks = 1u << 9,  // a process in which a function is found and not intercepted ends
  // Paths and rules are compared as the system compares names: no letter's case counts (Letters::kAll).
  kFoldAllLetters = 1u << 11,
  kStartOnlyImages = 1u << 12,  // what no library can be put into is not started
  // A place of a local drive is no more open by its share, in a shadow copy or as part of the whole volume or
  // disk than by its own name.
  kOneAccessPerPlace = 1u << 13,
};

template <class... Options>
constexpr std::uint32_t OptionBits(Options... options) noexcept {
  return (0u | ... | static_cast<std::uint32_t>(options));
}

// Tells the block from whatever else may follow the header.
inline constexpr std::array<std::uint8_t, 16> kSectionOptionsId = {
    0x8E, 0x31, 0x5B, 0xF0, 0x27, 0xD4, 0x4C, 0x9A, 0xA6, 0x02, 0xC7, 0x7D, 0x19, 0xEE, 0x63, 0xB8};

// Grows at its end: `size` says how much of it the host knows, and a reader skips what it does not know.
struct SectionOptions {
  std::array<std::uint8_t, 16> id;  // kSectionOptionsId
  SharedU32 size;                   // bytes, id and size included
  SharedU32 enabled;                // SectionOption bits; unknown ones are ignored
  SharedString run;                 // names this run in what is kept: digits, letters, dashes
  SharedU32 keep_format;            // KeepFormat
  SharedU32 keep_place_count;
  SharedU32 keep_place_offset;  // KeepPlaceRecord, back to back
};
static_assert(sizeof(SectionOptions) == 44 && alignof(SectionOptions) == 1);

// How a place for deleted files remembers where they came from.
enum class KeepFormat : std::uint32_t {
  kNone = 0,        // nothing is kept
  kRecycleBin = 1,  // $R… holds the file, $I… beside it its origin
  kTrash = 2,       // files\… and info\….trashinfo
};

// Where deleted files of a volume are kept: canonical NT paths without trailing backslash.
struct KeepPlaceRecord {
  SharedString volume;  // what the paths of its files begin with; absent: every file
  SharedString folder;  // on the same volume
};
static_assert(sizeof(KeepPlaceRecord) == 16 && alignof(KeepPlaceRecord) == 1);

struct FileRuleRecord {
  SharedU32 access;     // FileACL
  SharedU32 path_hash;  // HashPathNoCase of the whole path; with kFoldAllLetters, for all letters
  SharedString path;    // canonical NT path without trailing backslash
};
static_assert(sizeof(FileRuleRecord) == 16 && alignof(FileRuleRecord) == 1);
static_assert(offsetof(FileRuleRecord, path_hash) == 4);

enum class NetRuleKind : std::uint32_t { kAddress = 1, kDomain = 2, kDefault = 3 };

// The network verdict of a rule and of a decision.
inline constexpr std::uint32_t kVerdictDeny = 0;
inline constexpr std::uint32_t kVerdictAllow = 1;
enum class Verdict : std::uint32_t { kDeny = kVerdictDeny, kAllow = kVerdictAllow };

// Address families as Windows numbers them.
inline constexpr std::uint32_t kFamilyIPv4 = 2;
inline constexpr std::uint32_t kFamilyIPv6 = 23;

struct NetRuleRecord {
  SharedU32 verdict;
  SharedU32 kind;           // NetRuleKind
  SharedU32 family;         // address rules
  SharedU32 prefix_length;  // address rules: leading bits that must match
  SharedString address;     // address rules: 4 or 16 bytes in network order
  SharedString ports;       // array of 16-bit ports in host order; empty: every port
  SharedString domain;      // domain rules: pattern, terminated
};
static_assert(sizeof(NetRuleRecord) == 40 && alignof(NetRuleRecord) == 1);
static_assert(offsetof(NetRuleRecord, prefix_length) == 12);
static_assert(offsetof(NetRuleRecord, address) == 16);
static_assert(offsetof(NetRuleRecord, domain) == 32);

// An address rule whose address is longer is ignored.
inline constexpr std::uint32_t kMaxNetRuleAddress = 128;

// "deny", "allow", or "unknown" for any other value.
[[nodiscard]] constexpr const char* VerdictText(std::uint32_t verdict) noexcept {
  switch (verdict) {
    case kVerdictDeny:
      return "deny";
    case kVerdictAllow:
      return "allow";
    default:
      return "unknown";
  }
}
[[nodiscard]] constexpr const char* VerdictText(Verdict verdict) noexcept {
  return VerdictText(static_cast<std::uint32_t>(verdict));
}

}  // namespace vorn::policy
