// Renaming, deleting, writing, closing, moving: guard, judge by the handle's record, real call, audit.
#include <utility>

#include "File/file_audit.h"
#include "File/file_change.h"
#include "File/file_helper.h"
#include "File/file_mgr.h"
#include "File/recycle_bin.h"
#include "File/scratch_path.h"
#include "Platform/last_error.h"
#include "Policy/device_path.h"
#include "Policy/text.h"
#include "Policy/wide.h"
#include "VornCore/Base/hook_depth_guard.h"
#include "VornCore/Base/log.h"
#include "VornCore/Base/shared_data.h"
#include "VornCore/Base/strings.h"

namespace VornCore {
namespace {

using vorn::policy::EqualsNoCase;
using vorn::policy::SectionOption;
using vorn::policy::U16;

bool IsRealHandle(HANDLE handle) { return handle && handle != INVALID_HANDLE_VALUE; }

NTSTATUS Answer(PIO_STATUS_BLOCK io, NTSTATUS status) {
  if (io) {
    io->Status = status;
    io->Information = 0;
  }
  return status;
}

// What a rename or a new hard link asks for, read from the caller's buffer.
struct RenameRequest {
  HANDLE root;
  ULONG name_bytes;
  const wchar_t* name;
  bool replace;
};

RenameRequest ReadRename(const SetFileCall& call) {
  constexpr ULONG kHead = offsetof(nt::RenameInformation, FileName);
  const auto* information = static_cast<const nt::RenameInformation*>(call.information);
  const bool extended =
      call.info_class == nt::kFileRenameInformationEx || call.info_class == nt::kFileLinkInformationEx;
  RenameRequest request{
      information->RootDirectory, information->FileNameLength, information->FileName,
      extended ? (information->Flags & nt::kRenameReplaceIfExists) != 0 : information->ReplaceIfExists != 0};
  // A name that leaves the buffer is no name; the real call refuses it.
  if (request.name_bytes > call.length - kHead) request.name_bytes = 0;
  return request;
}

// A bare name leaves the file in its folder: that folder and name, in scratch slot 2. Empty when the folder
// cannot be told.
std::wstring_view InFolderOf(HANDLE file, std::wstring_view name) {
  std::wstring_view path;
  if (!nt::Success(GetPath(file, nullptr, &path))) return {};
  const std::size_t last = vorn::policy::FindLastComponent(U16(path));
  if (last == vorn::policy::kNotFound) return {};
  wchar_t* joined = ScratchPath(2, last + name.size());
  return joined ? TerminatedCopy(joined, path.substr(0, last), name) : std::wstring_view();
}

// Where a rename of file leads: canonical, in scratch slot 0. Empty when that cannot be told, and for another
// name of a stream, which stays in its file.
std::wstring_view GetRenameTargetPath(HANDLE file, const RenameRequest& request) {
  if (request.name_bytes < sizeof(wchar_t) || request.name[0] == 0) return {};
  UNICODE_STRING name;
  name.Length = static_cast<USHORT>(request.name_bytes);
  name.MaximumLength = name.Length;
  name.Buffer = const_cast<wchar_t*>(request.name);
  if (!request.root && request.name[0] != L'\\' && request.name[0] != L':') {
    const std::wstring_view joined = InFolderOf(file, {name.Buffer, name.Length / sizeof(wchar_t)});
    if (joined.empty()) return {};
    name = nt::CountedString(joined.data(), joined.size() * sizeof(wchar_t));
  }
  std::wstring_view path;
  return nt::Success(GetPath(request.root, &name, &path)) ? path : std::wstring_view();
}

// What a handle needs for this information to be set; 0 where the system's own answer does.
ACCESS_MASK RightToSet(ULONG info_class) {
  switch (info_class) {
    case nt::kFileBasicInformation:
      return GetSection().Has(SectionOption::kProtectionIsAWrite) ? FILE_WRITE_ATTRIBUTES : 0;
    case nt::kFileAllocationInformation:
    case nt::kFileEndOfFileInformation:
      return FILE_WRITE_DATA;
    default:
      return 0;
  }
}

}  // namespace

DispositionRequest ReadDisposition(const SetFileCall& call) {
  if (call.info_class == nt::kFileDispositionInformation)
    return {.remove = call.length >= sizeof(BOOLEAN) && *static_cast<const BOOLEAN*>(call.information)};
  if (call.length < sizeof(nt::DispositionInformationEx)) return {};
  const ULONG flags = static_cast<const nt::DispositionInformationEx*>(call.information)->Flags;
  const bool remove = flags & nt::kDispositionDelete;
  return {.remove = remove, .on_close = (flags & nt::kDispositionOnClose) && !remove};
}

NTSTATUS CFileMgr::NtSetInformationFile(HANDLE FileHandle, PIO_STATUS_BLOCK IoStatusBlock,
                                        PVOID FileInformation, ULONG Length,
                                        FILE_INFORMATION_CLASS FileInformationClass, bool*) {
  const platform::LastErrorKeeper last_error;
  const HookDepthGuard handler;
  ThreadState* state = handler.state();
  const ULONG info_class = FileInformationClass;
  NTSTATUS status = STATUS_ACCESS_DENIED;

  (void)GuardedHandler(state, &status, [&] {
    SetFileCall call{FileHandle, IoStatusBlock, FileInformation, Length, info_class};
    const bool for_real = GetSection().Has(SectionOption::kKeepByLink);
    const bool own = state && state->bOwnCall;
    Outcome outcome;
    DispositionBuffer substitute = {};
    if (FileInformation && call.Deletes()) {
      if (ReadDisposition(call).remove) outcome = HoldPlace(AuditType::kDelete, FileHandle);
      if (!outcome.decided && for_real && !own) outcome = DeleteForReal(call);
      if (!outcome.decided) call.information = HandleDisposition(call, &substitute);
    } else if (const ACCESS_MASK right = RightToSet(info_class); FileInformation && right) {
      outcome = RefuseWithout(right, call);
    } else if (FileInformation && (call.Renames() || call.Links()) && !own) {
      outcome = for_real ? RenameForReal(call) : HandleRename(call);
    }
    if (outcome.decided) {
      status = outcome.status;
      if (outcome.refused) (void)Answer(IoStatusBlock, status);
      return;
    }
    if (call.information == &substitute) call.length = sizeof substitute;
    status = call.Real();
    const NTSTATUS answer = HandleSetInformationFailure(status, FileHandle, info_class);
    if (answer != status) status = Answer(IoStatusBlock, answer);
  });
  return status;
}

// A folder that has a stricter rule below it stays where it is: under another name, or made anew, it would be
// without that rule.
CFileMgr::Outcome CFileMgr::HoldPlace(AuditType type, HANDLE handle, std::wstring_view target) noexcept {
  ThreadState* state = GetThreadState();
  if (!state || state->bOwnCall || !GetSection().Has(SectionOption::kRulesHoldPlaces)) return {};
  const ScratchLevel level(state);
  const HandleRecordPtr record = model_.handles().Find(handle);
  std::wstring_view path;
  if (record && record->at_final_path)
    path = record->path;
  else if (!nt::Success(GetPath(handle, nullptr, &path)))
    return {};
  const FileVerdict held = vorn::policy::HeldByRule(GetSection(), U16(path));
  if (held.access == FileACL::kReadWrite) return {};
  SendFileAudit(type, STATUS_ACCESS_DENIED, {held, path}, {{}, target});
  return {true, true, STATUS_ACCESS_DENIED};
}

// Not every system checks whether the handle has that right, or answers that it is missing.
CFileMgr::Outcome CFileMgr::RefuseWithout(ACCESS_MASK right, const SetFileCall& call) noexcept {
  if (!model_.handles().ReadsWithout(right, call.handle)) return {};
  const HandleRecordPtr record = model_.handles().Find(call.handle);
  if (!record) return {};
  // A failure of the other kinds reports itself.
  if (call.info_class == nt::kFileBasicInformation || record->named.access == FileACL::kReadWrite)
    SendFileAudit(AuditType::kWrite, STATUS_ACCESS_DENIED, {record->file, record->path});
  return {true, true, HandleSetInformationFailure(STATUS_ACCESS_DENIED, call.handle, call.info_class)};
}

// A delete request on a recorded handle is remembered, and the real call that follows asks the system to
// delete nothing. Returns what that call is given: the caller's buffer, with the request taken out of it, or
// substitute where that buffer cannot be written.
void* CFileMgr::HandleDisposition(const SetFileCall& call, DispositionBuffer* substitute) noexcept {
  constexpr ULONG kRequests = nt::kDispositionDelete | nt::kDispositionOnClose;
  const bool extended = call.info_class == nt::kFileDispositionInformationEx;
  if (!model_.handles().Has(call.handle)) return call.information;
  const DispositionRequest request = ReadDisposition(call);
  if (IsRealHandle(call.handle))
    model_.handles().SetDeleteDisposition(call.handle, request.remove, request.on_close);
  if (!request.remove && !request.on_close) return call.information;
  if (extended)
    substitute->flags = static_cast<nt::DispositionInformationEx*>(call.information)->Flags & ~kRequests;
  const ULONG bytes = extended ? sizeof substitute->flags : sizeof substitute->delete_file;
  const bool cleared = platform::Guarded([&] { memcpy(call.information, substitute, bytes); });
  return cleared ? call.information : substitute;
}

CFileMgr::Outcome CFileMgr::HandleRename(const SetFileCall& call) noexcept {
  ThreadState* state = GetThreadState();
  if (call.length < sizeof(nt::RenameInformation) || !state) return {};
  const ScratchLevel level(state);
  Renaming renaming;
  const Outcome outcome = JudgeRename(call, renaming);
  // What the rename would replace can be restored afterwards. A file that only gets another spelling of its
  // own name replaces nothing.
  const std::wstring_view source = renaming.record ? renaming.record->path : std::wstring_view();
  if (renaming.replace && !EqualsNoCase(U16(source), U16(renaming.target)) && FileExists(renaming.target))
    (void)DeleteFileToRecycleBin(renaming.target, renaming.named);
  return outcome;
}

// A rename gives a file another name, a hard link one name more: both are judged by the place of that name. A
// link leaves its file alone, which stays as protected under the new name as it was. replace is set only
// where the rename may replace a file.
CFileMgr::Outcome CFileMgr::JudgeRename(const SetFileCall& call, Renaming& renaming) noexcept {
  constexpr Outcome kRealCall{};
  constexpr Outcome kRefused{true, true, STATUS_ACCESS_DENIED};
  const RenameRequest request = ReadRename(call);
  renaming.target = GetRenameTargetPath(call.handle, request);
  if (!renaming.record) renaming.record = model_.handles().Find(call.handle);
  const std::wstring_view source = renaming.record ? renaming.record->path : std::wstring_view();
  const FileVerdict source_verdict = renaming.record ? renaming.record->named : FileVerdict();

  if (renaming.record && source_verdict.access != FileACL::kReadWrite && !call.Links()) {
    SendFileAudit(AuditType::kRename, STATUS_ACCESS_DENIED, {source_verdict, source}, {{}, renaming.target});
    return kRefused;
  }
  if (!call.Links())
    if (const Outcome held = HoldPlace(AuditType::kRename, call.handle, renaming.target); held.decided)
      return held;
  if (renaming.target.empty()) {
    VORN_LOG_E("GetRenameTargetPath error, path:%s", OrNil(WideToAnsi(source.data())));
    return kRealCall;
  }
  const FileDecision decision = GetSection().Has(SectionOption::kKeepByLink)
                                    ? DecideTarget(renaming)
                                    : model_.DecideFileACL(renaming.target);
  renaming.file = decision.file;
  renaming.named = decision.named;
  if (decision.in_recycle_bin) return kRealCall;
  // The folder does not exist, or no rule can tell: the system says so.
  if (decision.named.access == FileACL::kUnknown && GetSection().Has(SectionOption::kHandleDecides))
    return kRealCall;
  if (decision.named.access != FileACL::kReadWrite) {
    if (call.Links())
      SendFileAudit(AuditType::kCreate, STATUS_ACCESS_DENIED, {decision.named, renaming.target});
    else
      SendFileAudit(AuditType::kRename, STATUS_ACCESS_DENIED, {source_verdict, source},
                    {decision.named, renaming.target});
    return kRefused;
  }
  renaming.replace = request.replace;
  return kRealCall;
}

NTSTATUS CFileMgr::HandleSetInformationFailure(NTSTATUS status, HANDLE handle, ULONG info_class) noexcept {
  if (status != STATUS_ACCESS_DENIED) return status;
  const HandleRecordPtr record = model_.handles().Find(handle);
  if (!record || record->named.access == FileACL::kReadWrite) return status;
  // Programs that set the times of what they read do not expect that to fail.
  if (info_class == nt::kFileBasicInformation)
    status = STATUS_SUCCESS;
  else
    SendFileAudit(AuditType::kWrite, STATUS_ACCESS_DENIED, {record->named, record->path});
  if (IsDebugLogEnabled())
    VORN_LOG_I("SetInformationFile Error %d, Path:%s", static_cast<int>(info_class),
               OrNil(WideToAnsi(record->path.data())));
  return status;
}

NTSTATUS CFileMgr::NtDeleteFile(POBJECT_ATTRIBUTES ObjectAttributes, bool* bPassOn) {
  const HookDepthGuard handler;
  HANDLE file = nullptr;
  IO_STATUS_BLOCK io;
  const NTSTATUS status =
      NtCreateFile(&file, DELETE, ObjectAttributes, &io, nullptr, 0, nt::kShareAll, FILE_OPEN,
                   FILE_OPEN_REPARSE_POINT | FILE_DELETE_ON_CLOSE, nullptr, 0, bPassOn);
  return nt::Success(status) ? handler.Real([&] { return CloseFileHandle(file); }) : status;
}

NTSTATUS CFileMgr::NtClose(HANDLE Handle, bool*) {
  // A thread without a state keeps none: handles are closed after the library has seen the thread's end, too.
  const HookDepthGuard handler(HasThreadState() ? GetThreadState() : nullptr);
  return handler.Real([&] { return CloseFileHandle(Handle); });
}

// The record is taken before the real close, so that a value which another thread gets again meets no old
// record; what is still to be done about a deletion runs after it.
NTSTATUS CFileMgr::CloseFileHandle(HANDLE handle) noexcept {
  FileHandleRecord* taken = IsRealHandle(handle) ? model_.handles().Take(handle).release() : nullptr;
  NTSTATUS status = STATUS_INVALID_HANDLE;
  platform::WithFinally([&] { status = Ntdll::CallOriginalNtClose(handle); },
                        [&] {
                          // A close that fails, or raises, leaves the handle open.
                          if (!taken || nt::Success(status)) return;
                          model_.handles().Add(HandleRecordPtr(taken));
                          taken = nullptr;
                        });
  HandleRecordPtr record(taken);
  if (record && record->kept) ReportKept(*record);
  if (record && record->delete_flags) return DeleteFileToRecycleBin(record->path, record->named);
  Retire(std::move(record));
  return status;
}

NTSTATUS CFileMgr::DeleteFileToRecycleBin(std::wstring_view path, const FileVerdict& verdict) noexcept {
  if (verdict.access != FileACL::kReadWrite) {
    SendFileAudit(AuditType::kDelete, STATUS_ACCESS_DENIED, {verdict, path});
    return STATUS_ACCESS_DENIED;
  }
  ThreadState* state = GetThreadState();
  if (!state || state->bOwnCall) return STATUS_SUCCESS;
  const platform::LastErrorKeeper last_error;
  NTSTATUS status = STATUS_SUCCESS;
  {
    const OwnCallScope own(state);
    if (state->bInLoader)
      VORN_LOG_W("DeleteFileToRecycleBin In load dll path:%s", OrNil(WideToAnsi(path.data())));
    else
      status = MoveToRecycleBin(path);
  }
  if (!nt::Success(status)) {
    VORN_LOG_E("DeleteFileToRecycleBin status:%X, path:%s", static_cast<unsigned>(status),
               OrNil(WideToAnsi(path.data())));
    return STATUS_SUCCESS;
  }
  SendFileAudit(AuditType::kDeleteToRecycle, STATUS_SUCCESS, {verdict, path});
  return status;
}

NTSTATUS CFileMgr::NtWriteFile(HANDLE FileHandle, HANDLE Event, PIO_APC_ROUTINE ApcRoutine, PVOID ApcContext,
                               PIO_STATUS_BLOCK IoStatusBlock, PVOID Buffer, ULONG Length,
                               PLARGE_INTEGER ByteOffset, PULONG Key, bool*) {
  const auto write = [&] {
    return Ntdll::CallOriginalNtWriteFile(FileHandle, Event, ApcRoutine, ApcContext, IoStatusBlock, Buffer,
                                          Length, ByteOffset, Key);
  };
  const HookDepthGuard handler;
  ThreadState* state = handler.state();
  if (state && state->bInWriteFile) return handler.Real(write);
  if (state) state->bInWriteFile = 1;
  const NTSTATUS status = handler.Real(write);
  if (!nt::Success(status)) {
    const platform::LastErrorKeeper last_error;
    const HandleRecordPtr record = model_.handles().Find(FileHandle);
    const bool ours = record && status == STATUS_ACCESS_DENIED && record->file.access != FileACL::kReadWrite;
    if (record && (ours || !GetSection().Has(SectionOption::kHandleDecides)))
      SendFileAudit(AuditType::kWrite, status, {record->file, record->path});
  }
  return status;
}

BOOL CFileMgr::MoveFileWithProgressTransactedW(LPCWSTR lpExistingFileName, LPCWSTR lpNewFileName,
                                               LPPROGRESS_ROUTINE lpProgressRoutine, LPVOID lpData,
                                               DWORD dwFlags, HANDLE hTransaction, bool*) {
  // Neither a move at the next start nor a second name of the file would pass the handlers above. Where the
  // handle decides, the name does, and the move is refused.
  const bool handle_decides = GetSection().Has(SectionOption::kHandleDecides);
  const DWORD flags = handle_decides ? dwFlags
                                     : (dwFlags & ~(MOVEFILE_DELAY_UNTIL_REBOOT | MOVEFILE_CREATE_HARDLINK)) |
                                           MOVEFILE_COPY_ALLOWED;
  const HookDepthGuard handler;
  if (flags & MOVEFILE_DELAY_UNTIL_REBOOT) {
    const platform::HeapString from = DosPathToNtPath(lpExistingFileName),
                               to = DosPathToNtPath(lpNewFileName);
    const auto view = [](const platform::HeapString& path) {
      return path ? std::wstring_view(path.get()) : std::wstring_view();
    };
    SendFileAudit(lpNewFileName ? AuditType::kRename : AuditType::kDelete, STATUS_ACCESS_DENIED,
                  {{}, view(from)}, {{}, view(to)});
    SetLastError(ERROR_ACCESS_DENIED);
    return FALSE;
  }
  // The program's progress routine may leave with an exception.
  return handler.Real([&] {
    return KernelBase::CallOriginalMoveFileWithProgressTransactedW(
        lpExistingFileName, lpNewFileName, lpProgressRoutine, lpData, flags, hTransaction);
  });
}

}  // namespace VornCore
