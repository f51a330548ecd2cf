// Interception of KernelBase: the listener interface, registration, and the way to the real functions. Used
// as ntdll.h.
#pragma once

#include "VornCore/Hook/api_list.h"
#include "VornCore/Hook/api_list_kernelbase.h"
#include "windows/nt.h"

namespace VornCore {

// Every operation that is not overridden performs the real call and decides it.
class IKernelBaseApiListener {
 public:
  VORN_KERNELBASE_API(VORN_LISTENER_OPERATION)
};

namespace KernelBase {

bool Init() noexcept;    // installs the table; always true: a function that cannot be intercepted is left out
bool UnInit() noexcept;  // removes it; always true

#define ROW(fail, ...) VORN_DECLARE_API(IKernelBaseApiListener, __VA_ARGS__)
VORN_KERNELBASE_API(ROW)
#undef ROW

}  // namespace KernelBase
}  // namespace VornCore
