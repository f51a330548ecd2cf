#include "windows/user_only_security.h"

#include "windows/unique_handle.h"

extern "C" {
NTSYSAPI NTSTATUS NTAPI RtlCreateSecurityDescriptor(PSECURITY_DESCRIPTOR, ULONG revision);
NTSYSAPI NTSTATUS NTAPI RtlCreateAcl(PACL, ULONG bytes, ULONG revision);
NTSYSAPI NTSTATUS NTAPI RtlAddAccessAllowedAce(PACL, ULONG revision, ACCESS_MASK, PSID);
NTSYSAPI NTSTATUS NTAPI RtlSetDaclSecurityDescriptor(PSECURITY_DESCRIPTOR, BOOLEAN present, PACL,
                                                     BOOLEAN defaulted);
}

namespace vorn::windows {

UserOnlySecurity::UserOnlySecurity(ACCESS_MASK rights) noexcept
    : attributes_{sizeof(SECURITY_ATTRIBUTES), &descriptor_, FALSE}, error_(Build(rights)) {}

DWORD UserOnlySecurity::Build(ACCESS_MASK rights) noexcept {
  UniqueHandle token;
  NTSTATUS status = NtOpenProcessToken(GetCurrentProcess(), TOKEN_QUERY, token.put());
  if (!nt::Success(status)) return RtlNtStatusToDosErrorNoTeb(status);
  ULONG bytes = 0;
  status = NtQueryInformationToken(token.get(), TokenUser, user_, sizeof user_, &bytes);
  if (!nt::Success(status)) return RtlNtStatusToDosErrorNoTeb(status);
  PSID sid = reinterpret_cast<TOKEN_USER*>(user_)->User.Sid;

  auto* acl = reinterpret_cast<ACL*>(acl_);
  status = RtlCreateSecurityDescriptor(&descriptor_, SECURITY_DESCRIPTOR_REVISION);
  if (nt::Success(status)) status = RtlCreateAcl(acl, sizeof acl_, ACL_REVISION);
  if (nt::Success(status)) status = RtlAddAccessAllowedAce(acl, ACL_REVISION, rights, sid);
  // An owner may change the descriptor unless it says what owners may do.
  SID owner_rights{SID_REVISION, 1, SECURITY_CREATOR_SID_AUTHORITY, {SECURITY_CREATOR_OWNER_RIGHTS_RID}};
  if (nt::Success(status) && rights != GENERIC_ALL)
    status = RtlAddAccessAllowedAce(acl, ACL_REVISION, rights, &owner_rights);
  if (nt::Success(status)) status = RtlSetDaclSecurityDescriptor(&descriptor_, TRUE, acl, FALSE);
  return nt::Success(status) ? 0 : RtlNtStatusToDosErrorNoTeb(status);
}

}  // namespace vorn::windows
