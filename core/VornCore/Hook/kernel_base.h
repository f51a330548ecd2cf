// Interception of KernelBase: the listener interface, registration, and the way to the real functions. Used
// as ntdll.h.
#pragma once

#include "VornCore/Hook/api_list.h"
#include "VornCore/Hook/api_list_kernelbase.h"
#include "windows/nt.h"

namespace VornCore {
namespace KernelBase {

VORN_DECLARE_MODULE(VORN_KERNELBASE_API)

bool Init() noexcept;    // installs the table; always true: a function that cannot be intercepted is left out
bool UnInit() noexcept;  // removes it; always true

}  // namespace KernelBase

using IKernelBaseApiListener = KernelBase::Listener;

}  // namespace VornCore
