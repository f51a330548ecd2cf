#include "detours/thread_set.h"

namespace detours {
namespace {

#ifdef _WIN64
constexpr DWORD64 CONTEXT::*kInstructionPointer = &CONTEXT::Rip;
#else
constexpr DWORD CONTEXT::*kInstructionPointer = &CONTEXT::Eip;
#endif

// The place in the trampoline of the instruction at address, null when no moved instruction but the first
// begins there: a thread at the entry may as well enter through the jump.
const std::uint8_t* PlaceInTrampoline(const Trampoline& trampoline, std::uintptr_t address) noexcept {
  const auto target = reinterpret_cast<std::uintptr_t>(trampoline.target);
  for (std::size_t i = 1; i < trampoline.instructions; ++i) {
    if (target + trampoline.from[i] == address) return trampoline.code + trampoline.to[i];
  }
  return nullptr;
}

}  // namespace

LONG ThreadSet::Suspend(HANDLE thread) noexcept {
  const DWORD id = GetThreadId(thread);
  if (id == 0) return static_cast<LONG>(GetLastError());
  if (id == GetCurrentThreadId()) return NO_ERROR;
  if (!threads_.Add(thread)) return ERROR_NOT_ENOUGH_MEMORY;
  if (SuspendThread(thread) == static_cast<DWORD>(-1)) {
    const DWORD error = GetLastError();
    threads_.RemoveLast();
    return static_cast<LONG>(error);
  }
  return NO_ERROR;
}

LONG ThreadSet::MoveOut(const Trampoline& trampoline) noexcept {
  for (HANDLE thread : threads_) {
    CONTEXT context{};
    context.ContextFlags = CONTEXT_CONTROL;
    // Also waits until the thread stands still: suspending only asks it to.
    if (!GetThreadContext(thread, &context)) return static_cast<LONG>(GetLastError());
    const auto* place = PlaceInTrampoline(trampoline, context.*kInstructionPointer);
    if (!place) continue;
    context.*kInstructionPointer = reinterpret_cast<std::uintptr_t>(place);
    if (!SetThreadContext(thread, &context)) return static_cast<LONG>(GetLastError());
  }
  return NO_ERROR;
}

void ThreadSet::Resume() noexcept {
  for (HANDLE thread : threads_) ResumeThread(thread);
  threads_.Clear();
}

}  // namespace detours
