#include <gtest/gtest.h>

#include "Policy/path_hash.h"
#include "base_environment.h"

namespace VornCore {
namespace {

using test::HeaderOf;
using vorn::host::SectionContents;
using vorn::host::SharedSection;

// Runs first: no section has been opened.
TEST(Section, UnopenedSectionIsAbsent) {
  std::uint32_t bytes = 7;
  EXPECT_EQ(GetSharedView(), nullptr);
  EXPECT_EQ(GetLogDirectory(&bytes), nullptr);
  EXPECT_EQ(GetIPC64FullPath(&bytes), nullptr);
  EXPECT_EQ(GetFileRule(0, &bytes, nullptr, nullptr), nullptr);
  EXPECT_EQ(bytes, 7u) << "nothing is known of the length";
  EXPECT_EQ(GetLogLevelMask(), 0u);
  EXPECT_FALSE(IsDebugLogEnabled() || IsFileCreateCheckOff() || IsNetCheckOff() || HasNetRules());
}

TEST(Section, RefusedSectionIsNotLeftMapped) {
  EXPECT_EQ(OpenSharedData(nullptr), 87u);
  EXPECT_EQ(OpenSharedData(L"\\BaseNamedObjects\\no such section"), 2u);
  EXPECT_EQ(OpenSharedData(L"\\no such folder\\section"), 3u);
  SharedSection section(SectionContents{});
  HeaderOf(section).version = 1;
  EXPECT_EQ(OpenSharedData(section.name().c_str()), 1638u);
  HeaderOf(section).version = 2;
  HeaderOf(section).magic = 0x6E726F56;
  EXPECT_EQ(OpenSharedData(section.name().c_str()), 1638u);
  EXPECT_EQ(GetSharedView(), nullptr);
}

TEST(Section, AccessorsReadTheSectionAsItIsNow) {
  SectionContents contents;
  contents.log_directory = L"C:\\logs";
  contents.dump_directory = L"C:\\dumps";
  contents.server_port = L"port";
  contents.init_event_prefix = L"\\event_";
  contents.core_x64 = L"a64";
  contents.core_x86 = L"a32";
  contents.ipc_x64 = L"i64";
  contents.ipc_x86 = L"i32";
  contents.file_rules = {{vorn::policy::FileACL::kRead, L"\\Device\\a"}};
  SharedSection section(contents);
  ASSERT_EQ(OpenSharedData(section.name().c_str()), 0u);
  const auto text = [](const wchar_t* (*get)(std::uint32_t*) noexcept) {
    std::uint32_t bytes = 0;
    const wchar_t* found = get(&bytes);
    return found ? std::wstring(found, bytes / 2) : L"absent";
  };
  EXPECT_EQ(text(GetLogDirectory), L"C:\\logs");
  EXPECT_EQ(text(GetDumpDirectory), L"C:\\dumps");
  EXPECT_EQ(text(GetServerPortName), L"port");
  EXPECT_EQ(text(GetCreateProcessEventPrefix), L"\\event_");
  EXPECT_EQ(text(GetBizDllPathX64), L"a64");
  EXPECT_EQ(text(GetBizDllPathX86), L"a32");
  EXPECT_EQ(text(GetIPC64FullPath), L"i64");
  EXPECT_EQ(text(GetIPC32FullPath), L"i32");

  std::uint32_t bytes = 0, access = 0, hash = 0;
  EXPECT_EQ(std::wstring(GetFileRule(0, &bytes, &access, &hash), 9), L"\\Device\\a");
  EXPECT_EQ(bytes, 18u);
  EXPECT_EQ(access, 2u);
  EXPECT_EQ(hash, vorn::policy::HashPathNoCase(u"\\device\\A"));
  EXPECT_EQ(GetFileRule(1, &bytes, &access, &hash), nullptr) << "an index equal to the count";

  HeaderOf(section).flags = 0xFFFFFC08;
  EXPECT_EQ(GetLogLevelMask(), 8u);
  EXPECT_TRUE(IsDebugLogEnabled());
  EXPECT_FALSE(IsFileCreateCheckOff() || IsNetCheckOff());
  HeaderOf(section).flags = 0x300;
  EXPECT_TRUE(IsFileCreateCheckOff() && IsNetCheckOff());
  HeaderOf(section).net_rule_count = 3;
  EXPECT_TRUE(HasNetRules());
  HeaderOf(section).file_rule_count = UINT32_MAX;
  EXPECT_LT(GetFileRuleCount(), 4096u / sizeof(vorn::policy::FileRuleRecord))
      << "what the mapping has room for";
}

TEST(Section, LibraryPathNeedsItsTerminatorInTheSection) {
  SectionContents contents;
  contents.ipc_x64 = L"path";
  SharedSection section(contents);
  ASSERT_EQ(OpenSharedData(section.name().c_str()), 0u);
  ASSERT_NE(GetIPC64FullPath(), nullptr);
  HeaderOf(section).ipc_path_64.length = 6;  // "pat", then not a terminator
  EXPECT_EQ(GetIPC64FullPath(), nullptr);
  HeaderOf(section).ipc_path_64 = {4096 - 200, 200};  // up to the end of the mapping
  EXPECT_EQ(GetIPC64FullPath(), nullptr);
}

}  // namespace
}  // namespace VornCore
