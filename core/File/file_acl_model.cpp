#include "File/file_acl_model.h"

#include <utility>

#include "File/drive_table.h"
#include "File/file_helper.h"
#include "File/file_link_helper.h"
#include "File/scratch_path.h"
#include "Platform/guard.h"
#include "Platform/native.h"
#include "Policy/device_path.h"
#include "Policy/wide.h"
#include "VornCore/Base/log.h"
#include "VornCore/Base/shared_data.h"
#include "VornCore/Base/strings.h"

namespace VornCore {
namespace {

using vorn::policy::ACLName;
using vorn::policy::FileFacts;
using vorn::policy::FileRuleMatch;
using vorn::policy::FileVerdict;
using vorn::policy::U16;

// Stands for the names that are not known: no rule covers it.
constexpr std::u16string_view kUnlistedName = u":unlisted";

void LogInvalidRule(std::wstring_view path, const FileRuleMatch& match) {
  if (match.found && match.invalid_access)
    VORN_LOG_E("CheckConfigPermission path:%s Error Back to:%d", OrNull(CountedToAnsi(path)), 0);
}

void LogLookup(std::wstring_view path, const FileRuleMatch& match) {
  LogInvalidRule(path, match);
  if (IsDebugLogEnabled())
    VORN_LOG_I("CheckFileACL path:%s ACL:%d", OrNull(CountedToAnsi(path)), static_cast<int>(match.access));
}

// Logs what the kernel looks up; knows no names.
class LookupContext : public vorn::policy::FileContext {
 public:
  void OnLookup(std::u16string_view path, const FileRuleMatch& match) noexcept override {
    LogLookup(vorn::policy::W(path), match);
  }
  std::u16string_view PathOnDrive(char16_t letter, std::u16string_view rest) noexcept override {
    const DriveRecord* drive = GetDriveForLetter(static_cast<wchar_t>(letter));
    wchar_t* path = drive ? ScratchPath(3, drive->device_path.size() + rest.size()) : nullptr;
    if (!path) return {};
    return U16(TerminatedCopy(path, drive->device_path, vorn::policy::W(rest)));
  }
};

// Answers the kernel with the other names of the file at path.
class DecisionContext final : public LookupContext {
 public:
  // access: what the names may lower. links: holds the file open; null: path is asked whatever its links.
  DecisionContext(std::wstring_view path, FileACL access, FileLinkHelper* links) noexcept
      : path_(path), access_(access), links_(links) {}
  // Of a file that is open.
  DecisionContext(std::wstring_view path, HANDLE file) noexcept
      : path_(path), access_(FileACL::kReadWrite), links_(nullptr), file_(file) {}

  bool NextName(std::u16string_view* name) noexcept override {
    if (!listed_) ListNames();
    if (!next_) {
      *name = kUnlistedName;
      return std::exchange(unlisted_, false);
    }
    *name = U16(std::wstring_view(static_cast<const LinkNode*>(next_)->path.get()));
    next_ = NextNode(next_);
    return true;
  }
  void OnName(std::u16string_view name, FileACL access) noexcept override {
    if (access != access_ && IsDebugLogEnabled())
      VORN_LOG_I("CheckFileACLAdapterHardLinks path:%s target:%s [%d->%d]", OrNil(CountedToAnsi(path_)),
                 OrNil(CountedToAnsi(vorn::policy::W(name))), static_cast<int>(access_),
                 static_cast<int>(access));
  }

 private:
  void ListNames() noexcept {
    listed_ = true;
    ThreadState* state = GetThreadState();
    if (!state || (links_ && links_->LinkCount() < 2)) return;
    const std::uint32_t count = file_ ? LinkCountOf(file_) : 0;
    if (count == 1) return;
    ScratchLevel level(state);
    const std::wstring_view file = path_.substr(0, vorn::policy::FindStream(U16(path_)));
    wchar_t* dos_path = ScratchPath(0, file.size());
    const ListHead* names = nullptr;
    if (dos_path) TerminatedCopy(dos_path, file);
    const bool on_drive = dos_path && NtPathToDosPath(dos_path);
    if (file_) {
      const int found = on_drive ? names_.ListNames(dos_path, &names) : 0;
      unlisted_ = !count || static_cast<std::uint32_t>(found) < count;
    } else if (!on_drive || !names_.GetFileHardLinks(dos_path, &names)) {
      unlisted_ = links_ && GetSection().Has(vorn::policy::SectionOption::kPlacesFromRules);
    }
    if (names) next_ = FirstNode(*names);
  }

