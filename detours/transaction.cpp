// The transaction: attaches and detaches are prepared one by one and carried out together.
//
// Commit, in this order, so that a failure leaves no trace and no thread meets half a change:
//   trampolines executable → target pages writable → enlisted threads moved out        may fail, is undone
//   callers' pointers to the trampolines → jumps written → pages back → threads resumed   cannot fail
#include <atomic>
#include <cstring>

#include "detours/code/jump_chain.h"
#include "detours/code/prologue.h"
#include "detours/code/relocator.h"
#include "detours/detours.h"
#include "detours/patch.h"
#include "detours/thread_set.h"
#include "detours/trampoline.h"

namespace detours {
namespace {

using Byte = std::uint8_t;

constexpr DWORD kExecutable =
    PAGE_EXECUTE | PAGE_EXECUTE_READ | PAGE_EXECUTE_READWRITE | PAGE_EXECUTE_WRITECOPY;
constexpr int kMaxLinks = 16;  // of a jump chain; a longer one is a circle

std::uint64_t AddressOf(const void* p) noexcept { return reinterpret_cast<std::uintptr_t>(p); }
Byte* PointerTo(std::uint64_t address) noexcept { return reinterpret_cast<Byte*>(address); }

struct Operation {
  enum class Kind : Byte { kAttach, kDetach };
  Kind kind;
  Trampoline* trampoline;
  void** pointer;
  CodeUnlock unlock;

  // The bytes that the target starts with afterwards.
  [[nodiscard]] JumpBytes After() const noexcept {
    if (kind == Kind::kAttach) return trampoline->jump;
    JumpBytes bytes;
    memcpy(bytes.data(), trampoline->original.data(), bytes.size());
    return bytes;
  }
};

struct Memory {
  const void* allocation = nullptr;  // the module or block that an address lies in
  std::size_t executable = 0;        // bytes of code from the address on
};

Memory MemoryAt(const Byte* address) noexcept {
  Memory memory;
  MEMORY_BASIC_INFORMATION info;
  while (memory.executable < kScanSize && VirtualQuery(address + memory.executable, &info, sizeof(info))) {
    if (!memory.allocation) memory.allocation = info.AllocationBase;
    const bool code =
        info.State == MEM_COMMIT && (info.Protect & kExecutable) && !(info.Protect & PAGE_GUARD);
    if (!code) break;
    const auto end = AddressOf(info.BaseAddress) + info.RegionSize;
    memory.executable = static_cast<std::size_t>(end - AddressOf(address));
  }
  return memory;
}

class Transaction {
 public:
  LONG Begin() noexcept {
    DWORD none = 0;
    return owner_.compare_exchange_strong(none, GetCurrentThreadId()) ? NO_ERROR : ERROR_INVALID_OPERATION;
  }

  [[nodiscard]] bool IsMine() const noexcept { return owner_.load() == GetCurrentThreadId(); }

  LONG UpdateThread(HANDLE thread) noexcept { return Note(threads_.Suspend(thread)); }
  LONG Attach(void** pointer, void* detour) noexcept { return Note(PrepareAttach(pointer, detour)); }
  LONG Detach(void** pointer, void* detour) noexcept { return Note(PrepareDetach(pointer, detour)); }

  LONG Commit() noexcept {
    LONG error = error_;
    if (error == NO_ERROR) error = MakeReady();
    if (error == NO_ERROR) {
      CarryOut();
      pool_.Keep();
    } else {
      pool_.Drop(threads_moved_);
    }
    End();
    return error;
  }

  void Abort() noexcept {
    pool_.Drop(false);
    End();
  }

 private:
  // The first error of a transaction decides its commit.
  LONG Note(LONG error) noexcept {
    if (error_ == NO_ERROR) error_ = error;
    return error;
  }

  void End() noexcept {
    threads_.Resume();
    operations_.Clear();
    threads_moved_ = false;
    error_ = NO_ERROR;
    owner_.store(0);
  }

  LONG PrepareAttach(void** pointer, void* detour) noexcept {
    if (!pointer || !*pointer || !detour) return ERROR_INVALID_PARAMETER;
    Byte* target = FollowJumps(static_cast<Byte*>(*pointer));
    Byte bytes[kScanSize];
    const auto code = Read(target, bytes);
    if (code.empty()) return ERROR_INVALID_HANDLE;
    const auto prologue = AnalyzePrologue(code, AddressOf(target), kNativeMode);
    if (!prologue) return ERROR_INVALID_BLOCK;

    const std::size_t original_size = prologue->size < kJumpSize ? kJumpSize : prologue->size;
    const auto original = code.first(original_size);
    Trampoline* trampoline = pool_.FindRetired(target, original);
    if (!trampoline) {
      trampoline = pool_.Allocate(prologue->lowest, prologue->highest);
      if (!trampoline) return ERROR_NOT_ENOUGH_MEMORY;
      trampoline->target = target;
      trampoline->original_size = static_cast<Byte>(original_size);
      memcpy(trampoline->original.data(), original.data(), original_size);
      const LONG error = WriteTrampoline(*trampoline, *prologue, original);
      if (error != NO_ERROR) return error;
    }
    trampoline->given = *pointer;
    trampoline->detour = detour;
    const LONG error = AimJump(*trampoline);
    if (error != NO_ERROR) return error;
    trampoline->state = TrampolineState::kPending;
    return Add(Operation::Kind::kAttach, *trampoline, pointer);
  }

