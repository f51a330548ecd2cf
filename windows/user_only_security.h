// A security descriptor that grants rights to the current user and nothing to anybody else: for pipes,
// sections and events that the host and its confined processes share. Without GENERIC_ALL the user cannot
// change the descriptor either, although the object is theirs: only the handle that it was made with has
// every right.
//
// Built from ntdll alone. The object holds the descriptor's parts, so it neither moves nor copies; it must
// outlive the call that creates the protected object, no longer.
#pragma once

#include "windows/nt.h"

namespace vorn::windows {

class UserOnlySecurity {
 public:
  explicit UserOnlySecurity(ACCESS_MASK rights = GENERIC_ALL) noexcept;
  UserOnlySecurity(const UserOnlySecurity&) = delete;
  UserOnlySecurity& operator=(const UserOnlySecurity&) = delete;

  // Why there is no descriptor; 0 when there is one. An object must not be created without it.
  DWORD error() const noexcept { return error_; }
  // Handles made with these attributes are not inherited.
  SECURITY_ATTRIBUTES* attributes() noexcept { return &attributes_; }
  PSECURITY_DESCRIPTOR descriptor() noexcept { return &descriptor_; }

 private:
  static constexpr size_t kMaxSidBytes = 68;  // SECURITY_MAX_SID_SIZE

  DWORD Build(ACCESS_MASK rights) noexcept;

  alignas(TOKEN_USER) unsigned char user_[sizeof(TOKEN_USER) + kMaxSidBytes];
  alignas(ACL) unsigned char acl_[sizeof(ACL) + 2 * (sizeof(ACCESS_ALLOWED_ACE) + kMaxSidBytes)];
  SECURITY_DESCRIPTOR descriptor_;
  SECURITY_ATTRIBUTES attributes_;
  DWORD error_;
};

}  // namespace vorn::windows
