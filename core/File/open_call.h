// One confined call that opens or creates a file.
#pragma once

#include <string_view>

#include "File/file_audit.h"
#include "File/handle_records.h"
#include "Policy/file_decision.h"
#include "VornCore/Base/shared_data.h"
#include "VornCore/Hook/ntdll.h"

namespace VornCore {

// Taken from the access that is asked for on a read-only path.
inline constexpr ACCESS_MASK kWriteRights = GENERIC_WRITE | GENERIC_ALL | MAXIMUM_ALLOWED |
                                            FILE_WRITE_ATTRIBUTES | FILE_WRITE_EA | FILE_APPEND_DATA |
                                            FILE_WRITE_DATA;
static_assert(kWriteRights == 0x52000116);
// Change who may do what with the file.
inline constexpr ACCESS_MASK kProtectionRights = WRITE_DAC | WRITE_OWNER;
// How a confined call ended; the log says so.
enum Step : unsigned {
  kStepNone = 0,
  kStepDeviceName = 123,      // the name itself is a pipe, mailslot or network device: as asked
  kStepNoPath = 131,          // no canonical path: as asked
  kStepDevicePath = 145,      // the canonical path is such a device: on that path
  kStepUnconfined = 160,      // undecided: on the canonical path, access unchanged
  kStepDenied = 165,          // refused
  kStepDeleteRefused = 175,   // read only, delete on close: refused
  kStepProtectRefused = 185,  // read only, would change its protection: refused
  kStepReplaceRefused = 194,  // read only, would replace or overwrite: refused
  kStepOpened = 216,          // on the canonical path, with adjusted arguments
  kStepException = 218,       // a fault while the call was being confined
};

struct OpenArguments {
  ACCESS_MASK access;
  ULONG disposition;
  ULONG options;

  // Takes rights away; a call that asked for nothing else may still look at the file.
  void Remove(ACCESS_MASK rights) {
    if (!(access & rights)) return;
    access &= ~rights;
    if (!access) access = SYNCHRONIZE | FILE_READ_ATTRIBUTES;
  }
};

struct OpenCall {
  PHANDLE handle;
  POBJECT_ATTRIBUTES attributes;
  PIO_STATUS_BLOCK io;
  PLARGE_INTEGER allocation;
  ULONG file_attributes;
  ULONG share;
  PVOID ea;
  ULONG ea_length;
  const OpenArguments asked;
  OpenArguments given;  // what the system is asked for

  std::wstring_view path = {};   // canonical, once it is known
  std::wstring_view final = {};  // where that leads: link-free, as far as it is known
  FileDecision decision = {};
  bool was_missing = false;       // there was no such file when that was found out
  bool delete_by_handle = false;  // a deletion at close that the open handle is asked for instead
  NTSTATUS status = STATUS_SUCCESS;
  Step step = kStepNone;
  AuditType audit = {};  // of a refusal; 0 for none

  NTSTATUS CallReal(POBJECT_ATTRIBUTES name, const OpenArguments& arguments) const {
    return Ntdll::CallOriginalNtCreateFile(handle, arguments.access, name, io, allocation, file_attributes,
                                           share, arguments.disposition, arguments.options, ea, ea_length);
  }
  static bool Has(vorn::policy::SectionOption option) { return GetSection().Has(option); }
  bool Creates() const { return asked.disposition == FILE_CREATE || asked.disposition == FILE_OPEN_IF; }
  bool Truncates() const { return asked.disposition != FILE_OPEN && !Creates(); }
  // Whether the file's other names can be harmed, or somebody wants to know.
  bool NamesMatter() const {
    return (given.access & kWriteRights) || Truncates() || Has(vorn::policy::SectionOption::kAuditAllowed);
  }
  // With the rights that are left.
  bool DeletesOnClose() const {
    const bool wide = Has(vorn::policy::SectionOption::kKeepByLink);
    const ACCESS_MASK rights = wide ? DELETE | GENERIC_ALL | MAXIMUM_ALLOWED : DELETE;
    return !delete_by_handle && (asked.options & FILE_DELETE_ON_CLOSE) && (given.access & rights);
  }
  void PassAsAsked(Step how) {
    status = CallReal(attributes, asked);
    step = how;
  }
  void CallOnPath(Step how) {
    const bool handle_decides = Has(vorn::policy::SectionOption::kHandleDecides);
    // A link that is turned to another place meanwhile is not met again.
    const std::wstring_view to_open = handle_decides && !final.empty() ? final : path;
    UNICODE_STRING name = nt::CountedString(to_open.data(), to_open.size() * sizeof(wchar_t));
    OBJECT_ATTRIBUTES by_path = nt::NamedObject(&name, attributes->Attributes | OBJ_CASE_INSENSITIVE);
    if (handle_decides) {
      by_path.SecurityDescriptor = attributes->SecurityDescriptor;
      by_path.SecurityQualityOfService = attributes->SecurityQualityOfService;
    }
    status = CallReal(&by_path, given);
    step = how;
  }
  // Closes what was opened.
  void CloseReal() {
    Ntdll::CallOriginalNtClose(*handle);
    *handle = nullptr;
  }
  void Refuse(Step how, AuditType as) {
    status = STATUS_ACCESS_DENIED;
    step = how;
    audit = as;
  }
};

}  // namespace VornCore
