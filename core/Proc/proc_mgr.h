// Follows the process into its children: every child starts with the library and finds the same section.
//
// A creation gives the child the section's name and remembers it as pending on the creating thread; the
// resume of its primary thread by that thread injects the library, lets the child run, and waits until the
// child's library is ready or the child has ended (ten seconds at most).
#pragma once

#include "VornCore/Hook/manager.h"
#include "VornCore/Hook/ntdll.h"

namespace VornCore {

class CProcMgr : public Manager<CProcMgr>, public INtdllApiListener {
 public:
  [[nodiscard]] bool Init() noexcept;  // always true
  bool UnInit() noexcept;              // always true

  NTSTATUS NtCreateUserProcess(PHANDLE ProcessHandle, PHANDLE ThreadHandle, ACCESS_MASK ProcessDesiredAccess,
                               ACCESS_MASK ThreadDesiredAccess, POBJECT_ATTRIBUTES ProcessObjectAttributes,
                               POBJECT_ATTRIBUTES ThreadObjectAttributes, ULONG ProcessFlags,
                               ULONG ThreadFlags, PRTL_USER_PROCESS_PARAMETERS ProcessParameters,
                               PPS_CREATE_INFO CreateInfo, PPS_ATTRIBUTE_LIST AttributeList,
                               bool* bPassOn) override;
  NTSTATUS NtResumeThread(HANDLE ThreadHandle, PULONG PreviousSuspendCount, bool* bPassOn) override;
};

}  // namespace VornCore
