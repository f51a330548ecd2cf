// Ensures that every crash leaves a minidump, a log line and a notice to the host, even if the application
// installs its own filter: it is told that its filter is in place.
#pragma once

#include "VornCore/Hook/kernel_base.h"
#include "VornCore/Hook/manager.h"

namespace VornCore {

class CDebugMgr : public Manager<CDebugMgr>, public IKernelBaseApiListener {
 public:
  // Installs the crash writer when the section names a dump directory, then refuses every further filter.
  // Always true.
  [[nodiscard]] bool Init() noexcept;
  bool UnInit() noexcept;  // lets filters through again; always true

  LPTOP_LEVEL_EXCEPTION_FILTER SetUnhandledExceptionFilter(LPTOP_LEVEL_EXCEPTION_FILTER filter,
                                                           bool* bPassOn) override;
};

}  // namespace VornCore
