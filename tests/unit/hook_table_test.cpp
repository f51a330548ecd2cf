// Real hooks in this process: the dispatcher, registration, the way to the real functions, and what a table
// does about functions that it cannot find or patch.
#include <gtest/gtest.h>

#include <cstring>
#include <deque>
#include <functional>

#include "Platform/wine_nested_calls.h"
#include "VornCore/Hook/dnsapi.h"
#include "VornCore/Hook/hook_entry.h"
#include "VornCore/Hook/hook_table.h"
#include "VornCore/Hook/ntdll.h"
#include "VornCore/Hook/ws2_32.h"

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

TEST_F(NtdllHooks, FreedSlotIsTheNextOneTaken) {
  Listener a('a'), b('b'), c('c');
  ASSERT_TRUE(Register(a) && Register(b));
  Ntdll::UnregisterNtDeleteFileListener(&a);
  Ntdll::UnregisterNtDeleteFileListener(&c);  // not registered: changes nothing
  ASSERT_TRUE(Register(c));
  DeleteByName();
  EXPECT_EQ(calls, "cb");
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

TEST_F(NtdllHooks, DefaultListenerMakesTheRealCall) {
  INtdllApiListener without_opinion;
  Listener unreached('A');
  ASSERT_TRUE(Ntdll::RegisterNtDeleteFileListener(&without_opinion));
  ASSERT_TRUE(Register(unreached));
  EXPECT_EQ(DeleteByName(), unhooked_status_);
  EXPECT_EQ(calls, "");
  Ntdll::UnregisterNtDeleteFileListener(&without_opinion);
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

TEST(NeverInstalled, CallOriginalFailsAsTheFunctionWould) {
  SetLastError(0);
  EXPECT_EQ(Ws2_32::CallOriginalclosesocket(1), SOCKET_ERROR);
  EXPECT_NE(GetLastError(), 0u);
  EXPECT_EQ(Ws2_32::CallOriginalWSASocketW(AF_INET, SOCK_STREAM, 0, nullptr, 0, 0), INVALID_SOCKET);
  EXPECT_NE(Ws2_32::CallOriginalGetAddrInfoW(L"a", nullptr, nullptr, nullptr), 0);
  EXPECT_EQ(Ws2_32::CallOriginalgethostbyname("a"), nullptr);
  EXPECT_NE(Dnsapi::CallOriginalDnsQueryEx(nullptr, nullptr, nullptr), 0);
}

TEST(LateTables, LeaveOutWhatTheModuleDoesNotExport) {
  class Names : public IDnsapiApiListener {
   public:
    DNS_STATUS DnsQuery_A(PCSTR, WORD, DWORD, PVOID, PDNS_RECORD*, PVOID*, bool*) override { return 4711; }
  } names;
  HMODULE dnsapi = LoadLibraryW(L"dnsapi.dll");
  ASSERT_TRUE(dnsapi);
  ASSERT_TRUE(Dnsapi::Init(dnsapi));
  ASSERT_TRUE(Dnsapi::RegisterDnsQuery_AListener(&names));
  auto query = reinterpret_cast<DNS_STATUS(WINAPI*)(PCSTR, WORD, DWORD, PVOID, PDNS_RECORD*, PVOID*)>(
      GetProcAddress(dnsapi, "DnsQuery_A"));
  EXPECT_EQ(query("a.invalid", DNS_TYPE_A, 0, nullptr, nullptr, nullptr), 4711);
  if (!GetProcAddress(dnsapi, "DnsQueryEx")) {
    EXPECT_NE(Dnsapi::CallOriginalDnsQueryEx(nullptr, nullptr, nullptr), 0) << "left out";
  }
  // A function that was left out does not stand in the way of the removal.
  const auto* code = reinterpret_cast<const unsigned char*>(query);
  const unsigned char patched = *code;
  Dnsapi::UnInit();
  EXPECT_NE(*code, patched);
  Dnsapi::UnregisterDnsQuery_AListener(&names);
}

// Two functions in memory of our own: one that can be patched, and one that is a single byte long, directly
// followed by another function.
class RejectedAttach : public testing::Test {
 protected:
  void SetUp() override {
    code_ = static_cast<unsigned char*>(
        VirtualAlloc(nullptr, 4096, MEM_COMMIT | MEM_RESERVE, PAGE_EXECUTE_READWRITE));
    ASSERT_TRUE(code_);
    memset(code_, 0xC3, 64);
    const unsigned char returns_seven[] = {0xB8, 7, 0, 0, 0, 0x83, 0xC0, 0, 0x83, 0xC0, 0, 0x90, 0x90, 0xC3};
    memcpy(code_, returns_seven, sizeof returns_seven);
    targets_[0] = code_;
    targets_[1] = code_ + 32;
  }
  void TearDown() override { VirtualFree(code_, 0, MEM_RELEASE); }
  static int WINAPI Hooked() { return entry_.Dispatch<&Interface::Answer>(); }

  struct Interface {
    virtual int Answer(bool*) { return 8; }
  };
  static int WINAPI Uninstalled() { return -1; }
  static inline HookEntry<Interface, int()> entry_{.bridged = Uninstalled},
      short_entry_{.bridged = Uninstalled};
  unsigned char* code_ = nullptr;
  void* targets_[2] = {};
};

TEST_F(RejectedAttach, PatchesNothingOfTheTable) {
  const auto row = [this](int index, HookEntry<Interface, int()>& entry) {
    return HookRow{"f", &targets_[index], reinterpret_cast<void*>(Hooked),
                   reinterpret_cast<void**>(&entry.original), reinterpret_cast<void**>(&entry.bridged)};
  };
  const auto function = reinterpret_cast<int(WINAPI*)()>(code_);
  Interface listener;
  ASSERT_TRUE(entry_.Register(&listener));

  const HookRow both[] = {row(0, entry_), row(1, short_entry_)};
  InstallTable({.rows = both}, nullptr);
  EXPECT_EQ(function(), 7) << "the good function is as it was";
  EXPECT_EQ(entry_.bridged(), 7);

  const HookRow good[] = {row(0, entry_)};
  InstallTable({.rows = good}, nullptr);
  EXPECT_EQ(function(), 8);
  EXPECT_EQ(entry_.bridged(), 7);
  RemoveTable({.rows = good});
  EXPECT_EQ(function(), 7);
  entry_.Unregister(&listener);
}

}  // namespace
}  // namespace VornCore
