// Opening what nobody is harmed by: the real open comes first, and the handle says what was opened. One name
// is followed once, so that no link can be turned in between.
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

// Truncation and deletion would be done before the handle could say anything.
bool CFileMgr::MayOpenFirst(const OpenCall& call) noexcept {
  return call.Has(SectionOption::kHandleDecides) && call.handle && call.io && LiesOnVolume(call.path) &&
         (call.asked.disposition == FILE_OPEN || call.Creates()) &&
         !(call.asked.options & FILE_DELETE_ON_CLOSE);
}

// With the rights that the rules give to the spelled path. False when the file has to be asked about before
// it is opened; the call is as it was then.
bool CFileMgr::OpenFirst(OpenCall& call) noexcept {
  const OpenArguments before = call.given;
  const auto ask = [&] {
    call.given = before;
    call.status = STATUS_SUCCESS;
    call.audit = {};
    return false;
  };
  const FileDecision spelled = call.decision = model_.DecideByName(call.path);
  if ((spelled.file.access != FileACL::kRead && spelled.file.access != FileACL::kReadWrite) || !Narrow(call))
    return ask();
  const bool creation_taken = call.given.disposition != call.asked.disposition;
  if (creation_taken && call.asked.disposition == FILE_CREATE) return ask();
  call.CallOnPath(kStepOpened);
  if (!nt::Success(call.status)) {
    // Where the path really leads, it may be created.
    if (creation_taken && call.status == STATUS_OBJECT_NAME_NOT_FOUND) return ask();
    return true;
  }
  const bool created = call.io->Information == FILE_CREATED;
  const std::wstring_view final = FinalPathOf(*call.handle);
  if (final.empty() && !created) {
    call.CloseReal();
    return ask();
  }
  const bool as_spelled = EqualsNoCase(U16(final), U16(call.path));
  const bool names_matter =
      !created && ((call.given.access & kWriteRights) || call.Has(SectionOption::kAuditAllowed));
  if (!as_spelled || names_matter)
    call.decision = final.empty() ? FileDecision{} : model_.DecideOpened(*call.handle, final);
  if (Covers(call.decision, spelled, call, created)) {
    Record(call);
    return true;
  }
  call.CloseReal();
  call.final = final;
  if (created) {
    RemoveFile(final.empty() ? call.path : final);
    call.Refuse(kStepReplaceRefused, AuditType::kCreate);
  } else {
    (void)ask();
    ApplyDecision(call);
  }
  return true;
}

}  // namespace VornCore
