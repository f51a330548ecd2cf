// Interception of ntdll: the listener interface, registration, and the way to the real functions.
//
//   class CFileMgr : public INtdllApiListener {
//     NTSTATUS NtClose(HANDLE Handle, bool* bPassOn) override;   // decides; calls CallOriginalNtClose itself
//   };
//   Ntdll::RegisterNtCloseListener(&mgr);   // before or after Ntdll::Init; the listener is never destroyed
//
// Listeners of a function are called in slot order until one leaves *bPassOn false; after the last one the
// real function runs. Any thread; the dispatcher takes no lock.
#pragma once

#include "VornCore/Hook/api_list.h"
#include "VornCore/Hook/api_list_ntdll.h"
#include "windows/nt.h"

namespace VornCore {

// Every operation that is not overridden performs the real call and decides it.
class INtdllApiListener {
 public:
  VORN_NTDLL_API(VORN_LISTENER_OPERATION)
};

namespace Ntdll {

bool Init() noexcept;    // installs the table; always true: a function that cannot be intercepted is left out
bool UnInit() noexcept;  // removes it; always true

#define ROW(fail, ...) VORN_DECLARE_API(INtdllApiListener, __VA_ARGS__)
VORN_NTDLL_API(ROW)
#undef ROW

}  // namespace Ntdll
}  // namespace VornCore
