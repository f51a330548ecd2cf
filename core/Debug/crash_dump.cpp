#include "Debug/crash_dump.h"

#include <algorithm>

#include "Platform/guard.h"
#include "Policy/crash_dump.h"
#include "windows/unique_handle.h"

namespace VornCore {
namespace {

constexpr std::uintptr_t kBytesAroundFault = 128;  // before and after

std::uintptr_t InstructionPointer(const CONTEXT& context) noexcept {
#ifdef _WIN64
  return context.Rip;
#else
  return context.Eip;
#endif
}

}  // namespace

ExtraMemory MemoryAroundFault(const EXCEPTION_POINTERS* pointers) noexcept {
  if (!pointers || !pointers->ContextRecord) return {};
  const std::uintptr_t at = InstructionPointer(*pointers->ContextRecord);
  MEMORY_BASIC_INFORMATION region;
  if (!VirtualQueryEx(GetCurrentProcess(), reinterpret_cast<void*>(at), &region, sizeof region) ||
      region.State != MEM_COMMIT)
    return {};
  const auto base = reinterpret_cast<std::uintptr_t>(region.BaseAddress);
  // Counted from the instruction, so that nothing wraps around at the ends of the address space.
  const std::uintptr_t start = at - std::min(kBytesAroundFault, at - base);
  const std::uintptr_t end = at + std::min<std::uintptr_t>(kBytesAroundFault, base + region.RegionSize - at);
  return {1, reinterpret_cast<void*>(start), static_cast<std::uint32_t>(end - start)};
}

BOOL CALLBACK DumpCallback(PVOID parameter, PMINIDUMP_CALLBACK_INPUT input,
                           PMINIDUMP_CALLBACK_OUTPUT output) noexcept {
  switch (input->CallbackType) {
    case ModuleCallback:
    case ThreadCallback:
    case IncludeThreadCallback:
    case IncludeModuleCallback:
      return TRUE;
    case MemoryCallback: {
      auto& memory = *static_cast<ExtraMemory*>(parameter);
      if (--memory.count < 0) return FALSE;
      output->MemoryBase = reinterpret_cast<std::uintptr_t>(memory.base);
      output->MemorySize = memory.size;
      return TRUE;
    }
    case CancelCallback:
      output->Cancel = FALSE;
      output->CheckCancel = FALSE;
      return TRUE;
    default:
      return FALSE;
  }
}

bool WriteDump(std::uint32_t thread_id, std::uint32_t flag, EXCEPTION_POINTERS* pointers, const wchar_t* path,
               std::uint32_t dump_type, platform::MiniDumpWriteDumpFn dump) noexcept {
  if (!dump) return false;
  const vorn::windows::UniqueHandle file(
      CreateFileW(path, GENERIC_WRITE, 0, nullptr, CREATE_NEW, FILE_ATTRIBUTE_NORMAL, nullptr));
  if (!file) return false;

  MINIDUMP_EXCEPTION_INFORMATION exception = {
      .ThreadId = thread_id, .ExceptionPointers = pointers, .ClientPointers = FALSE};
  vorn::policy::DumpUserStream about = {
      .crashing_thread_id = thread_id, .dump_thread_id = GetCurrentThreadId(), .flag = flag};
  MINIDUMP_USER_STREAM stream = {
      .Type = vorn::policy::kDumpUserStream, .BufferSize = sizeof about, .Buffer = &about};
  MINIDUMP_USER_STREAM_INFORMATION streams = {.UserStreamCount = 1, .UserStreamArray = &stream};
  ExtraMemory memory = {};
  MINIDUMP_CALLBACK_INFORMATION callback = {.CallbackRoutine = DumpCallback, .CallbackParam = &memory};
  bool written = false;
  (void)platform::Guarded([&] {
    memory = MemoryAroundFault(pointers);
    written =
        dump(GetCurrentProcess(), GetCurrentProcessId(), file.get(), static_cast<MINIDUMP_TYPE>(dump_type),
             pointers ? &exception : nullptr, &streams, &callback) != FALSE;
  });
  return written;
}

}  // namespace VornCore
