// Per-thread state: how intercepted calls recognise the library's own work and their own nesting, and the
// reusable buffers of path handling.
//
//   ThreadState* state = GetThreadState();
//   ScratchLevel level(state);                // while scratch buffers are in use
//   void* buffer = GetScratchBuffer(state, 0, bytes);
//
// Handlers do not look after their nesting by hand: see hook_depth_guard.h.
//
// A block belongs to its thread: nobody else touches it. It is created by the first GetThreadState and freed
// when the thread detaches.
#pragma once

#include <cstdint>

#include "windows/nt.h"

namespace VornCore {

inline constexpr int kScratchSlots = 8;  // 0 to 4 are named by the caller, 5 to 7 are dynamic
inline constexpr int kFirstDynamicSlot = 5;
inline constexpr int kScratchLevels = 16;

struct ScratchBuffer {
  void* data;
  std::uint32_t capacity;  // bytes
};

// What the thread is inside of. A handler saves and restores it as one value, so a flag that is added here
// comes back after a fault like all others.
struct ThreadNesting {
  std::int32_t scratchLevel;
  std::uint8_t bInCreateFile;  // inside the NtCreateFile handler
  std::uint8_t bInWriteFile;   // inside the NtWriteFile handler
  std::uint8_t bOwnCall;       // the library's own file work
  std::uint8_t bHelperInject;  // a helper process is being started
  std::uint8_t bInNetCall;     // inside a network handler's real call
  std::uint32_t hookDepth;     // listener operations active on this thread
};

struct ThreadState : ThreadNesting {
  ScratchBuffer scratch[kScratchSlots][kScratchLevels];
  std::uint32_t scratchDynamic[kScratchLevels];  // dynamic slots in use, per level
  std::uint8_t
      bInLoader;  // inside the real loader call: set, and cleared by its own rule, in Load/load_dll_mgr.cpp
  HANDLE hPendingThread;  // child whose injection waits for its first resume
  HANDLE hPendingProcess;
  DWORD pendingProcessId;  // tells the child from what its handles' values stand for later
};

// Allocates the thread-local storage index. 0 or the error of TlsAlloc.
[[nodiscard]] DWORD InitThreadState() noexcept;

// The calling thread's block, created when it has none; null when that is not possible. The thread's
// last-error value is the same on return as on entry, and is stored to *last_error when a block is returned.
ThreadState* GetThreadState(DWORD* last_error = nullptr) noexcept;

// Whether the calling thread has a block already. Never allocates; keeps the last-error value.
bool HasThreadState() noexcept;

// Frees the calling thread's block and its scratch buffers.
void FreeThreadState() noexcept;

// Misuse of the three ends the process with an exit code of Policy/exit_code.h.
void EnterScratchLevel(ThreadState* state) noexcept;
void LeaveScratchLevel(ThreadState* state) noexcept;
// A buffer of at least size bytes, valid until the slot is asked for again at this level; contents are not
// carried over when it grows. Null when memory is short. A slot of 5 or more asks for the level's next
// dynamic slot.
void* GetScratchBuffer(ThreadState* state, int slot, std::uint32_t size) noexcept;

class [[nodiscard]] ScratchLevel {
 public:
  explicit ScratchLevel(ThreadState* state) : state_(state) { EnterScratchLevel(state_); }
  ~ScratchLevel() { LeaveScratchLevel(state_); }
  ScratchLevel(const ScratchLevel&) = delete;
  ScratchLevel& operator=(const ScratchLevel&) = delete;

 private:
  ThreadState* state_;
};

// Marks the calling thread's file work as the library's own for a scope, so that the file handlers let it
// through. Scopes nest. Does nothing on a thread without a block.
class [[nodiscard]] OwnCallScope {
 public:
  OwnCallScope() : OwnCallScope(HasThreadState() ? GetThreadState() : nullptr) {}
  explicit OwnCallScope(ThreadState* state) : state_(state), before_(state ? state->bOwnCall : 0) {
    if (state_) state_->bOwnCall = 1;
  }
  ~OwnCallScope() {
    if (state_) state_->bOwnCall = before_;
  }
  OwnCallScope(const OwnCallScope&) = delete;
  OwnCallScope& operator=(const OwnCallScope&) = delete;

 private:
  ThreadState* state_;
  std::uint8_t before_;
};

}  // namespace VornCore
