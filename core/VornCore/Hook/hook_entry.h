// One intercepted function: its listeners, the way to the real function, and the dispatcher between them.
#pragma once

#include <atomic>
#include <cstddef>

#include "Platform/guard.h"
#include "Platform/net_types.h"

namespace VornCore {

inline constexpr int kListenerSlots = 4;

template <class Listener, class Signature>
struct HookEntry;

// In static storage; its listeners and original are zero at load.
template <class Listener, class Result, class... Args>
struct HookEntry<Listener, Result(Args...)> {
  using Function = Result(WINAPI*)(Args...);

  // In call order; null is a free slot. A listener is never destroyed, so a dispatcher that read a slot just
  // before it was cleared still calls a live object, and relaxed accesses suffice.
  std::atomic<Listener*> listeners[kListenerSlots] = {};
  // Null until the table is installed; then the trampoline, or the target's address while nothing is patched.
  Function original = nullptr;
  // What CallOriginal goes through, never null: before the installation a function that calls original if it
  // can and fails otherwise; then original, or a bridge around it.
  Function bridged;

  bool Register(Listener* listener) noexcept {
    for (auto& slot : listeners)
      if (slot.load(std::memory_order_relaxed) == listener) return false;
    for (auto& slot : listeners) {
      Listener* free_slot = nullptr;
      if (slot.compare_exchange_strong(free_slot, listener, std::memory_order_relaxed)) return true;
    }
    return false;
  }

  void Unregister(Listener* listener) noexcept {
    for (auto& slot : listeners) {
      Listener* held = listener;
      if (slot.compare_exchange_strong(held, nullptr, std::memory_order_relaxed)) return;
    }
  }

  // The body of every dispatcher. Operation is the interface's operation of this function, known at compile
  // time. One listener is the usual case: its path is straight, and the scan of the other slots stands apart.
  template <auto Operation>
  Result Dispatch(Args... args) const {
    if (Listener* first = listeners[0].load(std::memory_order_relaxed)) [[likely]] {
      bool pass_on = false;
      Result result = (first->*Operation)(args..., &pass_on);
      if (!pass_on) [[likely]]
        return result;
    }
    return DispatchRest<Operation>(args...);
  }

  // Whether a call of target comes to this entry's dispatcher. Asked before there are listeners, by the
  // thread that installs the table: for its one call, which passes zeros, something that does nothing stands
  // in place of the real function. Other threads' calls go their usual way.
  bool Arrives(void* target) noexcept {
    if (listeners[0].load(std::memory_order_relaxed)) return true;
    proof = {.real = original, .thread = GetCurrentThreadId(), .arrived = false};
    original = &ArriveForProof;
    (void)platform::Guarded([&] { CallWithZeros(reinterpret_cast<Function>(target)); });
    original = proof.real;
    return proof.arrived;
  }

 private:
  // One table is installed at a time.
  struct Proof {
    Function real;
    DWORD thread;
    bool arrived;
  };
  inline static Proof proof;

  static Result WINAPI ArriveForProof(Args... args) {
    if (proof.thread != GetCurrentThreadId()) return proof.real(args...);
    proof.arrived = true;
    return Result{};
  }

  [[gnu::noinline]] static void CallWithZeros(Function function) { (void)function(Args{}...); }

  template <auto Operation>
  [[gnu::noinline]] Result DispatchRest(const Args&... args) const {
    for (int i = 1; i < kListenerSlots; ++i) {
      Listener* listener = listeners[i].load(std::memory_order_relaxed);
      if (!listener) continue;
      bool pass_on = false;
      Result result = (listener->*Operation)(args..., &pass_on);
      if (!pass_on) return result;
    }
    return original(args...);
  }
};

// What a call of a function that was never installed answers, by the kind of its result.
template <class Result>
Result FailWith(Result value, DWORD last_error) noexcept {
  SetLastError(last_error);
  return value;
}
inline NTSTATUS FailStatus() noexcept { return STATUS_PROCEDURE_NOT_FOUND; }
inline BOOL FailBool() noexcept { return FailWith(FALSE, ERROR_PROC_NOT_FOUND); }
inline LONG FailWin32Code() noexcept { return ERROR_PROC_NOT_FOUND; }
// Winsock keeps its error where the thread's last error is.
inline int FailSocket() noexcept { return FailWith(SOCKET_ERROR, WSASYSCALLFAILURE); }
inline SOCKET FailSocketHandle() noexcept { return FailWith(INVALID_SOCKET, WSASYSCALLFAILURE); }
inline int FailWinsockCode() noexcept { return FailWith(WSASYSNOTREADY, WSASYSNOTREADY); }
inline std::nullptr_t FailNull() noexcept { return FailWith(nullptr, ERROR_PROC_NOT_FOUND); }

}  // namespace VornCore
