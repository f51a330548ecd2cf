// Native types, constants and prototypes that mingw-w64's winternl.h lacks or leaves opaque.
//
// Every file that needs Windows includes this header instead of <windows.h>: it also fixes the order of the
// Winsock and status headers. Structures that winternl.h declares with reserved fields stand here in full, in
// namespace nt.
#pragma once

#ifndef WIN32_NO_STATUS
#define WIN32_NO_STATUS
#endif
#include <windows.h>
#include <winsock2.h>
#undef WIN32_NO_STATUS
#include <ntstatus.h>
#include <winternl.h>

#include <cstddef>

typedef struct _PS_CREATE_INFO PS_CREATE_INFO, *PPS_CREATE_INFO;
typedef struct _PS_ATTRIBUTE_LIST PS_ATTRIBUTE_LIST, *PPS_ATTRIBUTE_LIST;
typedef PVOID(WINAPI* PDELAYLOAD_FAILURE_DLL_CALLBACK)(ULONG reason, PVOID info);
typedef PVOID(WINAPI* PDELAYLOAD_FAILURE_SYSTEM_ROUTINE)(PCSTR dll, PCSTR proc);

struct LDR_DLL_NOTIFICATION_DATA {  // the loaded and the unloaded form share this layout
  ULONG Flags;
  const UNICODE_STRING* FullDllName;
  const UNICODE_STRING* BaseDllName;
  PVOID DllBase;
  ULONG SizeOfImage;
};
typedef const LDR_DLL_NOTIFICATION_DATA* PCLDR_DLL_NOTIFICATION_DATA;
typedef VOID(CALLBACK* PLDR_DLL_NOTIFICATION_FUNCTION)(ULONG reason, PCLDR_DLL_NOTIFICATION_DATA data,
                                                       PVOID context);

