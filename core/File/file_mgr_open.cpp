// Opening and creating: guard, pass-through, decide, real call, record, audit.
#include <atomic>
#include <cstdio>
#include <cstring>

#include "File/file_audit.h"
#include "File/file_change.h"
#include "File/file_helper.h"
#include "File/file_link_helper.h"
#include "File/file_mgr.h"
#include "File/kept_files.h"
#include "File/open_call.h"
#include "Platform/last_error.h"
#include "Policy/device_path.h"
#include "Policy/text.h"
#include "Policy/wide.h"
#include "VornCore/Base/channel.h"
#include "VornCore/Base/clock.h"
#include "VornCore/Base/hook_depth_guard.h"
#include "VornCore/Base/log.h"
#include "VornCore/Base/shared_data.h"
#include "VornCore/Base/strings.h"
#include "VornCore/Hook/own_handle.h"

namespace VornCore {
namespace {

using vorn::policy::ClassifyDevicePath;
using vorn::policy::DeviceKind;
using vorn::policy::SectionOption;
using vorn::policy::U16;

// ---- Log lines

// The caller's attributes as far as they can be read.
struct AttributesText {
  ULONG length = 0;
  HANDLE root = nullptr;
  ULONG attributes = 0;
  wchar_t name[512];
  std::size_t bytes = 0;

  explicit AttributesText(const OBJECT_ATTRIBUTES* from) {
    const bool readable = platform::Guarded([&] {
      length = from->Length;
      root = from->RootDirectory;
      attributes = from->Attributes;
      const UNICODE_STRING* text = from->ObjectName;
      if (!text || !text->Buffer) return;
      const std::size_t size = text->Length < sizeof name ? text->Length : sizeof name;
      memcpy(name, text->Buffer, size);
      bytes = size;
    });
    if (!readable) bytes = 0;
  }
  HeapText NameInAnsi() const {
    const UNICODE_STRING text = nt::CountedString(name, bytes);
    return UnicodeStringToAnsi(&text);
  }
};

void LogUnchecked(NTSTATUS status, const OpenArguments& asked, ULONG share,
                  const OBJECT_ATTRIBUTES* attributes) {
  if (!(GetLogLevelMask() & kLogWarning)) return;
  const AttributesText text(attributes);
  VORN_LOG_W(
      "NtCreateFile Test status:%X, CreateOptions %X, DesiredAccess %X, ShareAccess:%X, "
      "CreateDisposition %X, Length:%d, RootDirectory:0x%p Attributes:%u path:%s",
      static_cast<unsigned>(status), static_cast<unsigned>(asked.options),
      static_cast<unsigned>(asked.access), static_cast<unsigned>(share),
      static_cast<unsigned>(asked.disposition), static_cast<int>(text.length), static_cast<void*>(text.root),
      static_cast<unsigned>(text.attributes), OrNull(text.NameInAnsi()));
}

// What every line about a confined call says: how it ended, and its arguments, as asked and as given.
struct OpenText {
  char text[256];

