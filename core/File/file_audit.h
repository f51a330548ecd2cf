// Tells the host what was refused or done to a file.
#pragma once

#include <string_view>

#include "Policy/file_rules.h"
#include "Policy/message.h"
#include "windows/nt.h"

namespace VornCore {

using vorn::policy::AuditType;
using vorn::policy::FileACL;

// Paths are canonical NT paths and are sent in drive-letter or UNC form where there is one; an empty path is
// absent, and a destination that is absent has access kUnknown. Does not allocate; lost when the channel does
// not take it. Any thread.
void SendFileAudit(AuditType type, NTSTATUS status, FileACL source_access, std::wstring_view source,
                   FileACL destination_access = FileACL::kUnknown,
                   std::wstring_view destination = {}) noexcept;

}  // namespace VornCore