  LONG PrepareDetach(void** pointer, void* detour) noexcept {
    if (!pointer || !*pointer || !detour) return ERROR_INVALID_PARAMETER;
    Trampoline* trampoline = pool_.FindByCode(*pointer);
    if (!trampoline || trampoline->detour != detour) return ERROR_INVALID_PARAMETER;
    for (const Operation& operation : operations_) {
      if (operation.trampoline == trampoline) return ERROR_INVALID_PARAMETER;
    }
    Byte bytes[kScanSize];
    const auto code = Read(trampoline->target, bytes);
    if (code.size() < kJumpSize) return ERROR_INVALID_HANDLE;
    // Somebody patched the function after us: taking our jump away would take theirs.
    if (memcmp(code.data(), trampoline->jump.data(), kJumpSize) != 0) return ERROR_INVALID_BLOCK;
    return Add(Operation::Kind::kDetach, *trampoline, pointer);
  }

  LONG Add(Operation::Kind kind, Trampoline& trampoline, void** pointer) noexcept {
    return operations_.Add({kind, &trampoline, pointer, {}}) ? NO_ERROR : ERROR_NOT_ENOUGH_MEMORY;
  }

  // The code at address as the operations so far will leave it.
  std::span<const Byte> Read(const Byte* address, Byte (&bytes)[kScanSize]) noexcept {
    const std::size_t available = MemoryAt(address).executable;
    const std::size_t size = available < kScanSize ? available : kScanSize;
    memcpy(bytes, address, size);
    for (const Operation& operation : operations_) {
      const JumpBytes after = operation.After();
      for (std::size_t i = 0; i < kJumpSize; ++i) {
        const std::uint64_t offset = AddressOf(operation.trampoline->target + i) - AddressOf(address);
        if (offset < size) bytes[offset] = after[i];
      }
    }
    return {bytes, size};
  }

  // Import stubs lead out of a module through a slot that is data of theirs; linker thunks and hot-patched
  // entries lead on inside a module. A jump out of the module, or through a slot among code, is somebody's
  // patch: it is moved like any other instruction, so that both take their turn.
  Byte* FollowJumps(Byte* entry) noexcept {
    for (int i = 0; i < kMaxLinks; ++i) {
      Byte bytes[kScanSize];
      const auto code = Read(entry, bytes);
      if (code.empty() || IsOurJump(entry, code)) break;
      const auto link = LeadingJump(code, AddressOf(entry), kNativeMode);
      if (!link) break;
      const Memory memory = MemoryAt(PointerTo(link->address));
      if (memory.allocation != MemoryAt(entry).allocation) break;
      const bool slot = link->kind == Link::Kind::kSlot;
      if (slot == (memory.executable != 0)) break;
      entry = slot ? *reinterpret_cast<Byte**>(link->address) : PointerTo(link->address);
    }
    return entry;
  }

  bool IsOurJump(const Byte* entry, std::span<const Byte> code) noexcept {
    for (const Operation& operation : operations_) {
      if (operation.trampoline->target == entry && operation.kind == Operation::Kind::kAttach) return true;
    }
    const Trampoline* attached = pool_.FindAttached(entry);
    return attached && code.size() >= kJumpSize && memcmp(code.data(), attached->jump.data(), kJumpSize) == 0;
  }

  static LONG WriteTrampoline(Trampoline& trampoline, const Prologue& prologue,
                              std::span<const Byte> original) noexcept {
    const auto moved =
        Relocate(prologue, original, AddressOf(trampoline.target), AddressOf(trampoline.code), kNativeMode);
    if (!moved) return ERROR_INVALID_BLOCK;
    memcpy(trampoline.code, moved->bytes.data(), moved->size);
    trampoline.relay = static_cast<Byte>(moved->size);
    if constexpr (kNativeMode == Mode::kX64) {
      Byte* relay = trampoline.code + moved->size;
      const auto slot =
          static_cast<std::int32_t>(reinterpret_cast<Byte*>(trampoline.slot) - (relay + kRelaySize));
      relay[0] = 0xFF;  // jmp [rip+slot]
      relay[1] = 0x25;
      memcpy(relay + 2, &slot, sizeof(slot));
    }
    trampoline.instructions = prologue.count;
    trampoline.to = moved->begins;
    std::size_t at = 0;
    for (std::size_t i = 0; i < prologue.count; ++i) {
      trampoline.from[i] = static_cast<Byte>(at);
      at += prologue.instructions[i].length;
    }
    return NO_ERROR;
  }

