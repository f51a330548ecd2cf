#include "File/file_mgr.h"

#include "File/file_helper.h"
#include "VornCore/Base/channel.h"

namespace VornCore {

CFileMgr& GetFileMgr() noexcept {
  static CFileMgr& manager = *new CFileMgr;
  return manager;
}

bool CFileMgr::Init() noexcept {
  InitFileHelper();
  channel::SetPathConverter(&NtPathToDosPath);
  model_.Init();
  INtdllApiListener* ntdll = this;
  Ntdll::RegisterNtCreateFileListener(ntdll);
  Ntdll::RegisterNtOpenFileListener(ntdll);
  Ntdll::RegisterNtDeleteFileListener(ntdll);
  Ntdll::RegisterNtSetInformationFileListener(ntdll);
  Ntdll::RegisterNtCloseListener(ntdll);
  Ntdll::RegisterNtWriteFileListener(ntdll);
  KernelBase::RegisterMoveFileWithProgressTransactedWListener(this);
  return true;
}

bool CFileMgr::UnInit() noexcept {
  INtdllApiListener* ntdll = this;
  Ntdll::UnregisterNtCreateFileListener(ntdll);
  Ntdll::UnregisterNtOpenFileListener(ntdll);
  Ntdll::UnregisterNtDeleteFileListener(ntdll);
  Ntdll::UnregisterNtSetInformationFileListener(ntdll);
  Ntdll::UnregisterNtCloseListener(ntdll);
  Ntdll::UnregisterNtWriteFileListener(ntdll);
  KernelBase::UnregisterMoveFileWithProgressTransactedWListener(this);
  model_.UnInit();
  return true;
}

}  // namespace VornCore