  explicit OpenText(const OpenCall& call) {
    const auto u = [](auto value) { return static_cast<unsigned>(value); };
    _snprintf(text, sizeof text,
              "step:%u, status:%X, CreateOptions[%X->%X], DesiredAccess[%X->%X], ShareAccess:%X, "
              "CreateDisposition[%X->%X]",
              u(call.step), u(call.status), u(call.asked.options), u(call.given.options),
              u(call.asked.access), u(call.given.access), u(call.share), u(call.asked.disposition),
              u(call.given.disposition));
    text[sizeof text - 1] = 0;
  }
};

void LogOutcome(const OpenCall& call) {
  if (nt::Success(call.status)) {
    if (IsDebugLogEnabled())
      VORN_LOG_I("NtCreateFile %s, path:%s", OpenText(call).text, OrNull(WideToAnsi(call.path.data())));
  } else if (call.step == kStepException) {
    const AttributesText attributes(call.attributes);
    VORN_LOG_E("NtCreateFile Execption %s, Length:%d RootDirectory:0x%p Attributes:%u path:%s obj path:%s",
               OpenText(call).text, static_cast<int>(attributes.length), static_cast<void*>(attributes.root),
               static_cast<unsigned>(attributes.attributes), OrNull(WideToAnsi(call.path.data())),
               OrNull(attributes.NameInAnsi()));
  } else if ((GetLogLevelMask() & kLogWarning) && !call.path.empty() &&
             !vorn::policy::IsQuietFailureStatus(call.status) &&
             !vorn::policy::IsQuietFailurePath(U16(call.path))) {
    VORN_LOG_W("NtCreateFile Error %s, path:%s", OpenText(call).text, OrNull(WideToAnsi(call.path.data())));
  }
}

// ---- Stages

NTSTATUS GetCanonicalPath(ULONG* options, const OBJECT_ATTRIBUTES* attributes, std::wstring_view* path) {
  if (!(*options & FILE_OPEN_BY_FILE_ID))
    return GetPath(attributes->RootDirectory, attributes->ObjectName, path);
  const NTSTATUS status = ResolveFileIdPath(attributes, path);
  if (nt::Success(status)) *options &= ~FILE_OPEN_BY_FILE_ID;  // from here on the call goes by name
  return status;
}

bool NamesDevice(const UNICODE_STRING* name) {
  if (!name || !name->Buffer || !name->Length) return false;
  return ClassifyDevicePath(U16(std::wstring_view(name->Buffer, name->Length / sizeof(wchar_t)))) !=
         DeviceKind::kNone;
}

// Whether the call wants more than to ask a device what it is.
bool OpensData(const OpenCall& call) {
  return call.asked.access & (FILE_READ_DATA | FILE_EXECUTE | GENERIC_READ | GENERIC_EXECUTE | kWriteRights);
}

void OfferSample(std::uint64_t path_time, std::uint64_t acl_time, std::uint64_t now, const OpenCall& call) {
  static std::atomic<std::uint64_t> last_sent;
  if (MaySendSample(last_sent, now))
    SendSample(path_time, acl_time, static_cast<std::uint32_t>(call.decision.file.access),
               vorn::policy::kSubtypeSampleFileCreate, call.path.data());
}

// Inside the loader: whether the call was made as asked, because it opens a module (or, in a plain section,
// whatever it does). A file that no image can be made of is no module: its open is judged like any other.
bool PassesInLoader(OpenCall& call) {
  if (GetSection().Has(SectionOption::kLoaderOnlyLoads)) {
    constexpr ACCESS_MASK kChanges = kWriteRights | kProtectionRights | DELETE | ACCESS_SYSTEM_SECURITY;
    constexpr ACCESS_MASK kRuns = FILE_EXECUTE | GENERIC_EXECUTE;
    if ((call.asked.access & kChanges) || call.asked.disposition != FILE_OPEN || !call.handle) return false;
    call.status = call.CallReal(call.attributes, call.asked);
    if (!nt::Success(call.status)) return false;
    OwnHandle image;
    const NTSTATUS status =
        NtCreateSection(image.put(), SECTION_QUERY, nullptr, nullptr,
                        (call.asked.access & kRuns) ? PAGE_EXECUTE : PAGE_READONLY, SEC_IMAGE, *call.handle);
    if (nt::Success(status)) return true;
    CloseOwnHandle(*call.handle);
    *call.handle = nullptr;
    return false;
  }
  call.status = call.CallReal(call.attributes, call.asked);
  return true;
}

void AnswerFailure(PIO_STATUS_BLOCK io, NTSTATUS status) {
  if (!io) return;
  // Where the caller's block cannot be written, the status alone has to do.
  (void)platform::Guarded([&] {
    io->Status = status;
    io->Information = 0;
  });
}

}  // namespace

NTSTATUS CFileMgr::NtCreateFile(PHANDLE FileHandle, ACCESS_MASK DesiredAccess,
                                POBJECT_ATTRIBUTES ObjectAttributes, PIO_STATUS_BLOCK IoStatusBlock,
                                PLARGE_INTEGER AllocationSize, ULONG FileAttributes, ULONG ShareAccess,
                                ULONG CreateDisposition, ULONG CreateOptions, PVOID EaBuffer, ULONG EaLength,
                                bool*) {
  const OpenArguments asked{DesiredAccess, CreateDisposition, CreateOptions};
  OpenCall call{FileHandle,  ObjectAttributes, IoStatusBlock, AllocationSize, FileAttributes,
                ShareAccess, EaBuffer,         EaLength,      asked,          asked};

  if (IsFileCreateCheckOff()) {
    const NTSTATUS status = call.CallReal(ObjectAttributes, asked);
    if (!nt::Success(status)) LogUnchecked(status, asked, ShareAccess, ObjectAttributes);
    return status;
  }
  ThreadState* state = GetThreadState();
  if (!state || state->bInCreateFile || state->bOwnCall || !ObjectAttributes)
    return call.CallReal(ObjectAttributes, asked);
  const platform::LastErrorKeeper last_error;
  if (state->bInLoader && PassesInLoader(call)) return call.status;

  const HookDepthGuard handler(state);
  const ScratchLevel level(state);
  state->bInCreateFile = 1;
  if (!GuardedHandler(state, &call.status, [&] { Confine(call); })) call.step = kStepException;

  // A creation that was turned into an opening finds nothing to open.
  if (call.status == STATUS_OBJECT_NAME_NOT_FOUND && call.given.disposition == FILE_OPEN &&
      (asked.disposition == FILE_CREATE ||
       (asked.disposition == FILE_OPEN_IF && call.Has(SectionOption::kHandleDecides)))) {
    call.status = STATUS_ACCESS_DENIED;
    call.audit = AuditType::kCreate;
  }
  if (nt::Success(call.status) && call.step == kStepOpened && GetSection().Has(SectionOption::kAuditAllowed))
    call.audit = AuditType::kCreate;
  if (call.audit != AuditType{}) SendFileAudit(call.audit, call.status, {call.decision.file, call.path});
  if (!nt::Success(call.status)) AnswerFailure(IoStatusBlock, call.status);
  LogOutcome(call);
  return call.status;
}

NTSTATUS CFileMgr::NtOpenFile(PHANDLE FileHandle, ACCESS_MASK DesiredAccess,
                              POBJECT_ATTRIBUTES ObjectAttributes, PIO_STATUS_BLOCK IoStatusBlock,
                              ULONG ShareAccess, ULONG OpenOptions, bool* bPassOn) {
  const HookDepthGuard handler;
  return NtCreateFile(FileHandle, DesiredAccess, ObjectAttributes, IoStatusBlock, nullptr, 0, ShareAccess,
                      FILE_OPEN, OpenOptions, nullptr, 0, bPassOn);
}

// Runs guarded: no object here or below may rely on its destructor.
void CFileMgr::Confine(OpenCall& call) noexcept {
  const std::uint64_t start = GetPreciseTimeMicros();
  if (NamesDevice(call.attributes->ObjectName)) return call.PassAsAsked(kStepDeviceName);
  ULONG options = call.asked.options;
  std::wstring_view path;
  if (!nt::Success(GetCanonicalPath(&options, call.attributes, &path)) || path.empty())
    return call.PassAsAsked(kStepNoPath);
  call.path = path;
  const std::uint64_t path_time = GetPreciseTimeMicros() - start;

  call.given.options = options & ~FILE_OPEN_FOR_BACKUP_INTENT;
  if (ClassifyDevicePath(U16(path)) != DeviceKind::kNone) return call.CallOnPath(kStepDevicePath);
  const ScratchLevel level(GetThreadState());  // of the final path
  if (call.Has(SectionOption::kOneAccessPerPlace) && vorn::policy::IsVolumeOrDisk(U16(path))) {
    call.decision = model_.DecideByName(path);
    return OpensData(call) ? ApplyDecision(call) : call.CallOnPath(kStepUnconfined);
  }
  if (MayOpenFirst(call) && OpenFirst(call)) return;
  FileACLModel::Question question;
  if (call.Has(SectionOption::kHandleDecides))
    question = {.itself = (call.asked.options & FILE_OPEN_REPARSE_POINT) != 0, .names = call.NamesMatter()};
  FileACLModel::Place place;
  call.decision = model_.DecideFinal(path, question, &place);
  call.final = place.path;
  call.was_missing = !place.exists;
  const std::uint64_t now = GetPreciseTimeMicros();
  OfferSample(path_time, now - start - path_time, now, call);
  ApplyDecision(call);
}

void CFileMgr::ApplyDecision(OpenCall& call) noexcept {
  switch (call.decision.file.access) {
    case FileACL::kUnknown:
      return call.CallOnPath(kStepUnconfined);
    case FileACL::kDeny:
      return call.Refuse(kStepDenied, AuditType::kCreate);
    case FileACL::kRead:
    case FileACL::kReadWrite:
      if (!Narrow(call)) return;
      const bool writable = call.decision.file.access == FileACL::kReadWrite;
      // What is deleted while the loader works cannot be moved to the bin: it is deleted as asked.
      if (writable && GetThreadState()->bInLoader && !CanKeep(call.path)) return call.CallOnPath(kStepOpened);
      return OpenRecorded(call);
  }
}

// Takes from the call what the decision, reading or writing, does not allow. False when it is refused.
bool CFileMgr::Narrow(OpenCall& call) noexcept {
  if (call.decision.file.access == FileACL::kReadWrite) {
    if (call.decision.in_recycle_bin) call.given.Remove(DELETE);
    if (!call.DeletesOnClose()) return true;
    const FileVerdict held =
        vorn::policy::HeldByRule(GetSection(), U16(call.final.empty() ? call.path : call.final));
    if (held.access == FileACL::kReadWrite) return true;
    call.decision.file = held;
    call.Refuse(kStepDeleteRefused, AuditType::kDelete);
    return false;
  }
  if (call.DeletesOnClose() && call.decision.named.access != FileACL::kReadWrite) {
    call.Refuse(kStepDeleteRefused, AuditType::kDelete);
    return false;
  }
  if (call.Has(SectionOption::kProtectionIsAWrite)) {
    if (call.given.access & kProtectionRights) {
      call.Refuse(kStepProtectRefused, AuditType::kWrite);
      return false;
    }
    call.given.Remove(ACCESS_SYSTEM_SECURITY);
  }
  call.given.Remove(kWriteRights);
  if (call.Creates()) call.given.disposition = FILE_OPEN;
  if (call.given.disposition == FILE_OPEN) return true;
  call.Refuse(kStepReplaceRefused, AuditType::kCreate);
  return false;
}

void CFileMgr::OpenRecorded(OpenCall& call) noexcept {
  // What the close will do is not left to the system; without the right to delete, the system refuses it.
  const bool ours = call.DeletesOnClose() ? !CanKeep(call.path) : !call.Has(SectionOption::kHandleDecides);
  if (ours) call.given.options &= ~FILE_DELETE_ON_CLOSE;
  const auto kept = call.DeletesOnClose() && !ours ? KeepBeforeOpening(call) : std::nullopt;
  call.CallOnPath(kStepOpened);
  if (!nt::Success(call.status) || !call.handle || !LandedAsDecided(call))
    return TakeBackKept(call.path, kept.value_or(0));
  if (kept == 0u) SendFileAudit(AuditType::kDelete, STATUS_SUCCESS, {call.decision.named, call.path});
  Record(call, kept.value_or(0));
}

// A missing file may be created elsewhere, through a dangling link. It is removed again when the rules do not
// allow it there.
bool CFileMgr::LandedAsDecided(OpenCall& call) noexcept {
  if (!call.Has(SectionOption::kHandleDecides) || !call.was_missing || call.given.disposition == FILE_OPEN)
    return true;
  const ScratchLevel level(GetThreadState());
  const std::wstring_view landed = FinalPathOf(*call.handle);
  if (vorn::policy::EqualsNoCase(U16(landed), U16(call.final))) return true;
  if (landed.empty())
    call.decision = {};
  else
    call.decision = model_.DecideByName(landed);
  if (call.decision.file.access == FileACL::kReadWrite && !call.decision.in_recycle_bin) return true;
  const bool told = !landed.empty() && IsPathOf(*call.handle, landed);
  call.CloseReal();
  if (told) RemoveFile(landed);
  call.Refuse(kStepReplaceRefused, AuditType::kCreate);
  return false;
}

void CFileMgr::Record(const OpenCall& call, std::uint32_t kept) noexcept {
  HANDLE handle = *call.handle;
  if (!handle || handle == INVALID_HANDLE_VALUE) return;
  const bool deletes = call.DeletesOnClose();
  const bool for_real = CanKeep(call.path);
  HandleFacts facts{.handle = handle,
                    .delete_flags = deletes && !for_real ? kDeleteOnClose : 0,
                    .file = call.decision.file,
                    .named = call.decision.named,
                    .desired_access = call.given.access,
                    .kept = kept,
                    .at_final_path = vorn::policy::EqualsNoCase(U16(call.path), U16(call.final))};
  // A file that the system has just made holds nothing that was there before.
  const bool created = call.io->Information == FILE_CREATED;
  if (for_real && created && facts.named.access == FileACL::kReadWrite) created_.Remember(handle, call.path);
  model_.handles().AddNew(MakeHandleRecord(facts, call.path));
}

}  // namespace VornCore
