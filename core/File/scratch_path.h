// Paths in the calling thread's scratch buffers. A path stays valid until its slot is asked for again at the
// same scratch level.
#pragma once

#include <cstring>
#include <string_view>

#include "VornCore/Base/thread_state.h"

namespace VornCore {

inline constexpr std::size_t kMaxPathUnits = 32767;  // what a counted string can hold

// Room for units UTF-16 units and a terminator; null when memory is short, the path would be too long, or the
// thread has no state.
inline wchar_t* ScratchPath(int slot, std::size_t units) noexcept {
  ThreadState* state = GetThreadState();
  if (!state || units > kMaxPathUnits) return nullptr;
  return static_cast<wchar_t*>(
      GetScratchBuffer(state, slot, static_cast<std::uint32_t>((units + 1) * sizeof(wchar_t))));
}

// Writes head, tail and a terminator to out, which has room for them and may be where head is already.
inline std::wstring_view TerminatedCopy(wchar_t* out, std::wstring_view head,
                                        std::wstring_view tail = {}) noexcept {
  if (out != head.data()) memmove(out, head.data(), head.size() * sizeof(wchar_t));
  memcpy(out + head.size(), tail.data(), tail.size() * sizeof(wchar_t));
  out[head.size() + tail.size()] = 0;
  return {out, head.size() + tail.size()};
}

}  // namespace VornCore
