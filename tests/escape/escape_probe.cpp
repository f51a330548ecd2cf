// What a row of the escape suite does that no shell command does. Says ESCAPED where only it can tell.
//
//   escape_probe load            loads the DLL beside it, whose DllMain does what escape_dll.cpp says
//   escape_probe delay-load F    leaves the loader by a fault, then prints F
//   escape_probe acl F           gives F another access list
//   escape_probe attributes F    makes F read-only by its attributes
//   escape_probe times F         sets the last write time of F
//   escape_probe write F         writes to F, which it makes and removes again when it is not there
//   escape_probe section F       starts a program with a section of its own, which prints F
//   escape_probe rules F         switches the rules off in the section, then prints F
//   escape_probe held F L        writes to L while F is open so that nobody else can read it
#include <windows.h>

#include <winternl.h>

#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>

#include "Platform/guard.h"
#include "Policy/section_format.h"
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

constexpr wchar_t kSectionVariable[] = L"VORN_SHARED_DATA_NAME";

// The section of this process, mapped; null where it is not confined, or has no such rights.
UniqueHandle OpenSection(ACCESS_MASK access, std::byte** bytes) {
  wchar_t name[256] = {};
  GetEnvironmentVariableW(kSectionVariable, name, 256);
  UNICODE_STRING counted;
  RtlInitUnicodeString(&counted, name);
  OBJECT_ATTRIBUTES attributes = nt::NamedObject(&counted);
  UniqueHandle section;
  if (nt::Success(NtOpenSection(section.put(), access, &attributes)))
    *bytes = static_cast<std::byte*>(MapViewOfFile(section.get(), access, 0, 0, 0));
  return section;
}

void SwitchOff(std::byte* section) {
  reinterpret_cast<vorn::policy::SharedDataHeader*>(section)->flags = vorn::policy::kFlagFileCreateCheckOff;
}

void StartsWithOwnSection(const fs::path& file) {
  std::byte* bytes = nullptr;
  const UniqueHandle given = OpenSection(SECTION_MAP_READ, &bytes);
  UniqueHandle own;
  if (bytes) {
    MEMORY_BASIC_INFORMATION size;
    VirtualQuery(bytes, &size, sizeof size);
    own.reset(CreateFileMappingW(INVALID_HANDLE_VALUE, nullptr, PAGE_READWRITE, 0,
                                 static_cast<DWORD>(size.RegionSize), L"vorn_escape_section"));
    auto* copy = static_cast<std::byte*>(MapViewOfFile(own.get(), FILE_MAP_WRITE, 0, 0, 0));
    std::memcpy(copy, bytes, size.RegionSize);
    SwitchOff(copy);
    wchar_t name[256] = {};
    GetEnvironmentVariableW(kSectionVariable, name, 256);
    const std::wstring folder(name, std::wstring(name).rfind(L'\\') + 1);
    SetEnvironmentVariableW(kSectionVariable, (folder + L"vorn_escape_section").c_str());
  }
  fflush(stdout);
  _wsystem((L"type " + file.wstring()).c_str());
}

void SwitchesRulesOff(const fs::path& file) {
  std::byte* bytes = nullptr;
  const UniqueHandle section = OpenSection(SECTION_MAP_WRITE, &bytes);
  if (bytes) SwitchOff(bytes);
  Print(file);
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
  if (verb == L"section") StartsWithOwnSection(file);
  if (verb == L"rules") SwitchesRulesOff(file);
  if (verb == L"acl") escaped = ChangesAccessList(file);
  if (verb == L"attributes") escaped = ChangesAttributes(file);
  if (verb == L"times") escaped = ChangesTimes(file);
  if (escaped) puts("ESCAPED");
  return 0;
}
