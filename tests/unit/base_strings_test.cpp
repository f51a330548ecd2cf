#include <gtest/gtest.h>

#include <chrono>
#include <filesystem>

#include "VornCore/Base/clock.h"
#include "VornCore/Base/list.h"
#include "VornCore/Base/process_info.h"
#include "VornCore/Base/strings.h"

#include <tlhelp32.h>  // behind the header that brings <windows.h>

namespace VornCore {
namespace {

TEST(Strings, AnsiConversionsFollowTheCodePage) {
  const wchar_t text[] = L"caf\u00e9 \u20ac \u4e2d";
  char expected[64];
  const int size = WideCharToMultiByte(CP_ACP, 0, text, -1, expected, sizeof expected, nullptr, nullptr);
  ASSERT_GT(size, 0);
  EXPECT_STREQ(WideToAnsi(text).get(), expected);
  const UNICODE_STRING part = nt::CountedString(L"abcdef", 6);
  EXPECT_STREQ(UnicodeStringToAnsi(&part).get(), "abc");
  EXPECT_STREQ(AnsiToWide("plain").get(), L"plain");
  EXPECT_STREQ(AnsiToWide("").get(), L"");
}

TEST(Strings, NothingConvertsToNothing) {
  const UNICODE_STRING empty{};
  EXPECT_EQ(WideToAnsi(nullptr), nullptr);
  EXPECT_EQ(WideToAnsi(L""), nullptr);
  EXPECT_EQ(WideToAnsi(std::wstring(40'000, L'x').c_str()), nullptr) << "more than a counted string holds";
  EXPECT_EQ(UnicodeStringToAnsi(nullptr), nullptr);
  EXPECT_EQ(UnicodeStringToAnsi(&empty), nullptr);
  EXPECT_EQ(AnsiToWide(nullptr), nullptr);
  EXPECT_EQ(WideToUtf8(nullptr, 2), nullptr);
  EXPECT_EQ(WideToUtf8(L"x", 0), nullptr);
  EXPECT_EQ(WideToUtf8(L"x", -2), nullptr);
  EXPECT_EQ(WideDup(nullptr), nullptr);
  EXPECT_EQ(CopyBytesZ("x", 0), nullptr);
  EXPECT_STREQ(OrNil(nullptr), "nil");
  EXPECT_STREQ(OrNull(nullptr), "null");
}

TEST(Strings, NumbersInEveryBase) {
  wchar_t buffer[33];
  EXPECT_STREQ(UIntToWide(255, 16, buffer), L"ff");
  EXPECT_STREQ(UIntToWide(0, 10, buffer), L"0");
  EXPECT_STREQ(UIntToWide(UINT32_MAX, 10, buffer), L"4294967295");
  EXPECT_STREQ(UIntToWide(UINT32_MAX, 2, buffer), std::wstring(32, L'1').c_str());
  EXPECT_STREQ(UIntToWide(35, 36, buffer), L"z");
  EXPECT_EQ(UIntToWide(1, 1, buffer), nullptr);
  EXPECT_EQ(UIntToWide(1, 37, buffer), nullptr);
  EXPECT_EQ(UIntToWide(1, 10, nullptr), nullptr);
}

TEST(ProcessFacts, AgreeWithTheSystem) {
  wchar_t path[MAX_PATH];
  GetModuleFileNameW(nullptr, path, MAX_PATH);
  const std::wstring name = std::filesystem::path(path).filename().wstring();
  EXPECT_EQ(GetImageBaseName(), name);
  EXPECT_TRUE(WideEndsWith(GetProcessImageFileName(GetCurrentProcess()).get(), name.c_str(), true));

  std::uint32_t parent = 0;
  HANDLE snapshot = CreateToolhelp32Snapshot(TH32CS_SNAPPROCESS, 0);
  PROCESSENTRY32W entry{};
  entry.dwSize = sizeof entry;
  for (BOOL more = Process32FirstW(snapshot, &entry); more; more = Process32NextW(snapshot, &entry))
    if (entry.th32ProcessID == GetCurrentProcessId()) parent = entry.th32ParentProcessID;
  CloseHandle(snapshot);
  EXPECT_EQ(GetParentProcessId(), parent);

  HANDLE token = nullptr;
  ASSERT_TRUE(OpenProcessToken(GetCurrentProcess(), TOKEN_QUERY, &token));
  alignas(TOKEN_MANDATORY_LABEL) char label[128];
  DWORD size = sizeof label;
  ASSERT_TRUE(GetTokenInformation(token, TokenIntegrityLevel, label, sizeof label, &size));
  CloseHandle(token);
  PSID sid = reinterpret_cast<TOKEN_MANDATORY_LABEL*>(label)->Label.Sid;
  EXPECT_EQ(GetIntegrityLevel(), *GetSidSubAuthority(sid, *GetSidSubAuthorityCount(sid) - 1u));

  EXPECT_EQ(GetProcessMachine(GetCurrentProcess()), kMachineX64);
  HANDLE no_process = CreateEventW(nullptr, TRUE, FALSE, nullptr);
  EXPECT_EQ(GetProcessMachine(no_process), 0u);
  EXPECT_EQ(GetProcessImageFileName(no_process), nullptr);
  CloseHandle(no_process);
  EXPECT_FALSE(IsWow64Self());
}

}  // namespace
}  // namespace VornCore
