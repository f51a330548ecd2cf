// One crash dump file: what goes into it and how it is written.
//
// Runs on the dump thread, while the crashing thread waits. Any thread may call; nothing is shared.
#pragma once

#include <cstdint>

#include "Platform/debug_help.h"

namespace VornCore {

// Memory that a dump takes in besides what its type selects. The layout that DumpCallback is given.
struct ExtraMemory {
  std::int32_t count;  // 1: there is a range to hand out
  void* base;
  std::uint32_t size;  // bytes
};

// The 256 bytes around the instruction that faulted, cut to the committed region that contains it. No range
// when there is no context or nothing is committed there.
[[nodiscard]] ExtraMemory MemoryAroundFault(const EXCEPTION_POINTERS* pointers) noexcept;

// Answers the dump function's questions; parameter: an ExtraMemory, whose range is handed out once.
BOOL CALLBACK DumpCallback(PVOID parameter, PMINIDUMP_CALLBACK_INPUT input,
                           PMINIDUMP_CALLBACK_OUTPUT output) noexcept;

// Writes the dump of this process to a new file. thread_id: of the crashing thread; pointers may be null.
// False when there is no dump function, the file cannot be created (an existing one is never overwritten) or
// the dump function fails or faults, which leaves its partial file in place.
[[nodiscard]] bool WriteDump(std::uint32_t thread_id, std::uint32_t flag, EXCEPTION_POINTERS* pointers,
                             const wchar_t* path, std::uint32_t dump_type,
                             platform::MiniDumpWriteDumpFn dump) noexcept;

}  // namespace VornCore
