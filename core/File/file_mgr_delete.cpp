// Deletions and replacements that are the system's own: judged, kept by a second name, then done for real.
#include "File/file_audit.h"
#include "File/file_change.h"
#include "File/file_helper.h"
#include "File/file_link_helper.h"
#include "File/file_mgr.h"
#include "File/kept_files.h"
#include "Platform/last_error.h"
#include "Platform/native.h"
#include "Policy/device_path.h"
#include "Policy/text.h"
#include "Policy/wide.h"
#include "VornCore/Base/shared_data.h"
#include "VornCore/Hook/own_handle.h"

namespace VornCore {
namespace {

using vorn::policy::ClassifyDevicePath;
using vorn::policy::DeviceKind;
using vorn::policy::EqualsNoCase;
using vorn::policy::U16;

// Whether file is a folder, and one that holds files itself.
struct Kind {
  bool folder = false;
  bool link = false;
};

Kind KindOf(HANDLE file) {
  FILE_ATTRIBUTE_TAG_INFO info = {};
  (void)platform::Native().GetFileInformationByHandleEx(file, FileAttributeTagInfo, &info, sizeof info);
  return {(info.FileAttributes & FILE_ATTRIBUTE_DIRECTORY) != 0,
          (info.FileAttributes & FILE_ATTRIBUTE_REPARSE_POINT) != 0};
}

NTSTATUS CallOff(HANDLE file) {
  IO_STATUS_BLOCK io;
  BOOLEAN remove = FALSE;
  return Ntdll::CallOriginalNtSetInformationFile(
      file, &io, &remove, sizeof remove,
      static_cast<FILE_INFORMATION_CLASS>(nt::kFileDispositionInformation));
}

// Opened so that nobody notices.
OwnHandle OpenForKeeping(std::wstring_view path) {
  UNICODE_STRING name = nt::CountedString(path.data(), path.size() * sizeof(wchar_t));
  OBJECT_ATTRIBUTES attributes = nt::NamedObject(&name);
  IO_STATUS_BLOCK io;
  OwnHandle file;
  const auto open = [&](ACCESS_MASK access) {
    return nt::Success(Ntdll::CallOriginalNtCreateFile(
        file.put(), access | SYNCHRONIZE, &attributes, &io, nullptr, 0, nt::kShareAll, FILE_OPEN,
        FILE_OPEN_REPARSE_POINT | FILE_SYNCHRONOUS_IO_NONALERT, nullptr, 0));
  };
  // Some systems ask for the right to change attributes of whom gives a file one name more.
  if (!open(FILE_READ_ATTRIBUTES | FILE_WRITE_ATTRIBUTES)) (void)open(FILE_READ_ATTRIBUTES);
  return file;
}

}  // namespace

// A handle that came from elsewhere, duplicated or inherited, is judged by the name that the system knows,
// once. Null for what no rule is about.
HandleRecordPtr CFileMgr::RecordOf(HANDLE handle) noexcept {
  if (HandleRecordPtr record = model_.handles().Find(handle)) return record;
  std::wstring_view path;
  if (!nt::Success(GetPath(handle, nullptr, &path)) || path.empty() ||
      ClassifyDevicePath(U16(path)) != DeviceKind::kNone)
    return nullptr;
  ThreadState* state = GetThreadState();
  if (!state) return nullptr;
  const ScratchLevel level(state);
  const FileDecision decision = model_.DecideFileACL(path);
  if (decision.named.access == FileACL::kUnknown) return nullptr;
  model_.handles().Add(MakeHandleRecord(
      {.handle = handle, .file = decision.file, .named = decision.named, .desired_access = DELETE}, path));
  return model_.handles().Find(handle);
}

CFileMgr::Outcome CFileMgr::DeleteForReal(const SetFileCall& call) noexcept {
  ThreadState* state = GetThreadState();
  if (!state) return {};
  const ScratchLevel level(state);
  HandleRecords& handles = model_.handles();
  const DispositionRequest request = ReadDisposition(call);
  const HandleRecordPtr record = RecordOf(call.handle);
  if (!record) return {};
  if (!request.remove) {
    const NTSTATUS status = call.Real();
    if (nt::Success(status)) {
      handles.SetDeleteDisposition(call.handle, false, request.on_close);
      if (record->kept) handles.SetKept(call.handle, record->kept, true);
    }
    return {true, false, status};
  }
  if (record->named.access != FileACL::kReadWrite) {
    SendFileAudit(AuditType::kDelete, STATUS_ACCESS_DENIED, {record->named, record->path});
    return {true, true, STATUS_ACCESS_DENIED};
  }
  // The system is asked first, so that nothing is made for a deletion that it refuses.
  NTSTATUS status = call.Real();
  if (!nt::Success(status)) return {true, false, status};
  if (record->kept) {
    handles.SetKept(call.handle, record->kept);
  } else if (!created_.Holds(call.handle, record->path)) {
    status = KeepPending(call, *record);
  }
  return {true, false, status};
}

// The deletion is granted: it is taken back for the moment in which the file gets its second name.
NTSTATUS CFileMgr::KeepPending(const SetFileCall& call, const FileHandleRecord& record) noexcept {
  HandleRecords& handles = model_.handles();
  if (!CanKeep(record.path)) {
    const NTSTATUS status = CallOff(call.handle);
    handles.SetDeleteDisposition(call.handle, nt::Success(status), false);
    return STATUS_SUCCESS;
  }
  const Kind kind = KindOf(call.handle);
  if (kind.folder) {
    if (!kind.link) handles.SetKept(call.handle, KeepFolder(record.path));
    return STATUS_SUCCESS;
  }
  (void)CallOff(call.handle);
  const std::uint32_t kept = KeepFile(call.handle, record.path);
  const NTSTATUS status = call.Real();
  if (!nt::Success(status))
    TakeBackKept(record.path, kept);
  else if (kept)
    handles.SetKept(call.handle, kept);
  else
    SendFileAudit(AuditType::kDelete, STATUS_SUCCESS, {record.named, record.path});
  return status;
}

CFileMgr::Outcome CFileMgr::RenameForReal(const SetFileCall& call) noexcept {
  ThreadState* state = GetThreadState();
  if (call.length < sizeof(nt::RenameInformation) || !state) return {};
  const ScratchLevel outer(state);
  Renaming renaming{.record = RecordOf(call.handle)};
  const ScratchLevel level(state);
  if (const Outcome outcome = JudgeRename(call, renaming); outcome.decided || renaming.target.empty())
    return outcome;
  const std::uint32_t kept = renaming.replace ? KeepReplaced(call.handle, renaming) : 0;
  renaming.existing.reset();
  const NTSTATUS status = call.Real();
  if (!nt::Success(status)) {
    TakeBackKept(renaming.target, kept);
  } else {
    if (kept) SendFileAudit(AuditType::kDeleteToRecycle, STATUS_SUCCESS, {renaming.named, renaming.target});
    if (call.Renames()) FollowRename(call.handle, renaming);
  }
  return {true, false, status};
}

// What lies at the target stays open until it has been kept. Its other names do not matter: it loses this
// one.
FileDecision CFileMgr::DecideTarget(Renaming& renaming) noexcept {
  const ScratchLevel level(GetThreadState());
  std::wstring_view final;
  FileDecision decision;
  renaming.existing = OpenForKeeping(renaming.target);
  if (renaming.existing) final = FinalPathOf(renaming.existing.get());
  if (!final.empty())
    decision = model_.DecideByName(final);
  else
    decision = model_.DecideFinal(renaming.target, {.itself = true, .names = false}, &final);
  renaming.at_final_path = EqualsNoCase(U16(final), U16(renaming.target));
  return decision;
}

// A file of this process's own holds nothing that was there before. Files of two volumes may have one id: the
// system refuses such a rename.
std::uint32_t CFileMgr::KeepReplaced(HANDLE handle, const Renaming& renaming) noexcept {
  HANDLE file = renaming.existing.get();
  if (!file || created_.Holds(file, renaming.target)) return 0;
  const std::uint64_t id = FileIdOf(file);
  return id && id == FileIdOf(handle) ? 0 : KeepFile(file, renaming.target);
}

void CFileMgr::FollowRename(HANDLE handle, const Renaming& renaming) noexcept {
  const HandleRecordPtr record = model_.handles().Take(handle);
  if (!record) return;
  created_.Rename(handle, record->path, renaming.target);
  HandleFacts facts = *record;
  facts.file = renaming.file;
  facts.named = renaming.named;
  facts.at_final_path = renaming.at_final_path;
  model_.handles().Add(MakeHandleRecord(facts, renaming.target));
}

// What an opening leaves to be kept: the number of the file, 0 for none. The handle goes by what the system
// did: a file that it has just made holds nothing that was there before.
std::uint32_t CFileMgr::KeepOpened(HANDLE handle, const OpenedFile& opened) noexcept {
  if (opened.created) created_.Remember(handle, opened.path);
  if (opened.created || !opened.delete_on_close || created_.Holds(handle, opened.path) ||
      KindOf(handle).folder)
    return 0;
  const std::uint32_t kept = KeepFile(handle, opened.path);
  if (!kept) SendFileAudit(AuditType::kDelete, STATUS_SUCCESS, {opened.named, opened.path});
  return kept;
}

void CFileMgr::ReportKept(const FileHandleRecord& record) noexcept {
  const platform::LastErrorKeeper last_error;
  if (record.kept_called_off && FileExists(record.path))
    TakeBackKept(record.path, record.kept);
  else
    SendFileAudit(AuditType::kDeleteToRecycle, STATUS_SUCCESS, {record.named, record.path});
}

}  // namespace VornCore
