// Deletions and replacements that are the system's own: judged, kept by a second name, then done for real.
#include "File/file_audit.h"
#include "File/file_change.h"
#include "File/file_helper.h"
#include "File/file_link_helper.h"
#include "File/file_mgr.h"
#include "File/kept_files.h"
#include "File/open_call.h"
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

// Opened so that nobody notices. *missing: there is no such file in its folder.
OwnHandle OpenForKeeping(std::wstring_view path, bool* missing) {
  UNICODE_STRING name = nt::CountedString(path.data(), path.size() * sizeof(wchar_t));
  OBJECT_ATTRIBUTES attributes = nt::NamedObject(&name);
  IO_STATUS_BLOCK io;
  OwnHandle file;
  const auto open = [&](ACCESS_MASK access) {
    return Ntdll::CallOriginalNtCreateFile(
        file.put(), access | SYNCHRONIZE, &attributes, &io, nullptr, 0, nt::kShareAll, FILE_OPEN,
        FILE_OPEN_REPARSE_POINT | FILE_SYNCHRONOUS_IO_NONALERT, nullptr, 0);
  };
  // Some systems ask for the right to change attributes of whom gives a file one name more.
  const NTSTATUS status = open(FILE_READ_ATTRIBUTES | FILE_WRITE_ATTRIBUTES);
  *missing = status == STATUS_OBJECT_NAME_NOT_FOUND;
  if (!nt::Success(status) && !*missing) (void)open(FILE_READ_ATTRIBUTES);
  return file;
}

bool InOneFolder(std::wstring_view path, std::wstring_view other) {
  const std::size_t end = path.rfind(L'\\') + 1;
  return other.rfind(L'\\') + 1 == end && EqualsNoCase(U16(path.substr(0, end)), U16(other.substr(0, end)));
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
  if (record->kept || created_.Holds(call.handle, record->path)) {
    const NTSTATUS status = call.Real();
    if (nt::Success(status) && record->kept) handles.SetKept(call.handle, record->kept);
    return {true, false, status};
  }
  return {true, false, CanKeep(record->path) ? KeepAndDelete(call, *record) : Defer(call)};
}

// A file is kept first, and no longer when the system refuses: a process that ends in between loses nothing.
// Of a folder there is nothing to lose.
NTSTATUS CFileMgr::KeepAndDelete(const SetFileCall& call, const FileHandleRecord& record) noexcept {
  const Kind kind = KindOf(call.handle);
  std::uint32_t kept = kind.folder ? 0 : KeepFile(call.handle, record.path);
  const NTSTATUS status = call.Real();
  if (!nt::Success(status)) {
    TakeBackKept(record.path, kept);
    return status;
  }
  if (kind.folder && !kind.link) kept = KeepFolder(record.path);
  if (kept)
    model_.handles().SetKept(call.handle, kept);
  else if (!kind.folder)
    SendFileAudit(AuditType::kDelete, STATUS_SUCCESS, {record.named, record.path});
  return status;
}

// The system judges the deletion, which is done at the close.
NTSTATUS CFileMgr::Defer(const SetFileCall& call) noexcept {
  const NTSTATUS status = call.Real();
  if (nt::Success(status)) {
    const NTSTATUS called_off = CallOff(call.handle);
    model_.handles().SetDeleteDisposition(call.handle, nt::Success(called_off), false);
  }
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
// one. Where nothing lies, the folder leads through no link when it is that of a file that does not.
FileDecision CFileMgr::DecideTarget(Renaming& renaming) noexcept {
  const ScratchLevel level(GetThreadState());
  std::wstring_view final;
  FileDecision decision;
  bool missing = false;
  renaming.existing = OpenForKeeping(renaming.target, &missing);
  if (renaming.existing)
    final = FinalPathOf(renaming.existing.get());
  else if (missing && renaming.record && renaming.record->at_final_path &&
           InOneFolder(renaming.record->path, renaming.target) &&
           vorn::policy::FindStream(U16(renaming.target)) == vorn::policy::kNotFound)
    final = renaming.target;
  if (!final.empty()) {
    decision = model_.DecideByName(final);
  } else {
    FileACLModel::Place place;
    decision = model_.DecideFinal(renaming.target, {.itself = true, .names = false}, &place);
    final = place.path;
  }
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

// Keeps what will be deleted with the handle that an open is about to return: the number of the file, 0 where
// it cannot be kept; nothing where there is no file to keep.
std::optional<std::uint32_t> CFileMgr::KeepBeforeOpening(const OpenCall& call) noexcept {
  bool missing = false;
  const OwnHandle file = OpenForKeeping(call.final, &missing);
  if (!file || created_.Holds(file.get(), call.path) || KindOf(file.get()).folder) return std::nullopt;
  return KeepFile(file.get(), call.path);
}

void CFileMgr::ReportKept(const FileHandleRecord& record) noexcept {
  const platform::LastErrorKeeper last_error;
  if (record.kept_called_off && FileExists(record.path))
    TakeBackKept(record.path, record.kept);
  else
    SendFileAudit(AuditType::kDeleteToRecycle, STATUS_SUCCESS, {record.named, record.path});
}

}  // namespace VornCore
