// Opening what nobody is harmed by: the real open comes first, and the handle says what was opened. One name
// is followed once, so that no link can be turned in between.
#include "File/file_change.h"
#include "File/file_helper.h"
#include "File/file_link_helper.h"
#include "File/file_mgr.h"
#include "File/open_call.h"
#include "Policy/device_path.h"
#include "Policy/text.h"
#include "Policy/wide.h"

namespace VornCore {
namespace {

using vorn::policy::EqualsNoCase;
using vorn::policy::SectionOption;
using vorn::policy::U16;

// A volume itself is no file.
bool LiesOnVolume(std::wstring_view path) {
  const std::size_t root = path.find(L'\\', vorn::policy::kDevicePrefix.size());
  return root != path.npos && root + 1 < path.size() && vorn::policy::IsHardDiskVolumeOrMup(U16(path));
}

// What deleting a file by its name is: a handle for that alone, which is closed at once.
bool DeletesAlone(const OpenCall& call) {
  return call.Has(SectionOption::kKeepByLink) && call.asked.disposition == FILE_OPEN &&
         (call.asked.options & FILE_NON_DIRECTORY_FILE) &&
         (call.asked.access == DELETE || call.asked.access == (DELETE | SYNCHRONIZE));
}

// Whether a call that was opened as `opened` would have been opened so under this decision, too.
bool Covers(const FileDecision& decision, const FileDecision& opened, const OpenCall& call, bool created) {
  if (decision.file.access == FileACL::kReadWrite)
    return decision.in_recycle_bin == opened.in_recycle_bin &&
           (opened.file.access == FileACL::kReadWrite ||
            (call.given.access == call.asked.access && call.given.disposition == call.asked.disposition));
  const ACCESS_MASK protection =
      call.Has(SectionOption::kProtectionIsAWrite) ? kProtectionRights | ACCESS_SYSTEM_SECURITY : 0;
  return decision.file.access == FileACL::kRead && !created &&
         !(call.given.access & (kWriteRights | protection));
}

}  // namespace

// A truncation would be done before the handle could say anything: the file is first asked to be made anew,
// for there may be nothing to truncate. So would a deletion at close: for a handle that is good for nothing
// else, it can be asked for later.
bool CFileMgr::MayOpenFirst(const OpenCall& call) noexcept {
  if (!call.Has(SectionOption::kHandleDecides) || !call.handle || !call.io || !LiesOnVolume(call.path))
    return false;
  if (call.asked.options & FILE_DELETE_ON_CLOSE) return DeletesAlone(call);
  return !call.Truncates() ||
         (call.asked.disposition != FILE_OVERWRITE && !(call.asked.options & FILE_DIRECTORY_FILE));
}

// With the rights that the rules give to the spelled path. False when the file has to be asked about before
// it is opened; the call is as it was then.
bool CFileMgr::OpenFirst(OpenCall& call) noexcept {
  const OpenArguments before = call.given;
  const auto ask = [&] {
    call.given = before;
    call.delete_by_handle = false;
    call.status = STATUS_SUCCESS;
    call.audit = {};
    return false;
  };
  const FileDecision spelled = call.decision = model_.DecideByName(call.path);
  if ((spelled.file.access != FileACL::kRead && spelled.file.access != FileACL::kReadWrite) || !Narrow(call))
    return ask();
  const bool creation_taken = call.given.disposition != call.asked.disposition;
  if (creation_taken && call.asked.disposition == FILE_CREATE) return ask();
  // Not every system says whether it opened or created the file: the one is asked for after the other.
  const bool makes_missing = call.given.disposition == FILE_OPEN_IF;
  if (call.Truncates()) call.given.disposition = FILE_CREATE;
  if (makes_missing) call.given.disposition = FILE_OPEN;
  call.delete_by_handle = (call.asked.options & FILE_DELETE_ON_CLOSE) != 0;
  if (call.delete_by_handle) call.given.options &= ~FILE_DELETE_ON_CLOSE;
  call.CallOnPath(kStepOpened);
  if (makes_missing) {
    call.given.disposition = FILE_CREATE;
    if (call.status == STATUS_OBJECT_NAME_NOT_FOUND) call.CallOnPath(kStepOpened);
    call.given.disposition = FILE_OPEN_IF;
  }
  if (!nt::Success(call.status)) {
    // Where the path really leads, it may be created; or there is something by now.
    const bool otherwise =
        (creation_taken && call.status == STATUS_OBJECT_NAME_NOT_FOUND) ||
        ((call.Truncates() || makes_missing) && call.status == STATUS_OBJECT_NAME_COLLISION);
    return !otherwise || ask();
  }
  const bool created = call.io->Information == FILE_CREATED;
  call.final = FinalPathOf(*call.handle);
  const bool as_spelled = EqualsNoCase(U16(call.final), U16(call.path));
  if (!as_spelled && !IsPathOf(*call.handle, call.final)) call.final = {};
  if (call.final.empty() && !created) {
    call.CloseReal();
    return ask();
  }
  const bool names_matter = !created && call.NamesMatter();
  if (!as_spelled || names_matter) {
    if (call.final.empty())
      call.decision = {};
    else
      call.decision =
          names_matter ? model_.DecideOpened(*call.handle, call.final) : model_.DecideByName(call.final);
  }
  if (Covers(call.decision, spelled, call, created)) {
    Record(call);
    return !call.delete_by_handle || DeleteOpened(call) || ask();
  }
  call.CloseReal();
  if (created) {
    RemoveFile(call.final.empty() ? call.path : call.final);
    call.Refuse(kStepReplaceRefused, AuditType::kCreate);
  } else {
    (void)ask();
    ApplyDecision(call);
  }
  return true;
}

// The system refuses here what it would have refused at the open. False where it might not have: a mapped
// file.
bool CFileMgr::DeleteOpened(OpenCall& call) noexcept {
  IO_STATUS_BLOCK io;
  BOOLEAN remove = TRUE;
  const SetFileCall deletion{*call.handle, &io, &remove, sizeof remove, nt::kFileDispositionInformation};
  const Outcome outcome = DeleteForReal(deletion);
  const NTSTATUS status = outcome.decided ? outcome.status : deletion.Real();
  if (nt::Success(status)) return true;
  (void)model_.handles().Take(*call.handle);
  call.CloseReal();
  call.status = status;
  return status != STATUS_CANNOT_DELETE;
}

}  // namespace VornCore