  const std::wstring_view path_;
  const FileACL access_;
  FileLinkHelper* const links_;
  HANDLE file_ = nullptr;
  FileLinkHelper names_;
  const ListNode* next_ = nullptr;
  bool listed_ = false;
  bool unlisted_ = false;  // the file has names that could not be told
};

// Where kept files get their second names in a trash; in scratch slot 2.
std::wstring_view TrashedFiles() {
  if (GetSection().FormatOfKept() != vorn::policy::KeepFormat::kTrash) return {};
  const std::wstring_view folder = vorn::policy::W(GetSection().KeepFolderOf({}).text);
  constexpr std::wstring_view kFiles = L"\\files";
  wchar_t* path = ScratchPath(2, folder.size() + kFiles.size());
  return path && !folder.empty() ? TerminatedCopy(path, folder, kFiles) : std::wstring_view();
}

// The folders in which another name of a file would matter. An implementation without a list of names looks
// there.
std::wstring_view RuleFolder(std::uint32_t index) {
  for (std::uint32_t bytes, access, hash; index < GetFileRuleCount(); ++index)
    if (const wchar_t* path = GetFileRule(index, &bytes, &access, &hash))
      return {path, bytes / sizeof(wchar_t)};
  return index == GetFileRuleCount() ? TrashedFiles() : std::wstring_view();
}

}  // namespace

bool FileACLModel::Init() noexcept {
  platform::SetLinkFolderSource(&RuleFolder);
  PrintACLFilesLog();
  return true;
}

FileDecision FileACLModel::DecideFileACL(std::wstring_view path) const noexcept {
  ThreadState* state = GetThreadState();
  if (!state) return {};
  const ScratchLevel level(state);
  Place place;
  return DecideFinal(path, {}, &place);
}

FileDecision FileACLModel::DecideFinal(std::wstring_view path, Question question,
                                       Place* place) const noexcept {
  FileDecision decision;
  *place = {path};
  if (path.empty()) return decision;
  if (!vorn::policy::IsHardDiskVolumeOrMup(U16(path)) && !IsFileSystemPath(path)) return decision;
  FileLinkHelper links;
  platform::WithFinally(
      [&] {
        FileFacts facts{.temp_directory = U16(TempDirectory())};
        const std::wstring_view target = links.GetFileSymbolicLink(path, question.itself);
        // What resolved exists, or its directory does: only an unresolved path has to be asked about.
        if (target.empty())
          facts.on_file_system = IsFileSystemPath(path);
        else
          *place = {target, links.IsOpen()};
        facts.path = U16(place->path);
        if (!facts.on_file_system && IsDebugLogEnabled())
          VORN_LOG_I("Not FileSystem:%s", OrNil(WideToAnsi(path.data())));
        LookupContext rules_alone;
        DecisionContext all_names(place->path, FileACL::kReadWrite, &links);
        decision = vorn::policy::DecideFile(
            GetSection(), facts, question.names ? static_cast<LookupContext&>(all_names) : rules_alone);
      },
      [&] { links.Close(); });
  return decision;
}

FileDecision FileACLModel::DecideByName(std::wstring_view path) const noexcept {
  LookupContext context;
  return vorn::policy::DecideFile(GetSection(), {.path = U16(path), .temp_directory = U16(TempDirectory())},
                                  context);
}

FileDecision FileACLModel::DecideOpened(HANDLE file, std::wstring_view path) const noexcept {
  DecisionContext context(path, file);
  return vorn::policy::DecideFile(GetSection(), {.path = U16(path), .temp_directory = U16(TempDirectory())},
                                  context);
}

bool FileACLModel::CheckConfigPermission(std::wstring_view path, FileACL* access,
                                         std::size_t units) const noexcept {
  const FileRuleMatch match = vorn::policy::CheckConfigPermission(GetSection(), U16(path), units);
  LogInvalidRule(path, match);
  if (match.found) *access = match.access;
  return match.found;
}

FileACL FileACLModel::CheckFileACL(std::wstring_view path) const noexcept {
  const FileRuleMatch match = vorn::policy::CheckFileACL(GetSection(), U16(path));
  LogLookup(path, match);
  return match.access;
}

FileACL FileACLModel::CheckFileACLAdapterHardLinks(std::wstring_view path, FileACL access) const noexcept {
  DecisionContext context(path, access, nullptr);
  const FileVerdict verdict{.access = access};
  return vorn::policy::WeakestName(GetSection(), verdict, context).access;
}

void FileACLModel::PrintACLFilesLog() const noexcept {
  if (!IsDebugLogEnabled()) return;
  for (std::uint32_t i = 0, count = GetFileRuleCount(); i < count; ++i) {
    std::uint32_t bytes, access, hash;
    const wchar_t* path = GetFileRule(i, &bytes, &access, &hash);
    if (!path || !bytes) continue;
    const UNICODE_STRING text = nt::CountedString(path, bytes);
    VORN_LOG_I("PrintACLFilesLog ACL:%s -> %s", ACLName(access), OrNil(UnicodeStringToAnsi(&text)));
  }
}

}  // namespace VornCore
