// The file manager: every file call of the process passes here and is confined.
//
// file_mgr_open.cpp: opening and creating. Decided, refused, narrowed or passed on; handles are recorded.
// file_mgr_open_first.cpp: opening what nobody is harmed by, before it is decided, for a host that wants it.
// file_mgr_change.cpp: renaming, deleting, writing, closing, moving. Judged by the record of the handle;
// deletions wait for the close and go to the recycle bin.
// file_mgr_delete.cpp: deletions and replacements for a host that wants them to be the system's own: at once,
// with a second name of what is deleted made just before.
//
// Handlers run on whatever thread makes the call; what belongs to one call lives on its stack and in its
// ThreadState. No lock is held across a system call.
#pragma once

#include <optional>

#include "File/created_files.h"
#include "File/file_acl_model.h"
#include "File/file_audit.h"
#include "VornCore/Base/thread_state.h"
#include "VornCore/Hook/kernel_base.h"
#include "VornCore/Hook/manager.h"
#include "VornCore/Hook/ntdll.h"

namespace VornCore {

struct OpenCall;
struct SetFileCall;
struct Renaming;

class CFileMgr : public Manager<CFileMgr>, public INtdllApiListener, public IKernelBaseApiListener {
 public:
  // Builds the drive table, logs the rules, registers as listener. Once; always true.
  bool Init() noexcept;
  bool UnInit() noexcept;

  NTSTATUS NtCreateFile(PHANDLE FileHandle, ACCESS_MASK DesiredAccess, POBJECT_ATTRIBUTES ObjectAttributes,
                        PIO_STATUS_BLOCK IoStatusBlock, PLARGE_INTEGER AllocationSize, ULONG FileAttributes,
                        ULONG ShareAccess, ULONG CreateDisposition, ULONG CreateOptions, PVOID EaBuffer,
                        ULONG EaLength, bool* bPassOn) override;
  NTSTATUS NtOpenFile(PHANDLE FileHandle, ACCESS_MASK DesiredAccess, POBJECT_ATTRIBUTES ObjectAttributes,
                      PIO_STATUS_BLOCK IoStatusBlock, ULONG ShareAccess, ULONG OpenOptions,
                      bool* bPassOn) override;
  NTSTATUS NtSetInformationFile(HANDLE FileHandle, PIO_STATUS_BLOCK IoStatusBlock, PVOID FileInformation,
                                ULONG Length, FILE_INFORMATION_CLASS FileInformationClass,
                                bool* bPassOn) override;
  NTSTATUS NtDeleteFile(POBJECT_ATTRIBUTES ObjectAttributes, bool* bPassOn) override;
  NTSTATUS NtWriteFile(HANDLE FileHandle, HANDLE Event, PIO_APC_ROUTINE ApcRoutine, PVOID ApcContext,
                       PIO_STATUS_BLOCK IoStatusBlock, PVOID Buffer, ULONG Length, PLARGE_INTEGER ByteOffset,
                       PULONG Key, bool* bPassOn) override;
  NTSTATUS NtClose(HANDLE Handle, bool* bPassOn) override;
  BOOL MoveFileWithProgressTransactedW(LPCWSTR lpExistingFileName, LPCWSTR lpNewFileName,
                                       LPPROGRESS_ROUTINE lpProgressRoutine, LPVOID lpData, DWORD dwFlags,
                                       HANDLE hTransaction, bool* bPassOn) override;

  FileACLModel& model() noexcept { return model_; }

 private:
  // Opening: the stages of one call.
  void Confine(OpenCall& call) noexcept;
  static bool MayOpenFirst(const OpenCall& call) noexcept;
  bool OpenFirst(OpenCall& call) noexcept;
  bool DeleteOpened(OpenCall& call) noexcept;
  void ApplyDecision(OpenCall& call) noexcept;
  bool Narrow(OpenCall& call) noexcept;
  void OpenRecorded(OpenCall& call) noexcept;
  bool LandedAsDecided(OpenCall& call) noexcept;
  void Record(const OpenCall& call, std::uint32_t kept = 0) noexcept;

  // Changing.
  struct Outcome {
    bool decided = false;  // the caller gets status: nothing is left to be done
    bool refused = false;  // by us: the real call has not filled in the caller's block
    NTSTATUS status = 0;
  };
  union DispositionBuffer {
    BOOLEAN delete_file;  // class 13
    ULONG flags;          // class 64
  };
  Outcome HoldPlace(AuditType type, HANDLE handle, std::wstring_view target = {}) noexcept;
  Outcome RefuseWithout(ACCESS_MASK right, const SetFileCall& call) noexcept;
  void* HandleDisposition(const SetFileCall& call, DispositionBuffer* substitute) noexcept;
  Outcome HandleRename(const SetFileCall& call) noexcept;
  Outcome JudgeRename(const SetFileCall& call, Renaming& renaming) noexcept;
  NTSTATUS HandleSetInformationFailure(NTSTATUS status, HANDLE handle, ULONG info_class) noexcept;
  NTSTATUS CloseFileHandle(HANDLE handle) noexcept;
  NTSTATUS DeleteFileToRecycleBin(std::wstring_view path, const FileVerdict& verdict) noexcept;

  // Deleting and replacing for real.
  HandleRecordPtr RecordOf(HANDLE handle) noexcept;
  Outcome DeleteForReal(const SetFileCall& call) noexcept;
  NTSTATUS KeepAndDelete(const SetFileCall& call, const FileHandleRecord& record) noexcept;
  NTSTATUS Defer(const SetFileCall& call) noexcept;
  Outcome RenameForReal(const SetFileCall& call) noexcept;
  FileDecision DecideTarget(Renaming& renaming) noexcept;
  std::uint32_t KeepReplaced(HANDLE handle, const Renaming& renaming) noexcept;
  void FollowRename(HANDLE handle, const Renaming& renaming) noexcept;
  std::optional<std::uint32_t> KeepBeforeOpening(const OpenCall& call) noexcept;
  void ReportKept(const FileHandleRecord& record) noexcept;

  FileACLModel model_;
  CreatedFiles created_;
};

inline CFileMgr& GetFileMgr() noexcept { return *CFileMgr::GetInstance(); }

}  // namespace VornCore
