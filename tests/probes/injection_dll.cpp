// The DLL that the injection test puts into its probes. Built like the library itself: no runtime, imports
// from ntdll and kernel32 alone.
#include <windows.h>

#include <cstring>

#include "detours/detours.h"
#include "tests/probes/injection_record.h"

namespace {

// The headers in memory are the file's, apart from the field in which the loader notes the base.
bool HeaderIsTheFiles(const BYTE* base) {
  static BYTE file[0x1000];
  wchar_t path[MAX_PATH];
  if (!GetModuleFileNameW(nullptr, path, MAX_PATH)) return false;
  HANDLE handle = CreateFileW(path, GENERIC_READ, FILE_SHARE_READ, nullptr, OPEN_EXISTING, 0, nullptr);
  if (handle == INVALID_HANDLE_VALUE) return false;
  DWORD size = 0;
  const bool read = ReadFile(handle, file, sizeof(file), &size, nullptr);
  CloseHandle(handle);
  if (!read || size < sizeof(IMAGE_DOS_HEADER)) return false;
  auto* nt = reinterpret_cast<IMAGE_NT_HEADERS*>(file + reinterpret_cast<IMAGE_DOS_HEADER*>(file)->e_lfanew);
  nt->OptionalHeader.ImageBase = reinterpret_cast<ULONG_PTR>(base);
  const DWORD headers = nt->OptionalHeader.SizeOfHeaders;
  return memcmp(file, base, headers < size ? headers : size) == 0;
}

char NameLetter(HINSTANCE dll) {
  wchar_t path[MAX_PATH];
  DWORD at = GetModuleFileNameW(dll, path, MAX_PATH);
  while (at > 0 && path[at - 1] != L'\\') --at;
  return static_cast<char>(path[at]);
}

}  // namespace

BOOL WINAPI DllMain(HINSTANCE dll, DWORD reason, LPVOID) {
  if (DetourIsHelperProcess() || reason != DLL_PROCESS_ATTACH) return TRUE;
  InjectionRecord* record = OpenInjectionRecord();
  if (!record) return TRUE;
  const bool first = record->events == 0;
  RecordInjectionEvent(record, NameLetter(dll));
  if (!first) return TRUE;
  const auto* base = reinterpret_cast<const BYTE*>(GetModuleHandleW(nullptr));
  record->restored = DetourRestoreAfterWith();
  record->restored_again = DetourRestoreAfterWith();
  record->header_is_the_files = HeaderIsTheFiles(base);
  MEMORY_BASIC_INFORMATION region;
  VirtualQuery(base, &region, sizeof(region));
  record->header_protection = region.Protect;
  return TRUE;
}