namespace nt {

// ---- Process environment block

struct LdrEntry {
  LIST_ENTRY InLoadOrderLinks, InMemoryOrderLinks, InInitializationOrderLinks;
  PVOID DllBase, EntryPoint;
  ULONG SizeOfImage;
  UNICODE_STRING FullDllName, BaseDllName;
};
struct LdrData {
  ULONG Length;
  BOOLEAN Initialized;
  HANDLE SsHandle;
  LIST_ENTRY InLoadOrderModuleList;
};
// What a new process is made from: the attributes of NtCreateUserProcess.
struct PsAttribute {
  ULONG_PTR Attribute;
  SIZE_T Size;  // bytes of what Value points to
  void* Value;
  SIZE_T* ReturnLength;
};
struct PsAttributeList {
  SIZE_T TotalLength;  // bytes, this field included
  PsAttribute Attributes[1];
};
struct ProcessParameters {
  ULONG MaximumLength, Length, Flags, DebugFlags;
  HANDLE ConsoleHandle;
  ULONG ConsoleFlags;
  HANDLE StandardInput, StandardOutput, StandardError;
  UNICODE_STRING CurrentDirectoryPath;
  HANDLE CurrentDirectoryHandle;
  UNICODE_STRING DllPath, ImagePathName, CommandLine;
  PWSTR Environment;
  ULONG StartingX, StartingY, CountX, CountY, CountCharsX, CountCharsY, FillAttribute, WindowFlags,
      ShowWindowFlags;
  UNICODE_STRING WindowTitle, DesktopInfo, ShellInfo, RuntimeData;
  struct {
    USHORT Flags, Length;
    ULONG TimeStamp;
    UNICODE_STRING DosPath;
  } CurrentDirectories[32];
  SIZE_T EnvironmentSize;  // bytes of the block that Environment points at
};
static_assert(offsetof(LdrEntry, BaseDllName) == (sizeof(void*) == 8 ? 0x58 : 0x2c));
static_assert(offsetof(LdrData, InLoadOrderModuleList) == (sizeof(void*) == 8 ? 0x10 : 0x0c));
static_assert(offsetof(ProcessParameters, ImagePathName) == (sizeof(void*) == 8 ? 0x60 : 0x38));
static_assert(offsetof(ProcessParameters, Environment) == (sizeof(void*) == 8 ? 0x80 : 0x48));
static_assert(offsetof(ProcessParameters, EnvironmentSize) == (sizeof(void*) == 8 ? 0x3f0 : 0x290));

inline PEB* CurrentPeb() { return NtCurrentTeb()->ProcessEnvironmentBlock; }
inline LdrData* CurrentLdr() { return reinterpret_cast<LdrData*>(CurrentPeb()->Ldr); }
inline ProcessParameters* CurrentParameters() {
  return reinterpret_cast<ProcessParameters*>(CurrentPeb()->ProcessParameters);
}

// ---- Files

// Information classes; the set column is the access that a handle needs to set it.
enum FileClass : ULONG {
  kFileDirectoryInformation = 1,
  kFileBothDirectoryInformation = 3,
  kFileBasicInformation = 4,           // set: FILE_WRITE_ATTRIBUTES
  kFileInternalInformation = 6,        // the id of the file on its volume
  kFileRenameInformation = 10,         // set: DELETE
  kFileLinkInformation = 11,           // set: laid out as a rename
  kFileDispositionInformation = 13,    // set: DELETE
  kFilePositionInformation = 14,       // set: FILE_READ_DATA or FILE_WRITE_DATA
  kFileAllocationInformation = 19,     // set: FILE_WRITE_DATA
  kFileEndOfFileInformation = 20,      // set: FILE_WRITE_DATA
  kFileDispositionInformationEx = 64,  // set: DELETE; Windows 10 1709
  kFileRenameInformationEx = 65,       // set: DELETE; Windows 10 1709
  kFileLinkInformationEx = 72,         // set; Windows 10 1803
};
struct BothDirectoryEntry {
  ULONG NextEntryOffset, FileIndex;
  LARGE_INTEGER CreationTime, LastAccessTime, LastWriteTime, ChangeTime, EndOfFile, AllocationSize;
  ULONG FileAttributes, FileNameLength, EaSize;
  CCHAR ShortNameLength;
  WCHAR ShortName[12];
  WCHAR FileName[1];
};
struct RenameInformation {
  union {
    BOOLEAN ReplaceIfExists;  // class 10
    ULONG Flags;              // class 65
  };
  HANDLE RootDirectory;
  ULONG FileNameLength;  // bytes
  WCHAR FileName[1];
};
struct DispositionInformationEx {
  ULONG Flags;
};
inline constexpr ULONG kDispositionDelete = 0x1, kDispositionPosix = 0x2, kDispositionOnClose = 0x8,
                       kDispositionIgnoreReadonly = 0x10;  // class 64
inline constexpr ULONG kRenameReplaceIfExists = 0x1;       // class 65
struct NetworkOpenInformation {
  LARGE_INTEGER CreationTime, LastAccessTime, LastWriteTime, ChangeTime, AllocationSize, EndOfFile;
  ULONG FileAttributes;
};
struct ObjectNameInformation {
  UNICODE_STRING Name;
};
inline constexpr ULONG kShareAll = FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE;
inline constexpr OBJECT_INFORMATION_CLASS kObjectNameInformation = static_cast<OBJECT_INFORMATION_CLASS>(1);
inline constexpr PROCESSINFOCLASS kProcessImageFileName = static_cast<PROCESSINFOCLASS>(27);
inline constexpr ULONG_PTR kPsAttributeImageName = 0x20005;
inline constexpr TOKEN_INFORMATION_CLASS kTokenIntegrityLevel = static_cast<TOKEN_INFORMATION_CLASS>(25);

// Status that the file rooms use among themselves: a pipe, mailslot or network device, not to be confined.
// (The value is NT's STATUS_NOT_MAPPED_DATA slot, which no file call answers.)
inline constexpr NTSTATUS kStatusNotConfined = static_cast<NTSTATUS>(0xC000000A);

inline constexpr bool Success(NTSTATUS status) { return status >= 0; }

// A counted string over existing memory; bytes is cut to what the type can express (65,534).
inline UNICODE_STRING CountedString(const wchar_t* text, size_t bytes) {
  UNICODE_STRING s;
  s.Length = static_cast<USHORT>(bytes > 65534 ? 65534 : bytes);
  s.MaximumLength = s.Length;
  s.Buffer = const_cast<wchar_t*>(text);
  return s;
}

// OBJECT_ATTRIBUTES without root directory or security, compared without regard to case. winternl.h pads the
// structure, so it is filled by name.
inline OBJECT_ATTRIBUTES NamedObject(UNICODE_STRING* name, ULONG attributes = OBJ_CASE_INSENSITIVE) {
  OBJECT_ATTRIBUTES a;
  InitializeObjectAttributes(&a, name, attributes, nullptr, nullptr);
  return a;
}

}  // namespace nt

