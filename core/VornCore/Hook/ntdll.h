// Interception of ntdll: the listener interface, registration, and the way to the real functions.
//
//   class CFileMgr : public INtdllApiListener {
//     NTSTATUS NtClose(HANDLE Handle, bool* bPassOn) override;   // decides; calls CallOriginalNtClose itself
//   };
//   Ntdll::RegisterOverrides(&mgr);   // before or after Ntdll::Init; the listener is never destroyed
//
// Listeners of a function are called in slot order until one leaves *bPassOn false; after the last one the
// real function runs. Any thread; the dispatcher takes no lock.
#pragma once

#include "VornCore/Hook/api_list.h"
#include "VornCore/Hook/api_list_ntdll.h"
#include "windows/nt.h"

namespace VornCore {
namespace Ntdll {

VORN_DECLARE_MODULE(VORN_NTDLL_API)

bool Init() noexcept;    // installs the table; always true: a function that cannot be intercepted is left out
bool UnInit() noexcept;  // removes it; always true

}  // namespace Ntdll

using INtdllApiListener = Ntdll::Listener;

}  // namespace VornCore
