// Renaming, deleting, writing, closing, moving: guard, judge by the handle's record, real call, audit.
#include "File/file_audit.h"
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
using vorn::policy::U16;

bool IsRealHandle(HANDLE handle) { return handle && handle != INVALID_HANDLE_VALUE; }

NTSTATUS Answer(PIO_STATUS_BLOCK io, NTSTATUS status) {
  if (io) {
    io->Status = status;
    io->Information = 0;
  }
  return status;
}

bool IsLink(ULONG info_class) {
  return info_class == nt::kFileLinkInformation || info_class == nt::kFileLinkInformationEx;
}
bool IsRename(ULONG info_class) {
  return info_class == nt::kFileRenameInformation || info_class == nt::kFileRenameInformationEx;
}

// Whether a disposition asks for deletion. Reads the caller's buffer.
bool AsksToDelete(const void* information, ULONG length, bool extended) {
  if (!extended) return length >= sizeof(BOOLEAN) && *static_cast<const BOOLEAN*>(information);
  return length >= sizeof(ULONG) && (static_cast<const nt::DispositionInformationEx*>(information)->Flags &
                                     (nt::kDispositionDelete | nt::kDispositionOnClose));
}

// What a rename or a new hard link asks for, read from the caller's buffer.
struct RenameRequest {
  HANDLE root;
  ULONG name_bytes;
  const wchar_t* name;
  bool replace;
};

RenameRequest ReadRename(const nt::RenameInformation* information, ULONG length, ULONG info_class) {
  constexpr ULONG kHead = offsetof(nt::RenameInformation, FileName);
  const bool extended =
      info_class == nt::kFileRenameInformationEx || info_class == nt::kFileLinkInformationEx;
  RenameRequest request{
      information->RootDirectory, information->FileNameLength, information->FileName,
      extended ? (information->Flags & nt::kRenameReplaceIfExists) != 0 : information->ReplaceIfExists != 0};
  // A name that leaves the buffer is no name; the real call refuses it.
  if (request.name_bytes > length - kHead) request.name_bytes = 0;
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

}  // namespace

NTSTATUS CFileMgr::NtSetInformationFile(HANDLE FileHandle, PIO_STATUS_BLOCK IoStatusBlock,
                                        PVOID FileInformation, ULONG Length,
                                        FILE_INFORMATION_CLASS FileInformationClass, bool*) {
  const platform::LastErrorKeeper last_error;
  const HookDepthGuard handler;
  ThreadState* state = handler.state();
  const ULONG info_class = FileInformationClass;
  NTSTATUS status = STATUS_ACCESS_DENIED;

  (void)GuardedHandler(state, &status, [&] {
    Outcome outcome;
    void* information = FileInformation;
    DispositionBuffer substitute = {};
    if (FileInformation) {
      if (info_class == nt::kFileDispositionInformation || info_class == nt::kFileDispositionInformationEx) {
        const bool extended = info_class == nt::kFileDispositionInformationEx;
        if (AsksToDelete(FileInformation, Length, extended))
          outcome = HoldPlace(AuditType::kDelete, FileHandle);
        if (!outcome.decided)
          information = HandleDisposition(FileHandle, FileInformation, Length, extended, &substitute);
      } else if (info_class == nt::kFileBasicInformation) {
        outcome = HandleBasicInformation(FileHandle);
      } else if ((IsRename(info_class) || IsLink(info_class)) && !(state && state->bOwnCall)) {
        outcome = HandleRename(FileHandle, FileInformation, Length, info_class);
      }
    }
    if (outcome.decided) {
      status = Answer(IoStatusBlock, outcome.status);
      return;
    }
    status = Ntdll::CallOriginalNtSetInformationFile(
        FileHandle, IoStatusBlock, information,
        information == &substitute ? static_cast<ULONG>(sizeof substitute) : Length, FileInformationClass);
    const NTSTATUS answer = HandleSetInformationFailure(status, FileHandle, info_class);
    if (answer != status) status = Answer(IoStatusBlock, answer);
  });
  return status;
}

// A folder that has a stricter rule below it stays where it is: under another name, or made anew, it would be
// without that rule.
CFileMgr::Outcome CFileMgr::HoldPlace(AuditType type, HANDLE handle, std::wstring_view target) noexcept {
  ThreadState* state = GetThreadState();
  if (!state || state->bOwnCall) return {};
  const FileVerdict held = model_.HeldByRule(handle);
  if (held.access == FileACL::kReadWrite) return {};
  const ScratchLevel level(state);
  std::wstring_view path;
  (void)GetPath(handle, nullptr, &path);
  SendFileAudit(type, STATUS_ACCESS_DENIED, {held, path}, {{}, target});
  return {true, STATUS_ACCESS_DENIED};
}

// Not every system asks for the right to write attributes when they are written.
CFileMgr::Outcome CFileMgr::HandleBasicInformation(HANDLE handle) noexcept {
  if (!GetSection().Has(vorn::policy::SectionOption::kProtectionIsAWrite)) return {};
  const HandleRecordPtr record = model_.handles().Find(handle);
  if (!record || record->file.access != FileACL::kRead || (record->desired_access & FILE_WRITE_ATTRIBUTES))
    return {};
  SendFileAudit(AuditType::kWrite, STATUS_ACCESS_DENIED, {record->file, record->path});
  return {true, HandleSetInformationFailure(STATUS_ACCESS_DENIED, handle, nt::kFileBasicInformation)};
}

