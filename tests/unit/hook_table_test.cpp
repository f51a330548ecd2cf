// Real hooks in this process: the dispatcher, registration and the way to the real functions.
#include <gtest/gtest.h>

#include <cstring>
#include <deque>
#include <functional>

#include "Platform/wine_nested_calls.h"
#include "VornCore/Hook/late_modules.h"
#include "VornCore/Hook/ntdll.h"

extern "C" {
VORN_IMPORT(GetProcAddress, 8);
}

namespace VornCore {
namespace {

constexpr NTSTATUS kDecided = 0x00C0FFEE;

std::string calls;  // the letters of the listeners that were asked

// Answers NtDeleteFile (which nothing calls by itself): a capital letter decides, a small one passes on.
class Listener : public INtdllApiListener {
 public:
  using Look = std::function<void(POBJECT_ATTRIBUTES)>;
  explicit Listener(char letter, Look look = {}) : letter_(letter), look_(std::move(look)) {}
  NTSTATUS NtDeleteFile(POBJECT_ATTRIBUTES ObjectAttributes, bool* bPassOn) override {
    calls += letter_;
    if (look_) look_(ObjectAttributes);
    *bPassOn = letter_ >= 'a';
    return kDecided;
  }

 private:
  char letter_;
  Look look_;
};

// Deletes a file that is not there; goes through the patched function as any caller would.
NTSTATUS DeleteByName(const wchar_t* path = L"\\??\\C:\\hook_table_test\\absent") {
  UNICODE_STRING name = nt::CountedString(path, wcslen(path) * sizeof(wchar_t));
  OBJECT_ATTRIBUTES attributes = nt::NamedObject(&name);
  return ::NtDeleteFile(&attributes);
}

class NtdllHooks : public testing::Test {
 protected:
  void SetUp() override {
    unhooked_status_ = DeleteByName();
    calls.clear();
    ASSERT_TRUE(Ntdll::Init());
  }
  void TearDown() override {
    for (Listener* listener : registered_) Ntdll::UnregisterNtDeleteFileListener(listener);
    Ntdll::UnInit();
    EXPECT_EQ(DeleteByName(), unhooked_status_) << "removed";
  }
  bool Register(Listener& listener) {
    registered_.push_back(&listener);
    return Ntdll::RegisterNtDeleteFileListener(&listener);
  }
  NTSTATUS unhooked_status_ = 0;
  std::vector<Listener*> registered_;
};

TEST_F(NtdllHooks, ChangedArgumentsReachTheNextListenerAndTheRealFunction) {
  USHORT seen = 1;
  Listener emptying('a', [](POBJECT_ATTRIBUTES attributes) { attributes->ObjectName->Length = 0; });
  Listener looking('b', [&](POBJECT_ATTRIBUTES attributes) { seen = attributes->ObjectName->Length; });
  ASSERT_TRUE(Register(emptying) && Register(looking));
  EXPECT_NE(DeleteByName(), unhooked_status_) << "an empty name fails otherwise than a missing file";
  EXPECT_EQ(seen, 0);
}

TEST_F(NtdllHooks, ListenersAreAskedInOrderUntilOneDecides) {
  const struct {
    const char* letters;  // a fifth listener finds no room
    NTSTATUS status;
    const char* asked;
  } cases[] = {{"aBC", kDecided, "aB"}, {"abcdE", unhooked_status_, "abcd"}, {"", unhooked_status_, ""}};
  for (const auto& c : cases) {
    calls.clear();
    std::deque<Listener> listeners;
    for (const char* letter = c.letters; *letter; ++letter) {
      listeners.emplace_back(*letter);
      EXPECT_EQ(Register(listeners.back()), listeners.size() <= 4);
      EXPECT_FALSE(Ntdll::RegisterNtDeleteFileListener(&listeners.back())) << "registered twice";
    }
    EXPECT_EQ(DeleteByName(), c.status);
    EXPECT_EQ(calls, c.asked);
    for (Listener& listener : listeners) Ntdll::UnregisterNtDeleteFileListener(&listener);
  }
  registered_.clear();
}

TEST_F(NtdllHooks, CallOriginalDoesNotDispatchAgain) {
  NTSTATUS real = 0;
  Listener calling(
      'A', [&](POBJECT_ATTRIBUTES attributes) { real = Ntdll::CallOriginalNtDeleteFile(attributes); });
  ASSERT_TRUE(Register(calling));
  EXPECT_EQ(DeleteByName(), kDecided);
  EXPECT_EQ(real, unhooked_status_);
  EXPECT_EQ(calls, "A");
}

// A compatibility shim or the verifier answers lookups with a function of its own, which not every caller
// uses.
NTSTATUS NTAPI ShimOfDelete(POBJECT_ATTRIBUTES) { return STATUS_SUCCESS; }
FARPROC WINAPI ShimOfLookup(HMODULE, LPCSTR) { return reinterpret_cast<FARPROC>(&ShimOfDelete); }

TEST_F(NtdllHooks, TargetIsTheExportWhateverALookupAnswers) {
  Ntdll::UnInit();
  void* const page = const_cast<void**>(&imp_GetProcAddress);
  auto* const slot =
      static_cast<void* volatile*>(page);  // volatile: the compiler takes a slot for a constant
  DWORD protection;
  ASSERT_TRUE(VirtualProtect(page, sizeof *slot, PAGE_READWRITE, &protection));
  void* const real = *slot;
  *slot = reinterpret_cast<void*>(&ShimOfLookup);
  Ntdll::Init();
  *slot = real;
  VirtualProtect(page, sizeof *slot, protection, &protection);
  Listener deciding('A');
  ASSERT_TRUE(Register(deciding));
  EXPECT_EQ(DeleteByName(), kDecided);
}

// ---- Modules that come late, here ones that this process really loads and unloads ----

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
  const struct {
    ULONG reason;
    const wchar_t* text;
    std::size_t units;
    const char* events;
  } cases[] = {{2, L"late.dll", 8, ""},  // unloaded, but never seen loaded
               {1, L"late.dllx", 9, ""},
               {3, L"late.dll", 8, ""},
               {1, L"LATE.dllx", 8, "c"},
               {2, L"late.dll", 8, "c"}};
  for (const auto& c : cases) {
    const UNICODE_STRING name = nt::CountedString(c.text, c.units * sizeof(wchar_t));
    const LDR_DLL_NOTIFICATION_DATA data{0, &name, &name, &events, 0};
    mod::OnDllNotification(c.reason, &data, nullptr);
    EXPECT_EQ(events, c.events) << &c - cases;
  }
  EXPECT_EQ(one[0].bLoaded, 0);
}

// Two exports of which the second one calls the first, or does not.
namespace nested {
using Function = int(WINAPI*)(int);
using Inner = platform::wine::NestedCall<100, Function, -1>;
using Outer = platform::wine::NestedCall<101, Function, -1>;
constexpr auto kAsk = [](auto call) { call(-5); };
Function patched_inner;
int WINAPI RealInner(int x) { return x; }
int WINAPI InnerDispatcher(int x) { return 100 + x; }
int WINAPI CallingOuter(int x) { return patched_inner(x) + patched_inner(x); }
int WINAPI IndependentOuter(int x) { return x; }
Function MarkCallInto(Function outer) {
  return reinterpret_cast<Function>(Outer::MarkCallInto<Inner, kAsk>(reinterpret_cast<void*>(outer)));
}
}  // namespace nested

TEST(NestedCalls, OnlyTheInnerCallOfAPairThatReallyNestsPassesThrough) {
  using namespace nested;
  Inner::MarkEntry(reinterpret_cast<void*>(RealInner));
  patched_inner = reinterpret_cast<Function>(Inner::SkipWhenNested(reinterpret_cast<void*>(InnerDispatcher)));
  EXPECT_EQ(MarkCallInto(IndependentOuter), &IndependentOuter) << "asked, and left alone";
  const Function outer = MarkCallInto(CallingOuter);
  EXPECT_NE(outer, &CallingOuter);
  EXPECT_EQ(outer(1), 1 + 101) << "the first call is the outer one's own; what follows is somebody else's";
  EXPECT_EQ(patched_inner(1), 101);
}

}  // namespace
}  // namespace VornCore
