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

TEST(Strings, Utf8IsSizedByItsBytes) {
  const wchar_t text[] = L"a\u00e9\u20ac\U0001f600!";
  EXPECT_STREQ(WideToUtf8(text, 12).get(), "a\xc3\xa9\xe2\x82\xac\xf0\x9f\x98\x80!");
  EXPECT_STREQ(WideToUtf8(text, 4).get(), "a\xc3\xa9");
  EXPECT_STREQ(WideToUtf8(L"\xd83d", 2).get(), "\xef\xbf\xbd") << "half a pair";
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

TEST(Strings, CopiesOfBytesEndWithTwoZeroes) {
  for (const std::size_t count : {1u, 2u, 7u, 8u}) {
    const auto copy = CopyBytesZ("12345678", count);
    const auto* bytes = static_cast<const char*>(copy.get());
    EXPECT_EQ(std::string(bytes, count + 2), std::string("12345678", count) + std::string(2, '\0'));
    EXPECT_EQ(_msize(copy.get()), ((count + 1) | 1) + 1);
  }
  EXPECT_STREQ(WideDup(L"text").get(), L"text");
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

TEST(Strings, SuffixesFoldOnlyTheLettersAToZ) {
  EXPECT_TRUE(WideEndsWith(L"file.TXT", L".TXT", false));
  EXPECT_FALSE(WideEndsWith(L"file.TXT", L".txt", false));
  EXPECT_TRUE(WideEndsWith(L"file.TXT", L".txt", true));
  EXPECT_FALSE(WideEndsWith(L"file.\u00c9", L".\u00e9", true));
  EXPECT_FALSE(WideEndsWith(L"file", L"", true));
  EXPECT_FALSE(WideEndsWith(L"t", L"txt", true));
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

TEST(Clock, CountsMicrosecondsSince1970) {
  using namespace std::chrono;
  const auto now =
      static_cast<std::uint64_t>(duration_cast<microseconds>(system_clock::now().time_since_epoch()).count());
  const std::uint64_t precise = GetPreciseTimeMicros();
  EXPECT_LT(precise > now ? precise - now : now - precise, 1'000'000u);
}

TEST(List, KeepsItsOrderThroughInsertionsAndRemovals) {
  ListHead list;
  ListNode a, b, c, d;
  const auto order = [&] {
    std::string names;
    const ListNode* last = nullptr;
    for (const ListNode* n = FirstNode(list); n; last = n, n = NextNode(n)) {
      names += n == &a ? 'a' : n == &b ? 'b' : n == &c ? 'c' : 'd';
      EXPECT_EQ(n->prev, last);
    }
    EXPECT_EQ(list.last, last);
    EXPECT_EQ(static_cast<std::size_t>(list.count), names.size());
    return names;
  };
  InsertAfter(list, nullptr, &a);
  InsertAfter(list, &a, &c);
  InsertAfter(list, &a, &b);
  Append(list, &d);
  EXPECT_EQ(order(), "abcd");
  Remove(list, &b);
  EXPECT_EQ(b.next, nullptr);
  EXPECT_EQ(order(), "acd");
  Remove(list, &d);
  Remove(list, &a);
  EXPECT_EQ(order(), "c");
  Remove(list, &c);
  EXPECT_EQ(order(), "");
}

}  // namespace
}  // namespace VornCore
