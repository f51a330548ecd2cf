// Where the programs and DLLs of the build lie, seen from a test program of the same build.
#pragma once

#include <windows.h>

#include <filesystem>

namespace vorn::test {

inline std::filesystem::path ThisProgram() {
  wchar_t path[32768];
  GetModuleFileNameW(nullptr, path, 32768);
  return path;
}

// A program or DLL of the build, such as "process_probe.exe".
inline std::filesystem::path BuildPath(const char* file) { return ThisProgram().parent_path() / file; }

}  // namespace vorn::test
