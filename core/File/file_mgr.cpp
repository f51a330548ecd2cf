#include "File/file_mgr.h"

#include "File/file_helper.h"
#include "VornCore/Base/channel.h"

namespace VornCore {

bool CFileMgr::Init() noexcept {
  InitFileHelper();
  channel::SetPathConverter(&NtPathToDosPath);
  model_.Init();
  Ntdll::RegisterOverrides(this);
  KernelBase::RegisterOverrides(this);
  return true;
}

bool CFileMgr::UnInit() noexcept {
  Ntdll::UnregisterOverrides(this);
  KernelBase::UnregisterOverrides(this);
  model_.UnInit();
  return true;
}

}  // namespace VornCore
