// Real hooks in this process: the dispatcher, registration and the way to the real functions.
#include <gtest/gtest.h>

#include <cstring>
#include <deque>
#include <functional>

#include "Platform/wine_nested_calls.h"
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
