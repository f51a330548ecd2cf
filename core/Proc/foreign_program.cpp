#include "Proc/foreign_program.h"

#include <string_view>

#include "File/file_audit.h"
#include "File/file_helper.h"
#include "Platform/guard.h"
#include "Platform/native.h"
#include "Policy/text.h"
#include "Policy/wide.h"
#include "VornCore/Base/shared_data.h"
#include "VornCore/Hook/own_handle.h"

namespace VornCore {
namespace {

// The image that a process is to be made from, as the caller names it. Reads the caller's memory.
UNICODE_STRING ImageOf(PPS_ATTRIBUTE_LIST attributes) {
  const auto* list = reinterpret_cast<const nt::PsAttributeList*>(attributes);
  const auto* end =
      reinterpret_cast<const nt::PsAttribute*>(reinterpret_cast<const char*>(list) + list->TotalLength);
  for (const auto* attribute = list->Attributes; attribute + 1 <= end; ++attribute)
    if (attribute->Attribute == nt::kPsAttributeImageName)
      return nt::CountedString(static_cast<const wchar_t*>(attribute->Value), attribute->Size);
  return {};
}

}  // namespace

NTSTATUS RefuseForeignProgram(ThreadState* state, PPS_ATTRIBUTE_LIST attributes) noexcept {
  if (!platform::Native().starts_foreign_programs || !attributes || !state ||
      !GetSection().Has(vorn::policy::SectionOption::kStartOnlyImages))
    return STATUS_SUCCESS;
  UNICODE_STRING image = {};
  if (!platform::Guarded([&] { image = ImageOf(attributes); }) || !image.Length) return STATUS_SUCCESS;
  OBJECT_ATTRIBUTES name = nt::NamedObject(&image);
  IO_STATUS_BLOCK io;
  OwnHandle file, section;
  NTSTATUS status = Ntdll::CallOriginalNtCreateFile(
      file.put(), GENERIC_READ | SYNCHRONIZE, &name, &io, nullptr, 0, FILE_SHARE_READ | FILE_SHARE_DELETE,
      FILE_OPEN, FILE_SYNCHRONOUS_IO_NONALERT | FILE_NON_DIRECTORY_FILE, nullptr, 0);
  if (!nt::Success(status)) return STATUS_SUCCESS;
  status = NtCreateSection(section.put(), SECTION_QUERY, nullptr, nullptr, PAGE_EXECUTE_READ, SEC_IMAGE,
                           file.get());
  if (status != STATUS_INVALID_IMAGE_NOT_MZ) return STATUS_SUCCESS;
  // A batch file is run by the command processor, which is told the same.
  const ScratchLevel level(state);
  std::wstring_view path;
  if (!nt::Success(GetPath(nullptr, &image, &path))) path = {image.Buffer, image.Length / sizeof(wchar_t)};
  const auto is = [&](std::u16string_view kind) {
    return vorn::policy::EndsWithNoCase(vorn::policy::U16(path), kind);
  };
  if (!is(u".bat") && !is(u".cmd"))
    SendFileAudit(AuditType::kCreate, STATUS_ACCESS_DENIED,
                  {{vorn::policy::FileACL::kDeny, vorn::policy::DecidingFact::kForeignProgram}, path});
  return status;
}

}  // namespace VornCore
