// What a row of the escape suite does that no shell command does. Says ESCAPED where only it can tell.
//
//   escape_probe load            loads the DLL beside it, whose DllMain does what escape_dll.cpp says
//   escape_probe delay-load F    leaves the loader by a fault, then prints F
//   escape_probe acl F           gives F another access list
//   escape_probe attributes F    makes F read-only by its attributes
//   escape_probe times F         sets the last write time of F
//   escape_probe write F         writes to F, which it makes and removes again when it is not there
//   escape_probe held F L        writes to L while F is open so that nobody else can read it
#include <windows.h>

#include <winternl.h>

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>

#include "Platform/guard.h"
#include "windows/nt.h"
#include "windows/unique_handle.h"

namespace {

namespace fs = std::filesystem;
using vorn::windows::UniqueHandle;

UniqueHandle Open(const fs::path& file, DWORD access) {
  return UniqueHandle(CreateFileW(file.c_str(), access, nt::kShareAll, nullptr, OPEN_EXISTING,
                                  FILE_FLAG_BACKUP_SEMANTICS, nullptr));
}

void Print(const fs::path& file) {
  std::ifstream stream(file);
  puts(std::string(std::istreambuf_iterator<char>(stream), {}).c_str());
}

bool ChangesAccessList(const fs::path& file) {
  const UniqueHandle handle = Open(file, WRITE_DAC);
  SECURITY_DESCRIPTOR everybody;
  InitializeSecurityDescriptor(&everybody, SECURITY_DESCRIPTOR_REVISION);
  SetSecurityDescriptorDacl(&everybody, TRUE, nullptr, FALSE);
  return handle && SetKernelObjectSecurity(handle.get(), DACL_SECURITY_INFORMATION, &everybody);
}

bool ChangesAttributes(const fs::path& file) {
  SetFileAttributesW(file.c_str(), FILE_ATTRIBUTE_READONLY);
  const bool changed = GetFileAttributesW(file.c_str()) & FILE_ATTRIBUTE_READONLY;
  if (changed) SetFileAttributesW(file.c_str(), FILE_ATTRIBUTE_NORMAL);
  return changed;
}

bool ChangesTimes(const fs::path& file) {
  const FILETIME old{0, 0x01BF0000};
  const UniqueHandle handle = Open(file, FILE_WRITE_ATTRIBUTES | FILE_READ_ATTRIBUTES);
  FILETIME now{};
  return handle && SetFileTime(handle.get(), nullptr, nullptr, &old) &&
         GetFileTime(handle.get(), nullptr, nullptr, &now) && now.dwHighDateTime == old.dwHighDateTime;
}

bool Writes(const fs::path& file) {
  const UniqueHandle handle(
      CreateFileW(file.c_str(), FILE_APPEND_DATA, nt::kShareAll, nullptr, OPEN_ALWAYS, 0, nullptr));
  const bool made = GetLastError() != ERROR_ALREADY_EXISTS;
  DWORD written = 0;
  const bool wrote = handle && WriteFile(handle.get(), "x", 1, &written, nullptr);
  if (handle && made) DeleteFileW(file.c_str());
  return wrote;
}

void WritesWhileHeld(const fs::path& file, const fs::path& link) {
  const UniqueHandle held(CreateFileW(file.c_str(), GENERIC_READ, FILE_SHARE_WRITE | FILE_SHARE_DELETE,
                                      nullptr, OPEN_EXISTING, 0, nullptr));
  std::ofstream(link, std::ios::binary) << "new";
}

void FaultInTheLoader() {
  auto* const nowhere = reinterpret_cast<IMAGE_DELAYLOAD_DESCRIPTOR*>(0x10);
  (void)VornCore::platform::Guarded(
      [&] { ::LdrResolveDelayLoadedAPI(GetModuleHandleW(nullptr), nowhere, nullptr, nullptr, nullptr, 0); });
}

}  // namespace

int wmain(int argc, wchar_t** argv) {
  const std::wstring verb = argc > 1 ? argv[1] : L"";
  const fs::path file = argc > 2 ? argv[2] : L"";
  bool escaped = false;
  if (verb == L"load") LoadLibraryW(L"escape_dll.dll");
  if (verb == L"delay-load") {
    FaultInTheLoader();
    Print(file);
  }
  if (verb == L"held") WritesWhileHeld(file, argv[3]);
  if (verb == L"write") escaped = Writes(file);
  if (verb == L"acl") escaped = ChangesAccessList(file);
  if (verb == L"attributes") escaped = ChangesAttributes(file);
  if (verb == L"times") escaped = ChangesTimes(file);
  if (escaped) puts("ESCAPED");
  return 0;
}
