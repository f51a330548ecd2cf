// Sees to it that a crash leaves a minidump, a log line and a notice to the host, and that the application
// cannot take that away by a filter of its own: it is told that its filter is in place.
#pragma once

#include "VornCore/Hook/kernel_base.h"

namespace VornCore {

class CDebugMgr : public IKernelBaseApiListener {
 public:
  // The single instance, made on first use and never destroyed. Any thread.
  static CDebugMgr* GetInstance() noexcept;

  // Installs the crash writer when the section names a dump directory, then refuses every further filter.
  // Always true.
  [[nodiscard]] bool Init() noexcept;
  bool UnInit() noexcept;  // lets filters through again; always true

  LPTOP_LEVEL_EXCEPTION_FILTER SetUnhandledExceptionFilter(LPTOP_LEVEL_EXCEPTION_FILTER filter,
                                                           bool* bPassOn) override;
};

}  // namespace VornCore
