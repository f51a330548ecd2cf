// What a thread is inside of, after a fault on a caller's bad pointer has left handlers of every family.
#include <cstring>
#include <functional>

#include "File/file_mgr.h"
#include "Load/load_dll_mgr.h"
#include "Net/net_mgr.h"
#include "Proc/proc_mgr.h"
#include "VornCore/Base/hook_depth_guard.h"
#include "VornCore/Hook/kernel_base.h"
#include "VornCore/Hook/ntdll.h"
#include "net_confinement.h"
#include "tests/stdcall.h"

namespace VornCore::test {
namespace {

template <class T>
T* Nowhere() {
  return reinterpret_cast<T*>(0x10);
}

const ThreadNesting& Nesting() { return *GetThreadState(); }

// A handler that leaves every flag set and runs body as its real call, which is entered by deleting "".
class UntidyHandler : public INtdllApiListener {
 public:
  static void Run(const std::function<void()>& body) {
    static UntidyHandler handler;
    static const bool registered = Ntdll::RegisterNtDeleteFileListener(&handler);
    ASSERT_TRUE(registered);
    const std::function<void()>* const outer = std::exchange(body_, &body);
    ::NtDeleteFile(nullptr);
    body_ = outer;
  }
  NTSTATUS NtDeleteFile(POBJECT_ATTRIBUTES, bool*) override {
    const HookDepthGuard handler;
    return handler.Real([&] {
      ThreadState* state = handler.state();
      state->scratchLevel += 2;
      state->bInCreateFile ^= 1;
      state->bInWriteFile = state->bOwnCall = state->bHelperInject = state->bInNetCall = 1;
      (*body_)();
      return STATUS_SUCCESS;
    });
  }

 private:
  static inline const std::function<void()>* body_ = nullptr;
};

struct BadCall {
  const char* what;
  std::function<void()> run;
  bool faults = true;  // false: the system answers with a status
};

const BadCall kBadCalls[] = {
    {"open",
     [] {
       HANDLE file;
       IO_STATUS_BLOCK io;
       ::NtCreateFile(&file, GENERIC_READ, Nowhere<OBJECT_ATTRIBUTES>(), &io, nullptr, 0, 0, FILE_OPEN, 0,
                      nullptr, 0);
     },
     false},
    {"change",
     [] {
       IO_STATUS_BLOCK io;
       ::NtSetInformationFile(GetCurrentProcess(), &io, Nowhere<void>(), 64,
                              static_cast<FILE_INFORMATION_CLASS>(nt::kFileRenameInformation));
     },
     false},
    {"move", [] { MoveFileWithProgressW(Nowhere<wchar_t>(), L"C:\\x", nullptr, nullptr, 0); }},
    {"load",
     [] {
       ::LdrResolveDelayLoadedAPI(GetModuleHandleW(nullptr), Nowhere<IMAGE_DELAYLOAD_DESCRIPTOR>(), nullptr,
                                  nullptr, nullptr, 0);
     }},
    {"names",
     [] {
       ADDRINFOW* info;
       (void)GetAddrInfoW(Nowhere<wchar_t>(), nullptr, nullptr, &info);
     }},
    {"completion",
     [] {
       DWORD n;
       (void)GetOverlappedResult(nullptr, Nowhere<OVERLAPPED>(), &n, FALSE);
     }},
    {"child",
     [] {
       HANDLE process, thread;
       ::NtCreateUserProcess(&process, &thread, 0, 0, nullptr, nullptr, 0, 0,
                             Nowhere<RTL_USER_PROCESS_PARAMETERS>(), nullptr, nullptr);
     },
     false},
};

TEST(HandlerFaults, BringBackTheWholeNestingThroughNestedHandlers) {
  SetNetRules({DefaultRule(1)});
  ASSERT_TRUE(Ntdll::Init() && KernelBase::Init());
  ASSERT_TRUE(GetFileMgr().Init() && GetNetMgr().Init() && CProcMgr::GetInstance()->Init() &&
              CLoadDllMgr::GetInstance()->Init());
  Ntdll::UnregisterNtDeleteFileListener(&GetFileMgr());
  CNetMgr::OnWs2_32Loaded(GetModuleHandleW(L"ws2_32.dll"), L"");

  ThreadState* const state = GetThreadState();
  state->bHelperInject = 1;  // the nesting to come back to is not all zero
  state->hookDepth = 5;
  state->scratchLevel = 1;
  const ThreadNesting before = Nesting();
  const auto expect_before = [&](const std::string& where) {
    EXPECT_EQ(memcmp(&Nesting(), &before, sizeof before), 0) << where;
    static_cast<ThreadNesting&>(*state) = before;
    state->bInLoader = 0;
  };

  for (const BadCall& call : kBadCalls) {
    EXPECT_EQ(platform::Guarded(call.run), !call.faults) << call.what;
    EXPECT_EQ(state->bInLoader, call.what == std::string("load")) << "a fault in the loader leaves its mark";
    expect_before(call.what);
    // Out of three handlers, and caught between the first and the second.
    const auto nested = [&] { UntidyHandler::Run(call.run); };
    (void)platform::Guarded([&] { UntidyHandler::Run([&] { UntidyHandler::Run(nested); }); });
    expect_before(std::string(call.what) + ", nested");
    UntidyHandler::Run([&] {
      const ThreadNesting inside = Nesting();
      (void)platform::Guarded(nested);
      EXPECT_EQ(memcmp(&Nesting(), &inside, sizeof inside), 0) << call.what << ", caught inside a handler";
    });
    expect_before(std::string(call.what) + ", caught");
  }
  *state = {};
}

TEST(LoaderMark, IsSetInsideTheLoaderAndClearedByANestedLoad) {
  static std::string marks;  // before and after the nested load
  const auto on_load = vorn::test::Stdcall([](ULONG reason, PCLDR_DLL_NOTIFICATION_DATA, PVOID) {
    if (reason != 1 || !marks.empty()) return;
    marks += std::to_string(GetThreadState()->bInLoader);
    ASSERT_TRUE(LoadLibraryW(L"version.dll"));
    marks += std::to_string(GetThreadState()->bInLoader);
  });
  void* cookie = nullptr;
  ASSERT_EQ(LdrRegisterDllNotification(0, on_load, nullptr, &cookie), STATUS_SUCCESS);
  ASSERT_TRUE(LoadLibraryW(L"cabinet.dll"));
  LdrUnregisterDllNotification(cookie);
  EXPECT_EQ(marks, "10");
  EXPECT_EQ(GetThreadState()->bInLoader, 0);
}

}  // namespace
}  // namespace VornCore::test
