// The environment block that a child is created with.
#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "Proc/child_environment.h"

namespace VornCore {
namespace {

using namespace std::literals;

constexpr wchar_t kVariable[] = L"VORN_SHARED_DATA_NAME";

class ChildEnvironment : public testing::Test {
 protected:
  void SetUp() override { SetEnvironmentVariableW(kVariable, L"\\BaseNamedObjects\\s"); }
  void TearDown() override { SetEnvironmentVariableW(kVariable, nullptr); }

  // The block that a child would get for entries (an empty string ends them), as one string with its size.
  static std::wstring Extended(std::wstring entries, bool* unchanged = nullptr) {
    SIZE_T size = entries.size() * sizeof(wchar_t);
    wchar_t* block = GetExtraEnvironment(entries.data(), &size);
    const std::wstring result(block, size / sizeof(wchar_t));
    if (unchanged) *unchanged = block == entries.data();
    if (block != entries.data()) free(block);
    return result;
  }
};

TEST_F(ChildEnvironment, NamesTheSectionBehindTheCallersEntries) {
  const std::wstring expected = L"A=1\0B=2\0VORN_SHARED_DATA_NAME=\\BaseNamedObjects\\s\0\0"s;
  for (const std::wstring& block : {L"A=1\0B=2\0\0"s, L"A=1\0B=2\0\0spare"s}) {
    const std::wstring extended = Extended(block);
    EXPECT_EQ(extended.substr(0, expected.size()), expected);
    EXPECT_EQ(extended.size() % 4, 0u) << "a multiple of eight bytes";
    EXPECT_LT(extended.size(), expected.size() + 4);
  }
}

TEST_F(ChildEnvironment, AnEntryInAnyLetterCaseIsLeftAlone) {
  for (const std::wstring& block : {L"VORN_SHARED_DATA_NAME=x\0\0"s, L"A=1\0vorn_Shared_data_NAME=\0\0"s}) {
    bool unchanged = false;
    Extended(block, &unchanged);
    EXPECT_TRUE(unchanged);
  }
  bool unchanged = true;
  Extended(L"VORN_SHARED_DATA_NAME2=x\0\0"s, &unchanged);
  EXPECT_FALSE(unchanged) << "another variable";
}

TEST_F(ChildEnvironment, NothingIsAddedWhenThisProcessDoesNotNameTheSection) {
  bool unchanged = false;
  SetEnvironmentVariableW(kVariable, std::wstring(256, L'v').c_str());
  Extended(L"A=1\0\0"s, &unchanged);
  EXPECT_TRUE(unchanged) << "too long";
  SetEnvironmentVariableW(kVariable, nullptr);
  Extended(L"A=1\0\0"s, &unchanged);
  EXPECT_TRUE(unchanged);
}

TEST_F(ChildEnvironment, BlocksThatLieAboutTheirSizeAreLeftAlone) {
  auto* const page = static_cast<wchar_t*>(VirtualAlloc(nullptr, 8192, MEM_RESERVE, PAGE_NOACCESS));
  ASSERT_TRUE(page);
  ASSERT_TRUE(VirtualAlloc(page, 4096, MEM_COMMIT, PAGE_READWRITE));
  for (int i = 0; i < 2048; ++i) page[i] = L'e';  // no terminator up to the end of what can be read

  for (SIZE_T stated : {SIZE_T{4096}, SIZE_T{8192}, SIZE_T{1}, SIZE_T{2}, ~SIZE_T{0}}) {
    SIZE_T size = stated;
    EXPECT_EQ(GetExtraEnvironment(page, &size), page);
    EXPECT_EQ(size, stated);
  }
  SIZE_T none = 0;
  EXPECT_EQ(GetExtraEnvironment(page, &none), page);
  EXPECT_EQ(GetExtraEnvironment(page, nullptr), page);
  EXPECT_EQ(GetExtraEnvironment(nullptr, &none), nullptr);
  VirtualFree(page, 0, MEM_RELEASE);
}

}  // namespace
}  // namespace VornCore
