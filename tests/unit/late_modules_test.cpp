// Late modules, with modules that this process really loads and unloads.
#include <gtest/gtest.h>

#include <string>

#include "VornCore/Hook/late_modules.h"

namespace VornCore {
namespace {

std::string events;

template <char kLetter>
bool Record(HMODULE module, const wchar_t*) {
  EXPECT_NE(module, nullptr);
  events += kLetter;
  return true;
}

// Not imported by the test program; loaded and unloaded below.
constexpr wchar_t kLateModule[] = L"version.dll";

ModuleHookEntry modules[] = {
    {L"NTDLL.dll", 0, Record<'n'>, Record<'x'>},    // there from the start
    {L"VERSION.dll", 0, Record<'l'>, Record<'u'>},  // comes and goes, spelled in another case
    {L"ersion.dll", 0, Record<'?'>, Record<'?'>},   // part of a name is no match
    {L"version.dll.dll", 0, Record<'?'>, nullptr},
};

TEST(LateModules, CallbacksRunOncePerLoadAndUnload) {
  ASSERT_FALSE(GetModuleHandleW(kLateModule));
  mod::Watch(modules);
  ASSERT_TRUE(mod::Init());
  EXPECT_EQ(events, "n") << "found by the scan";

  HMODULE module = LoadLibraryW(kLateModule);
  ASSERT_TRUE(module);
  EXPECT_EQ(events, "nl");
  ASSERT_TRUE(LoadLibraryW(kLateModule));
  mod::ScanLoadedModules();
  EXPECT_EQ(events, "nl") << "another reference is no load, and a scan finds nothing new";
  FreeLibrary(module);
  EXPECT_EQ(events, "nl");
  FreeLibrary(module);
  EXPECT_EQ(events, "nlu");
  ASSERT_TRUE((module = LoadLibraryW(kLateModule)));
  EXPECT_EQ(events, "nlul") << "the entry goes back and forth";
  FreeLibrary(module);

  EXPECT_TRUE(mod::UnInit());
  ASSERT_TRUE((module = LoadLibraryW(kLateModule)));
  EXPECT_EQ(events, "nlulu") << "no notification after the end";
  FreeLibrary(module);
}

// Strings of the loader are counted: what follows the count does not belong to the name.
TEST(LateModules, NamesAreComparedByTheirCount) {
  static ModuleHookEntry one[] = {{L"late.dll", 0, Record<'c'>, nullptr}};
  mod::Watch(one);
  events.clear();
  const auto notify = [](ULONG reason, const wchar_t* text, size_t units) {
    const UNICODE_STRING name = nt::CountedString(text, units * sizeof(wchar_t));
    const LDR_DLL_NOTIFICATION_DATA data{0, &name, &name, &events, 0};
    mod::OnDllNotification(reason, &data, nullptr);
  };
  notify(2, L"late.dll", 8);
  EXPECT_EQ(events, "") << "unloaded, but never seen loaded";
  notify(1, L"late.dllx", 9);
  notify(3, L"late.dll", 8);
  EXPECT_EQ(events, "");
  notify(1, L"LATE.dllx", 8);
  EXPECT_EQ(events, "c");
  notify(2, L"late.dll", 8);
  EXPECT_EQ(one[0].bLoaded, 0);
}

}  // namespace
}  // namespace VornCore