  // The jump from the target to the detour, through the slot when the detour is out of reach.
  LONG AimJump(Trampoline& trampoline) noexcept {
    const std::uint64_t end = AddressOf(trampoline.target + kJumpSize);
    auto distance = RelativeDistance(end, AddressOf(trampoline.detour), kNativeMode);
    if (!distance) {
      if (!pool_.SetSlot(trampoline, trampoline.detour)) return ERROR_NOT_ENOUGH_MEMORY;
      distance = RelativeDistance(end, AddressOf(trampoline.code + trampoline.relay), kNativeMode);
      if (!distance) return ERROR_INVALID_BLOCK;
    }
    trampoline.jump[0] = 0xE9;
    memcpy(trampoline.jump.data() + 1, &*distance, sizeof(*distance));
    return NO_ERROR;
  }

  LONG MakeReady() noexcept {
    if (!pool_.Seal()) return static_cast<LONG>(GetLastError());
    for (std::size_t i = 0; i < operations_.size(); ++i) {
      if (operations_[i].unlock.Open(operations_[i].trampoline->target)) continue;
      const auto error = static_cast<LONG>(GetLastError());
      LockCode(i);
      return error;
    }
    const LONG error = threads_.Move([this](std::uintptr_t address) { return PlaceInTrampoline(address); });
    if (error != NO_ERROR) {
      threads_moved_ = true;
      LockCode(operations_.size());
    }
    return error;
  }

  // Where a thread goes on that stands between the first instructions of a function about to be patched; 0
  // for any other. At the entry itself it may as well meet the jump.
  std::uintptr_t PlaceInTrampoline(std::uintptr_t address) noexcept {
    for (const Operation& operation : operations_) {
      if (operation.kind == Operation::Kind::kDetach) continue;
      const Trampoline& trampoline = *operation.trampoline;
      for (std::size_t i = 1; i < trampoline.instructions; ++i) {
        if (AddressOf(trampoline.target + trampoline.from[i]) != address) continue;
        return reinterpret_cast<std::uintptr_t>(trampoline.code + trampoline.to[i]);
      }
    }
    return 0;
  }

  void CarryOut() noexcept {
    // A thread that meets the jump calls on through the pointer at once, so the pointers come first.
    for (Operation& operation : operations_) {
      if (operation.kind == Operation::Kind::kAttach) SetPointer(operation, operation.trampoline->code);
    }
    for (Operation& operation : operations_) ReplaceCode(operation.trampoline->target, operation.After());
    for (Operation& operation : operations_) {
      if (operation.kind == Operation::Kind::kDetach) SetPointer(operation, operation.trampoline->given);
      operation.trampoline->state =
          operation.kind == Operation::Kind::kAttach ? TrampolineState::kAttached : TrampolineState::kRetired;
    }
    LockCode(operations_.size());
  }

  static void SetPointer(const Operation& operation, void* value) noexcept {
    std::atomic_ref<void*>(*operation.pointer).store(value, std::memory_order_release);
  }

  void LockCode(std::size_t count) noexcept {
    while (count != 0) operations_[--count].unlock.Close();
  }

  std::atomic<DWORD> owner_{0};  // thread id, 0 = none
  LONG error_ = NO_ERROR;
  bool threads_moved_ = false;
  PageArray<Operation> operations_;
  ThreadSet threads_;
  TrampolinePool pool_;
};

constinit Transaction transaction;

}  // namespace
}  // namespace detours

using detours::transaction;

LONG WINAPI DetourTransactionBegin() { return transaction.Begin(); }

LONG WINAPI DetourUpdateThread(HANDLE thread) {
  return transaction.IsMine() ? transaction.UpdateThread(thread) : ERROR_INVALID_OPERATION;
}

LONG WINAPI DetourAttach(PVOID* pointer, PVOID detour) {
  return transaction.IsMine() ? transaction.Attach(pointer, detour) : ERROR_INVALID_OPERATION;
}

LONG WINAPI DetourDetach(PVOID* pointer, PVOID detour) {
  return transaction.IsMine() ? transaction.Detach(pointer, detour) : ERROR_INVALID_OPERATION;
}

LONG WINAPI DetourTransactionCommit() {
  return transaction.IsMine() ? transaction.Commit() : ERROR_INVALID_OPERATION;
}

LONG WINAPI DetourTransactionAbort() {
  if (!transaction.IsMine()) return ERROR_INVALID_OPERATION;
  transaction.Abort();
  return NO_ERROR;
}