extern "C" {
// winternl.h declares the native functions without dllimport: a call goes through a jump in our own image and
// &NtCreateFile is that jump. imp_<name> is the address that the import itself resolves to.
#if defined(__x86_64__)
#define VORN_IMPORT(name, bytes) extern void* const imp_##name asm("__imp_" #name)
#else
#define VORN_IMPORT(name, bytes) extern void* const imp_##name asm("__imp__" #name "@" #bytes)
#endif
VORN_IMPORT(SetUnhandledExceptionFilter, 4);

NTSYSAPI NTSTATUS NTAPI NtDeleteFile(POBJECT_ATTRIBUTES);
NTSYSAPI NTSTATUS NTAPI NtWriteFile(HANDLE, HANDLE, PIO_APC_ROUTINE, PVOID, PIO_STATUS_BLOCK, PVOID, ULONG,
                                    PLARGE_INTEGER, PULONG);
NTSYSAPI NTSTATUS NTAPI NtReadFile(HANDLE, HANDLE, PIO_APC_ROUTINE, PVOID, PIO_STATUS_BLOCK, PVOID, ULONG,
                                   PLARGE_INTEGER, PULONG);
NTSYSAPI NTSTATUS NTAPI NtResumeThread(HANDLE, PULONG);
NTSYSAPI NTSTATUS NTAPI NtCreateUserProcess(PHANDLE, PHANDLE, ACCESS_MASK, ACCESS_MASK, POBJECT_ATTRIBUTES,
                                            POBJECT_ATTRIBUTES, ULONG, ULONG, PRTL_USER_PROCESS_PARAMETERS,
                                            PPS_CREATE_INFO, PPS_ATTRIBUTE_LIST);
NTSYSAPI NTSTATUS NTAPI LdrLoadDll(PWSTR, PULONG, PUNICODE_STRING, PVOID*);
NTSYSAPI PVOID NTAPI LdrResolveDelayLoadedAPI(PVOID, PCIMAGE_DELAYLOAD_DESCRIPTOR,
                                              PDELAYLOAD_FAILURE_DLL_CALLBACK,
                                              PDELAYLOAD_FAILURE_SYSTEM_ROUTINE, PIMAGE_THUNK_DATA, ULONG);
NTSYSAPI NTSTATUS NTAPI LdrRegisterDllNotification(ULONG, PLDR_DLL_NOTIFICATION_FUNCTION, PVOID, PVOID*);
NTSYSAPI NTSTATUS NTAPI LdrUnregisterDllNotification(PVOID);
NTSYSAPI ULONG NTAPI RtlNtStatusToDosErrorNoTeb(NTSTATUS);
NTSYSAPI ULONG NTAPI RtlxUnicodeStringToAnsiSize(const UNICODE_STRING*);
NTSYSAPI NTSTATUS NTAPI RtlUnicodeToUTF8N(PCHAR, ULONG, PULONG, PCWSTR, ULONG);
NTSYSAPI BOOLEAN NTAPI RtlValidSid(PSID);
NTSYSAPI NTSTATUS NTAPI RtlGetExePath(PCWSTR, PWSTR*);
NTSYSAPI void NTAPI RtlReleasePath(PWSTR);
NTSYSAPI NTSTATUS NTAPI NtOpenProcessToken(HANDLE, ACCESS_MASK, PHANDLE);
NTSYSAPI NTSTATUS NTAPI NtQueryInformationToken(HANDLE, TOKEN_INFORMATION_CLASS, PVOID, ULONG, PULONG);
NTSYSAPI NTSTATUS NTAPI NtQueryFullAttributesFile(POBJECT_ATTRIBUTES, PFILE_NETWORK_OPEN_INFORMATION);
NTSYSAPI NTSTATUS NTAPI NtOpenSymbolicLinkObject(PHANDLE, ACCESS_MASK, POBJECT_ATTRIBUTES);
NTSYSAPI NTSTATUS NTAPI NtQuerySymbolicLinkObject(HANDLE, PUNICODE_STRING, PULONG);
NTSYSAPI NTSTATUS NTAPI NtQueryDirectoryFile(HANDLE, HANDLE, PIO_APC_ROUTINE, PVOID, PIO_STATUS_BLOCK, PVOID,
                                             ULONG, FILE_INFORMATION_CLASS, BOOLEAN, PUNICODE_STRING,
                                             BOOLEAN);
NTSYSAPI NTSTATUS NTAPI NtCreateSection(PHANDLE, ACCESS_MASK, POBJECT_ATTRIBUTES, PLARGE_INTEGER, ULONG,
                                        ULONG, HANDLE);
NTSYSAPI NTSTATUS NTAPI NtOpenSection(PHANDLE, ACCESS_MASK, POBJECT_ATTRIBUTES);
NTSYSAPI NTSTATUS NTAPI NtMapViewOfSection(HANDLE, HANDLE, PVOID*, ULONG_PTR, SIZE_T, PLARGE_INTEGER, PSIZE_T,
                                           ULONG, ULONG, ULONG);
NTSYSAPI NTSTATUS NTAPI NtUnmapViewOfSection(HANDLE, PVOID);
NTSYSAPI NTSTATUS NTAPI NtOpenEvent(PHANDLE, ACCESS_MASK, POBJECT_ATTRIBUTES);
NTSYSAPI NTSTATUS NTAPI NtCreateEvent(PHANDLE, ACCESS_MASK, POBJECT_ATTRIBUTES, ULONG, BOOLEAN);
NTSYSAPI BOOLEAN NTAPI RtlDllShutdownInProgress(VOID);  // the process ends; its other threads are gone
NTSYSAPI VOID NTAPI RtlAcquirePebLock(VOID);
NTSYSAPI VOID NTAPI RtlReleasePebLock(VOID);
}

// Absent from mingw-w64 10 headers.
#ifndef SYMBOLIC_LINK_QUERY
#define SYMBOLIC_LINK_QUERY 0x0001
#endif
#ifndef FILE_OPEN_BY_FILE_ID
#define FILE_OPEN_BY_FILE_ID 0x00002000
#endif
#ifndef FILE_OPEN_FOR_BACKUP_INTENT
#define FILE_OPEN_FOR_BACKUP_INTENT 0x00004000
#endif
#ifndef FILE_OPEN_REPARSE_POINT
#define FILE_OPEN_REPARSE_POINT 0x00200000
#endif
