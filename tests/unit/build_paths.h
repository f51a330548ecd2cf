// Where the programs and DLLs of the build lie, seen from a test program of the same build.
#pragma once

#include <windows.h>

#include <filesystem>

namespace vorn::test {

// The libraries of this program's own bitness, and where a section (host::SectionContents) names them.
constexpr bool kX64 = sizeof(void*) == 8;
constexpr const char* kCoreDll = kX64 ? "vorn_core.dll" : "vorn_core32.dll";
constexpr const char* kIpcDll = kX64 ? "vorn_ipc.dll" : "vorn_ipc32.dll";
template <class Contents>
auto& OwnCore(Contents& section) {
  return kX64 ? section.core_x64 : section.core_x86;
}
template <class Contents>
auto& OtherCore(Contents& section) {
  return kX64 ? section.core_x86 : section.core_x64;
}
template <class Contents>
auto& OwnIpc(Contents& section) {
  return kX64 ? section.ipc_x64 : section.ipc_x86;
}

inline std::filesystem::path ThisProgram() {
  wchar_t path[32768];
  GetModuleFileNameW(nullptr, path, 32768);
  return path;
}

// A program or DLL of the build, such as "process_probe.exe".
inline std::filesystem::path BuildPath(const char* file) { return ThisProgram().parent_path() / file; }

}  // namespace vorn::test
