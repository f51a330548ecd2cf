#include "File/file_acl_model.h"

#include <algorithm>

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
using vorn::policy::FileRuleMatch;
using vorn::policy::U16;

void LogInvalidRule(std::wstring_view path, const FileRuleMatch& match) {
  if (match.found && match.invalid_access)
    VORN_LOG_E("CheckConfigPermission path:%s Error Back to:%d", OrNull(WideToAnsi(path.data())), 0);
}

// The folders in which another name of a file would matter. An implementation without a list of names looks
// there.
std::wstring_view RuleFolder(std::uint32_t index) {
  for (std::uint32_t bytes, access, hash; index < GetFileRuleCount(); ++index)
    if (const wchar_t* path = GetFileRule(index, &bytes, &access, &hash))
      return {path, bytes / sizeof(wchar_t)};
  return {};
}

}  // namespace

bool FileACLModel::Init() noexcept {
  platform::SetLinkFolderSource(&RuleFolder);
  PrintACLFilesLog();
  return true;
}

FileDecision FileACLModel::DecideFileACL(std::wstring_view path) const noexcept {
  constexpr FileDecision kUndecided{FileACL::kUnknown, FileACL::kUnknown, false};
  if (path.empty()) return kUndecided;
  if (!vorn::policy::IsHardDiskVolumeOrMup(U16(path)) && !IsFileSystemPath(path)) return kUndecided;

  ThreadState* state = GetThreadState();
  if (!state) return kUndecided;
  FileDecision decision;
  ScratchLevel level(state);
  FileLinkHelper links;
  platform::WithFinally(
      [&] {
        std::wstring_view target = links.GetFileSymbolicLink(path);
        // What resolved exists, or its directory does: only an unresolved path has to be asked about.
        if (target.empty() && !IsFileSystemPath(target = path)) {
          if (IsDebugLogEnabled()) VORN_LOG_I("Not FileSystem:%s", OrNil(WideToAnsi(target.data())));
          decision = kUndecided;
          return;
        }
        decision.in_recycle_bin = vorn::policy::IsRecycleBinPath(U16(target));
        const bool free_place = decision.in_recycle_bin || IsTempPath(target);
        decision.access = free_place ? FileACL::kReadWrite : CheckFileACL(target);
        // A stream is no more open than its file.
        const std::size_t file_units = target.find(L':', target.rfind(L'\\') + 1);
        if (!free_place && file_units != target.npos)
          decision.access = std::min(decision.access, CheckFileACL(target.substr(0, file_units)));
        decision.own_access = decision.access;
        if (free_place || decision.access != FileACL::kReadWrite || links.LinkCount() < 2) return;
        if (CheckFileACLAdapterHardLinks(target, FileACL::kReadWrite) != FileACL::kReadWrite)
          decision.access = FileACL::kRead;
      },
      [&] { links.Close(); });
  return decision;
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
  LogInvalidRule(path, match);
  if (IsDebugLogEnabled())
    VORN_LOG_I("CheckFileACL path:%s ACL:%d", OrNull(WideToAnsi(path.data())),
               static_cast<int>(match.access));
  return match.access;
}

FileACL FileACLModel::CheckFileACLAdapterHardLinks(std::wstring_view path, FileACL access) const noexcept {
  ThreadState* state = GetThreadState();
  if (!state) return access;
  ScratchLevel level(state);
  wchar_t* dos_path = ScratchPath(0, path.size());
  if (!dos_path) return access;
  TerminatedCopy(dos_path, path);
  FileLinkHelper links;
  const ListHead* names = nullptr;
  if (!NtPathToDosPath(dos_path) || links.GetFileHardLinks(dos_path, &names) == 0) return access;
  FileACL lowest = access;
  for (const ListNode* node = FirstNode(*names); node; node = NextNode(node)) {
    const wchar_t* name = static_cast<const LinkNode*>(node)->path.get();
    const FileACL named = CheckFileACL(name);
    lowest = std::min(lowest, named);
    if (named != access && IsDebugLogEnabled())
      VORN_LOG_I("CheckFileACLAdapterHardLinks path:%s target:%s [%d->%d]", OrNil(WideToAnsi(path.data())),
                 OrNil(WideToAnsi(name)), static_cast<int>(access), static_cast<int>(named));
  }
  return lowest;
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
