#include "Platform/debug_help.h"

namespace VornCore::platform {

MiniDumpWriteDumpFn LoadMiniDumpWriteDump() noexcept {
  // From the system's folder alone: a library of that name beside the program would run on the dump thread,
  // whose file work is not confined.
  HMODULE library = LoadLibraryExW(L"dbghelp.dll", nullptr, LOAD_LIBRARY_SEARCH_SYSTEM32);
  if (!library) return nullptr;
  return reinterpret_cast<MiniDumpWriteDumpFn>(GetProcAddress(library, "MiniDumpWriteDump"));
}

}  // namespace VornCore::platform