// A delete request on a recorded handle is remembered, and the real call that follows asks the system to
// delete nothing. Returns what that call is given: the caller's buffer, with the request taken out of it, or
// substitute where that buffer cannot be written.
void* CFileMgr::HandleDisposition(HANDLE handle, void* information, ULONG length, bool extended,
                                  DispositionBuffer* substitute) noexcept {
  constexpr ULONG kRequests = nt::kDispositionDelete | nt::kDispositionOnClose;
  const ULONG needed = extended ? sizeof substitute->flags : sizeof substitute->delete_file;
  if (!model_.handles().Has(handle)) return information;
  bool remove = false, on_close = false;
  if (length < needed) {
    // The real call refuses it; it still counts as a request to keep the file.
  } else if (extended) {
    const ULONG flags = static_cast<nt::DispositionInformationEx*>(information)->Flags;
    remove = flags & nt::kDispositionDelete;
    on_close = (flags & nt::kDispositionOnClose) && !remove;
    substitute->flags = flags & ~kRequests;
  } else {
    remove = *static_cast<BOOLEAN*>(information);
    substitute->delete_file = FALSE;
  }
  if (IsRealHandle(handle)) model_.handles().SetDeleteDisposition(handle, remove, on_close);
  if (!remove && !on_close) return information;
  const bool cleared = platform::Guarded([&] { memcpy(information, substitute, needed); });
  return cleared ? information : substitute;
}

// A rename gives a file another name, a hard link one name more: both are judged by the place of that name. A
// link leaves its file alone, which stays as protected under the new name as it was.
CFileMgr::Outcome CFileMgr::HandleRename(HANDLE handle, const void* information, ULONG length,
                                         ULONG info_class) noexcept {
  constexpr Outcome kRealCall{};
  constexpr Outcome kRefused{true, STATUS_ACCESS_DENIED};
  ThreadState* state = GetThreadState();
  if (length < sizeof(nt::RenameInformation) || !state) return kRealCall;
  const ScratchLevel level(state);
  const RenameRequest request =
      ReadRename(static_cast<const nt::RenameInformation*>(information), length, info_class);
  const std::wstring_view target = GetRenameTargetPath(handle, request);
  const HandleRecordPtr record = model_.handles().Find(handle);
  const std::wstring_view source = record ? record->path : std::wstring_view();
  const FileVerdict source_verdict = record ? record->named : FileVerdict();

  if (record && source_verdict.access != FileACL::kReadWrite && !IsLink(info_class)) {
    SendFileAudit(AuditType::kRename, STATUS_ACCESS_DENIED, {source_verdict, source}, {{}, target});
    return kRefused;
  }
  if (!IsLink(info_class))
    if (const Outcome held = HoldPlace(AuditType::kRename, handle, target); held.decided) return held;
  if (target.empty()) {
    VORN_LOG_E("GetRenameTargetPath error, path:%s", OrNil(WideToAnsi(source.data())));
    return kRealCall;
  }
  const FileDecision decision = model_.DecideFileACL(target);
  if (decision.in_recycle_bin) return kRealCall;
  if (decision.named.access != FileACL::kReadWrite) {
    if (IsLink(info_class))
      SendFileAudit(AuditType::kCreate, STATUS_ACCESS_DENIED, {decision.named, target});
    else
      SendFileAudit(AuditType::kRename, STATUS_ACCESS_DENIED, {source_verdict, source},
                    {decision.named, target});
    return kRefused;
  }
  // What the rename would replace can be restored afterwards. A file that only gets another spelling of its
  // own name replaces nothing.
  const bool replaces = request.replace && !EqualsNoCase(U16(source), U16(target)) && FileExists(target);
  if (replaces) (void)DeleteFileToRecycleBin(target, decision.named);
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

// The lock is held from taking the record to the real close, so that a value which another thread gets again
// meets no old record; the deferred deletion runs after it.
NTSTATUS CFileMgr::CloseFileHandle(HANDLE handle) noexcept {
  FileHandleRecord* taken = nullptr;
  NTSTATUS status = STATUS_INVALID_HANDLE;
  close_lock_.Enter();
  platform::WithFinally(
      [&] {
        if (IsRealHandle(handle)) taken = model_.handles().Take(handle).release();
        status = Ntdll::CallOriginalNtClose(handle);
      },
      [&] {
        // A close that fails, or raises, leaves the handle open.
        if (taken && !nt::Success(status)) {
          model_.handles().Add(HandleRecordPtr(taken));
          taken = nullptr;
        }
        close_lock_.Leave();
      });
  const HandleRecordPtr record(taken);
  return record && record->delete_flags ? DeleteFileToRecycleBin(record->path, record->named) : status;
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
    if (const HandleRecordPtr record = model_.handles().Find(FileHandle))
      SendFileAudit(AuditType::kWrite, status, {record->file, record->path});
  }
  return status;
}

BOOL CFileMgr::MoveFileWithProgressTransactedW(LPCWSTR lpExistingFileName, LPCWSTR lpNewFileName,
                                               LPPROGRESS_ROUTINE lpProgressRoutine, LPVOID lpData,
                                               DWORD dwFlags, HANDLE hTransaction, bool*) {
  // Neither a move at the next start nor a second name of the file would pass the handlers above.
  const DWORD flags =
      (dwFlags & ~(MOVEFILE_DELAY_UNTIL_REBOOT | MOVEFILE_CREATE_HARDLINK)) | MOVEFILE_COPY_ALLOWED;
  const HookDepthGuard handler;
  // The program's progress routine may leave with an exception.
  return handler.Real([&] {
    return KernelBase::CallOriginalMoveFileWithProgressTransactedW(
        lpExistingFileName, lpNewFileName, lpProgressRoutine, lpData, flags, hTransaction);
  });
}

}  // namespace VornCore
