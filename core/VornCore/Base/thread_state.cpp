#include "VornCore/Base/thread_state.h"

#include "Platform/heap.h"
#include "Platform/last_error.h"
#include "Policy/exit_code.h"

namespace VornCore {
namespace {

using vorn::policy::kExitBadScratch;
using vorn::policy::kExitScratchTooDeep;
using vorn::policy::kExitScratchUnderflow;

DWORD gs_tls_index = TLS_OUT_OF_INDEXES;

// The buffer capacity for a request: some room beyond it, in whole pages. 0 for what 32 bits cannot count.
std::uint32_t CapacityFor(std::uint32_t size) noexcept {
  const std::uint64_t capacity = (std::uint64_t{size} + 64 + 4095) & ~std::uint64_t{4095};
  return capacity > UINT32_MAX ? 0 : static_cast<std::uint32_t>(capacity);
}

}  // namespace

DWORD InitThreadState() noexcept {
  if (gs_tls_index != TLS_OUT_OF_INDEXES) return ERROR_SUCCESS;
  gs_tls_index = TlsAlloc();
  return gs_tls_index == TLS_OUT_OF_INDEXES ? GetLastError() : ERROR_SUCCESS;
}

ThreadState* GetThreadState(DWORD* last_error) noexcept {
  if (gs_tls_index == TLS_OUT_OF_INDEXES) return nullptr;
  platform::LastErrorKeeper keeper;
  auto* state = static_cast<ThreadState*>(TlsGetValue(gs_tls_index));
  if (!state) {
    state = static_cast<ThreadState*>(calloc(1, sizeof(ThreadState)));
    if (!state) return nullptr;
    if (!TlsSetValue(gs_tls_index, state)) {
      free(state);
      return nullptr;
    }
  }
  if (last_error) *last_error = keeper.value();
  return state;
}

bool HasThreadState() noexcept {
  if (gs_tls_index == TLS_OUT_OF_INDEXES) return false;
  platform::LastErrorKeeper keeper;
  return TlsGetValue(gs_tls_index) != nullptr;
}

void FreeThreadState() noexcept {
  if (!HasThreadState()) return;
  ThreadState* state = GetThreadState();
  platform::LastErrorKeeper keeper;
  TlsSetValue(gs_tls_index, nullptr);
  for (auto& slot : state->scratch)
    for (ScratchBuffer& buffer : slot) free(buffer.data);
  free(state);
}

void EnterScratchLevel(ThreadState* state) noexcept {
  if (++state->scratchLevel >= kScratchLevels) ExitProcess(kExitScratchTooDeep);
  state->scratchDynamic[state->scratchLevel] = 0;
}

void LeaveScratchLevel(ThreadState* state) noexcept {
  if (state->scratchLevel < 1) ExitProcess(kExitScratchUnderflow);
  --state->scratchLevel;
}

void* GetScratchBuffer(ThreadState* state, int slot, std::uint32_t size) noexcept {
  const std::int32_t level = state->scratchLevel;
  if (level < 0) ExitProcess(kExitScratchUnderflow);
  if (level >= kScratchLevels || slot < 0) ExitProcess(kExitBadScratch);
  if (slot >= kFirstDynamicSlot) slot = kFirstDynamicSlot + static_cast<int>(state->scratchDynamic[level]++);
  if (slot >= kScratchSlots) ExitProcess(kExitBadScratch);

  const std::uint32_t capacity = CapacityFor(size);
  if (capacity == 0) return nullptr;
  ScratchBuffer& buffer = state->scratch[slot][level];
  if (buffer.capacity < capacity) {
    void* grown = malloc(capacity);
    if (!grown) return nullptr;
    free(buffer.data);
    buffer = {grown, capacity};
  }
  return buffer.data;
}

}  // namespace VornCore
