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
//   escape_probe start LINE      starts a program
//   escape_probe letter D        makes in D a folder whose name differs by the case of a letter beyond ASCII
//   escape_probe size F          asks for the size of F
//   escape_probe reopen F        writes to F through a handle that was opened for reading
//   escape_probe map F           writes to F through a mapping
//   escape_probe id F            writes to F, which it names by its id
//   escape_probe root F          writes to F, which it names from the directory of the drive letters
//   escape_probe replace F G     puts G in the place of F
//   escape_probe info F N        sets information of class N, harmful each, of F
//   escape_probe zero F          fills F with zeros
// What the system itself cannot do is said to be UNSUPPORTED.
#include <windows.h>

#include <winioctl.h>
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

extern "C" {
NTSYSAPI NTSTATUS NTAPI NtOpenDirectoryObject(PHANDLE, ACCESS_MASK, POBJECT_ATTRIBUTES);
NTSYSAPI NTSTATUS NTAPI NtFsControlFile(HANDLE, HANDLE, PIO_APC_ROUTINE, PVOID, PIO_STATUS_BLOCK, ULONG,
                                        PVOID, ULONG, PVOID, ULONG);
}

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

bool Appends(const UniqueHandle& handle) {
  DWORD written = 0;
  return handle && WriteFile(handle.get(), "x", 1, &written, nullptr);
}

bool Reopens(const fs::path& file) {
  const UniqueHandle reading = Open(file, GENERIC_READ);
  return Appends(UniqueHandle(ReOpenFile(reading.get(), FILE_APPEND_DATA, nt::kShareAll, 0)));
}

void Maps(const fs::path& file) {
  const UniqueHandle handle = Open(file, GENERIC_READ | GENERIC_WRITE);
  const UniqueHandle mapping(CreateFileMappingW(handle.get(), nullptr, PAGE_READWRITE, 0, 0, nullptr));
  if (void* view = MapViewOfFile(mapping.get(), FILE_MAP_WRITE, 0, 0, 0)) std::memcpy(view, "new", 3);
}

bool OpensById(const fs::path& file) {
  const UniqueHandle handle = Open(file, FILE_READ_ATTRIBUTES),
                     folder = Open(file.parent_path(), GENERIC_READ);
  BY_HANDLE_FILE_INFORMATION info{};
  GetFileInformationByHandle(handle.get(), &info);
  FILE_ID_DESCRIPTOR id{sizeof id, FileIdType, {}};
  id.FileId.LowPart = info.nFileIndexLow;
  id.FileId.HighPart = static_cast<LONG>(info.nFileIndexHigh);
  return Appends(UniqueHandle(OpenFileById(folder.get(), &id, FILE_APPEND_DATA, nt::kShareAll, nullptr, 0)));
}

bool Judge(NTSTATUS status) {
  for (const NTSTATUS lacking :
       {STATUS_OBJECT_NAME_NOT_FOUND, STATUS_NOT_IMPLEMENTED, STATUS_INVALID_INFO_CLASS, STATUS_NOT_SUPPORTED,
        STATUS_INVALID_DEVICE_REQUEST, STATUS_PRIVILEGE_NOT_HELD})
    if (status == lacking) puts("UNSUPPORTED");
  return nt::Success(status);
}

bool OpensFromDriveLetters(const fs::path& file) {
  UNICODE_STRING name;
  RtlInitUnicodeString(&name, L"\\??");
  OBJECT_ATTRIBUTES attributes = nt::NamedObject(&name);
  UniqueHandle letters, handle;
  constexpr ACCESS_MASK kTraverse = 2;
  NtOpenDirectoryObject(letters.put(), kTraverse, &attributes);
  RtlInitUnicodeString(&name, file.c_str());
  attributes.RootDirectory = letters.get();
  IO_STATUS_BLOCK io;
  return Judge(NtCreateFile(handle.put(), FILE_APPEND_DATA | SYNCHRONIZE, &attributes, &io, nullptr, 0,
                            nt::kShareAll, FILE_OPEN, FILE_SYNCHRONOUS_IO_NONALERT, nullptr, 0)) &&
         Appends(handle);
}

bool SetsInformation(const fs::path& file, ULONG info_class) {
  struct alignas(nt::RenameInformation) {
    std::byte bytes[1024];
  } information{};
  const auto put = [&](const auto& value, std::size_t at = 0) {
    std::memcpy(information.bytes + at, &value, sizeof value);
  };
  switch (info_class) {
    case 10:  // rename
    case 11:  // link
    case 65:
    case 72: {
      const std::wstring name = L"\\??\\" + (file.parent_path() / L"g.txt").wstring();
      const auto bytes = static_cast<ULONG>(name.size() * sizeof(wchar_t));
      put(bytes, offsetof(nt::RenameInformation, FileNameLength));
      std::memcpy(information.bytes + offsetof(nt::RenameInformation, FileName), name.data(), bytes);
      break;
    }
    case 13:  // deletion
    case 64:
      put(nt::kDispositionDelete);
      break;
    case 39:  // valid data: as much as there is; allocation (19) and end (20): none
      put(std::int64_t{3});
      break;
    case 40:
      put(ULONG{10});
      std::memcpy(information.bytes + sizeof(ULONG), L"short", 10);
      break;
  }
  const UniqueHandle handle = Open(file, GENERIC_READ | GENERIC_WRITE | DELETE);
  IO_STATUS_BLOCK io;
  return Judge(NtSetInformationFile(handle.get(), &io, &information, sizeof information,
                                    static_cast<FILE_INFORMATION_CLASS>(info_class)));
}

bool Zeros(const fs::path& file) {
  const UniqueHandle handle = Open(file, GENERIC_READ | GENERIC_WRITE);
  FILE_ZERO_DATA_INFORMATION all{};
  all.BeyondFinalZero.QuadPart = 3;
  IO_STATUS_BLOCK io;
  return Judge(NtFsControlFile(handle.get(), nullptr, nullptr, nullptr, &io, FSCTL_SET_ZERO_DATA, &all,
                               sizeof all, nullptr, 0));
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

void Start(wchar_t* line) {
  STARTUPINFOW startup{};
  startup.cb = sizeof startup;
  PROCESS_INFORMATION process{};
  CreateProcessW(nullptr, line, nullptr, nullptr, FALSE, 0, nullptr, nullptr, &startup, &process);
  Sleep(200);  // the end of what is no program of Windows cannot be waited for
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
  if (verb == L"start") Start(argv[2]);
  if (verb == L"letter") escaped = CreateDirectoryW((file / L"\u00E4b").c_str(), nullptr);
  if (verb == L"size") escaped = fs::exists(file) && fs::file_size(file) > 0;
  if (verb == L"reopen") escaped = Reopens(file);
  if (verb == L"map") Maps(file);
  if (verb == L"id") escaped = OpensById(file);
  if (verb == L"root") escaped = OpensFromDriveLetters(file);
  if (verb == L"replace") escaped = ReplaceFileW(file.c_str(), argv[3], nullptr, 0, nullptr, nullptr);
  if (verb == L"info") escaped = SetsInformation(file, static_cast<ULONG>(std::stoul(argv[3])));
  if (verb == L"zero") escaped = Zeros(file);
  if (verb == L"section") StartsWithOwnSection(file);
  if (verb == L"rules") SwitchesRulesOff(file);
  if (verb == L"acl") escaped = ChangesAccessList(file);
  if (verb == L"attributes") escaped = ChangesAttributes(file);
  if (verb == L"times") escaped = ChangesTimes(file);
  if (escaped) puts("ESCAPED");
  return 0;
}
