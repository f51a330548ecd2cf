#include <gtest/gtest.h>

#include "VornCore/Base/process_info.h"
#include "VornCore/Base/strings.h"
#include "windows/process_facts.h"

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

TEST(Strings, EmptyOrOversizedInputGivesNull) {
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
}

TEST(ProcessFacts, HandleOfAnotherKindGivesNull) {
  HANDLE no_process = CreateEventW(nullptr, TRUE, FALSE, nullptr);
  EXPECT_EQ(vorn::windows::MachineOf(no_process), 0u);
  EXPECT_EQ(GetProcessImageFileName(no_process), nullptr);
  CloseHandle(no_process);
}

}  // namespace
}  // namespace VornCore
