// The mark that a thread carries inside the real loader.
#include <gtest/gtest.h>

#include <functional>

#include "Load/load_dll_mgr.h"
#include "Platform/guard.h"
#include "VornCore/Base/thread_state.h"

namespace VornCore {
namespace {

// Looks at the thread each time the loader announces a module.
std::function<void()> on_load;

void CALLBACK OnNotification(ULONG reason, PCLDR_DLL_NOTIFICATION_DATA, PVOID) {
  if (reason == 1 && on_load) on_load();
}

class LoadMark : public testing::Test {
 protected:
  static void SetUpTestSuite() {
    ASSERT_EQ(InitThreadState(), 0u);
    ASSERT_TRUE(Ntdll::Init());
    ASSERT_TRUE(CLoadDllMgr::GetInstance()->Init());
    ASSERT_EQ(LdrRegisterDllNotification(0, OnNotification, nullptr, &cookie_), STATUS_SUCCESS);
  }
  static void TearDownTestSuite() {
    LdrUnregisterDllNotification(cookie_);
    CLoadDllMgr::GetInstance()->UnInit();
    Ntdll::UnInit();
  }
  void TearDown() override {
    on_load = nullptr;
    state_->bInLoader = 0;
  }
  static inline PVOID cookie_ = nullptr;
  ThreadState* state_ = GetThreadState();
};

TEST_F(LoadMark, IsSetInsideTheLoaderAndGoneAfterwards) {
  int inside = -1;
  unsigned depth = 0;
  on_load = [&] {
    inside = state_->bInLoader;
    depth = state_->hookDepth;
  };
  HMODULE module = LoadLibraryW(L"version.dll");
  ASSERT_TRUE(module);
  EXPECT_EQ(inside, 1);
  EXPECT_EQ(depth, 1u);
  EXPECT_EQ(state_->bInLoader, 0);
  EXPECT_EQ(state_->hookDepth, 0u);
  FreeLibrary(module);
}

TEST_F(LoadMark, NestedLoadClearsItForTheRestOfTheOuterOne) {
  int before = -1, after = -1;
  HMODULE nested = nullptr;
  on_load = [&] {
    if (before != -1) return;
    before = state_->bInLoader;
    nested = LoadLibraryW(L"version.dll");
    after = state_->bInLoader;
  };
  HMODULE module = LoadLibraryW(L"cabinet.dll");
  ASSERT_TRUE(module && nested);
  EXPECT_EQ(before, 1);
  EXPECT_EQ(after, 0);
  EXPECT_EQ(state_->hookDepth, 0u);
  FreeLibrary(nested);
  FreeLibrary(module);
}

TEST_F(LoadMark, FaultInTheLoaderRestoresTheDepthButNotTheMark) {
  // The delay-load resolver reads its descriptor: a bad one faults inside the real function.
  DWORD code = 0;
  auto* const nowhere = reinterpret_cast<IMAGE_DELAYLOAD_DESCRIPTOR*>(0x10);
  EXPECT_FALSE(platform::Guarded(
      [&] { ::LdrResolveDelayLoadedAPI(GetModuleHandleW(nullptr), nowhere, nullptr, nullptr, nullptr, 0); },
      &code));
  EXPECT_EQ(code, static_cast<DWORD>(STATUS_ACCESS_VIOLATION));
  EXPECT_EQ(state_->hookDepth, 0u);
  EXPECT_EQ(state_->bInLoader, 1);
}

}  // namespace
}  // namespace VornCore
