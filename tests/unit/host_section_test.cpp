// What the host lays out is what the library's own reader finds; and the section, its name and the paths of
// its rules as the system sees them.
#include <gtest/gtest.h>

#include <cstring>
#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <system_error>

#include "Policy/file_rules.h"
#include "Policy/net_rules.h"
#include "Policy/section_view.h"
#include "Policy/wide.h"
#include "ipc/port/pipe.h"
#include "vorn/named_object.h"
#include "vorn/nt_path.h"
#include "vorn/section.h"
#include "vorn/text.h"
#include "windows/nt.h"
#include "windows/unique_handle.h"

namespace {

using namespace vorn;
using host::SectionContents;
using policy::FileACL;

SectionContents Example() {
  SectionContents contents;
  contents.file_rules = {{FileACL::kDeny, L"\\Device\\HarddiskVolume1\\Users"}};
  contents.net_rules = {{policy::kVerdictAllow, policy::NetRuleKind::kAddress, {10, 1, 0, 0}, 16},
                        {policy::kVerdictAllow, policy::NetRuleKind::kDomain, {}, 0, {}, L"example.com"}};
  return contents;
}

TEST(HostSection, ContentsThatCannotBeExpressedAreRefused) {
  const auto refused = [](auto change) {
    SectionContents contents = Example();
    change(contents);
    EXPECT_THROW((void)host::LayOutSection(contents), std::invalid_argument);
  };
  refused([](SectionContents& c) { c.file_rules[0].path.clear(); });
  refused([](SectionContents& c) { c.net_rules[0].address.pop_back(); });
  refused([](SectionContents& c) { c.net_rules[0].prefix = 33; });
  refused([](SectionContents& c) { c.net_rules[1].domain.clear(); });
  refused([](SectionContents& c) { c.init_event_prefix.assign(251, L'p'); });
  refused([](SectionContents& c) { c.dump_directory.assign(225, L'd'); });
}

// What a user other than the current one would be asked by.
TEST(HostSection, SharedObjectsAdmitTheCurrentUserAlone) {
  const host::SharedSection section(Example());
  UNICODE_STRING name = nt::CountedString(section.name().c_str(), section.name().size() * sizeof(wchar_t));
  OBJECT_ATTRIBUTES attributes = nt::NamedObject(&name);
  windows::UniqueHandle mapping, pipe;
  ASSERT_EQ(NtOpenSection(mapping.put(), READ_CONTROL, &attributes), STATUS_SUCCESS);
  const ipc::PipePath path(host::RandomName(L"vorn_acl").c_str());
  ASSERT_EQ(ipc::CreatePipeInstance(path, ipc::Direction::kBoth, true, 1, pipe), 0u);

  alignas(TOKEN_USER) unsigned char user[sizeof(TOKEN_USER) + SECURITY_MAX_SID_SIZE];
  windows::UniqueHandle token;
  DWORD bytes = 0;
  ASSERT_TRUE(OpenProcessToken(GetCurrentProcess(), TOKEN_QUERY, token.put()));
  ASSERT_TRUE(GetTokenInformation(token.get(), TokenUser, user, sizeof user, &bytes));
  for (HANDLE object : {mapping.get(), pipe.get()}) {
    alignas(SECURITY_DESCRIPTOR) unsigned char descriptor[1024];
    ASSERT_TRUE(
        GetKernelObjectSecurity(object, DACL_SECURITY_INFORMATION, descriptor, sizeof descriptor, &bytes));
    BOOL present = FALSE, defaulted = FALSE;
    ACL* acl = nullptr;
    ASSERT_TRUE(GetSecurityDescriptorDacl(descriptor, &present, &acl, &defaulted));
    ASSERT_TRUE(present && acl);
    ASSERT_EQ(acl->AceCount, 1);
    void* ace = nullptr;
    ASSERT_TRUE(GetAce(acl, 0, &ace));
    EXPECT_TRUE(EqualSid(&static_cast<ACCESS_ALLOWED_ACE*>(ace)->SidStart,
                         reinterpret_cast<TOKEN_USER*>(user)->User.Sid));
  }
}

TEST(HostNtPath, DriveLetterAndUncPathsBecomeDevicePaths) {
  const std::wstring c = host::ToNtPath(L"C:\\");
  EXPECT_TRUE(c.starts_with(L"\\Device\\")) << host::ToUtf8(c);
  EXPECT_EQ(c.find(L'\\', 8), std::wstring::npos) << host::ToUtf8(c);
  EXPECT_EQ(host::ToNtPath(L"c:"), c);
  EXPECT_EQ(host::ToNtPath(L"C:\\no such\\.\\folder\\..\\x\\"), c + L"\\no such\\x");
  EXPECT_EQ(host::ToNtPath(L"C:/no such/x"), c + L"\\no such\\x");
  EXPECT_EQ(host::ToNtPath(L"\\\\?\\C:\\no such\\x"), c + L"\\no such\\x");
  EXPECT_EQ(host::ToNtPath(L"\\\\server\\share\\x"), L"\\Device\\Mup\\server\\share\\x");
  EXPECT_EQ(host::ToNtPath(L"\\\\?\\UNC\\server\\share\\"), L"\\Device\\Mup\\server\\share");
  for (const wchar_t* bad : {L"", L"x", L"\\x", L"C:x", L"\\\\.\\pipe\\x", L"\\??\\C:\\x", L"\\\\"}) {
    EXPECT_THROW(host::ToNtPath(bad), std::system_error) << host::ToUtf8(bad);
  }
}

// Also by a resolver that has met the folder often enough to read it.
TEST(HostNtPath, ExistingPartIsResolvedToItsFinalForm) {
  namespace fs = std::filesystem;
  const fs::path top = fs::temp_directory_path() / host::RandomName(L"vorn_paths");
  fs::create_directories(top / "A Long Directory Name");
  const std::wstring expected = host::ToNtPath(top.wstring()) + L"\\A Long Directory Name";
  wchar_t shorter[MAX_PATH];
  ASSERT_NE(GetShortPathNameW((top / "A Long Directory Name").c_str(), shorter, MAX_PATH), 0u);
  // Needs a privilege on Windows; Wine says yes and makes none.
  CreateSymbolicLinkW((top / "link").c_str(), (top / "A Long Directory Name").c_str(),
                      SYMBOLIC_LINK_FLAG_DIRECTORY);
  host::PathResolver resolver;
  for (int i = 0; i < 6; ++i)
    for (const fs::path& spelled : {top / "a long directory NAME", fs::path(shorter), top / "link"}) {
      if (!fs::exists(spelled)) continue;
      EXPECT_EQ(resolver.Resolve(spelled.wstring()).nt_path, expected) << spelled << i;
      EXPECT_EQ(host::ToNtPath((spelled / "new" / "file").wstring()), expected + L"\\new\\file") << spelled;
      EXPECT_EQ(resolver.Resolve(spelled / "new").nt_path, expected + L"\\new") << spelled << i;
    }
  EXPECT_FALSE(resolver.Resolve(top / "none").exists);
  std::ofstream(top / L"\u00c4.txt").close();
  EXPECT_EQ(host::PathResolver().Resolve(top / L"\u00e4.txt").nt_path,
            host::ToNtPath(top.wstring()) + L"\\\u00c4.txt");
  fs::remove_all(top);
}

}  // namespace
