// Tells the host what was refused or done to a file.
#pragma once

#include <string_view>

#include "Policy/file_decision.h"
#include "Policy/message.h"
#include "windows/nt.h"

namespace VornCore {

using vorn::policy::AuditType;
using vorn::policy::FileVerdict;

// One of the two files of an audit. Its path is a canonical NT path, which is sent in drive-letter or UNC
// form where there is one; an empty path is absent.
struct AuditedFile {
  FileVerdict verdict = {};
  std::wstring_view path = {};
};

// The destination's verdict decided where it has one, otherwise the source's. Does not allocate; lost when
// the channel does not take it. Any thread.
void SendFileAudit(AuditType type, NTSTATUS status, const AuditedFile& source,
                   const AuditedFile& destination = {}) noexcept;

}  // namespace VornCore
