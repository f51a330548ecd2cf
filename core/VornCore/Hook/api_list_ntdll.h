// The intercepted functions of ntdll, in slot order, which is also the order in which they are attached.
// A row: what a call of a function that was never installed does, return type, name, then type and name of
// each parameter. See api_list.h for how rows are read.
#pragma once

// clang-format off
#define VORN_NTDLL_API(ROW) \
  ROW(FailStatus, NTSTATUS, NtCreateFile, PHANDLE, FileHandle, ACCESS_MASK, DesiredAccess, POBJECT_ATTRIBUTES, ObjectAttributes, PIO_STATUS_BLOCK, IoStatusBlock, PLARGE_INTEGER, AllocationSize, ULONG, FileAttributes, ULONG, ShareAccess, ULONG, CreateDisposition, ULONG, CreateOptions, PVOID, EaBuffer, ULONG, EaLength) \
  ROW(FailStatus, NTSTATUS, NtOpenFile, PHANDLE, FileHandle, ACCESS_MASK, DesiredAccess, POBJECT_ATTRIBUTES, ObjectAttributes, PIO_STATUS_BLOCK, IoStatusBlock, ULONG, ShareAccess, ULONG, OpenOptions) \
  ROW(FailStatus, NTSTATUS, NtSetInformationFile, HANDLE, FileHandle, PIO_STATUS_BLOCK, IoStatusBlock, PVOID, FileInformation, ULONG, Length, FILE_INFORMATION_CLASS, FileInformationClass) \
  ROW(FailStatus, NTSTATUS, NtDeleteFile, POBJECT_ATTRIBUTES, ObjectAttributes) \
  ROW(FailStatus, NTSTATUS, NtWriteFile, HANDLE, FileHandle, HANDLE, Event, PIO_APC_ROUTINE, ApcRoutine, PVOID, ApcContext, PIO_STATUS_BLOCK, IoStatusBlock, PVOID, Buffer, ULONG, Length, PLARGE_INTEGER, ByteOffset, PULONG, Key) \
  ROW(FailStatus, NTSTATUS, LdrLoadDll, PWSTR, SearchPath, PULONG, DllCharacteristics, PUNICODE_STRING, DllName, PVOID*, BaseAddress) \
  ROW(FailNull, PVOID, LdrResolveDelayLoadedAPI, PVOID, ParentModuleBase, PCIMAGE_DELAYLOAD_DESCRIPTOR, DelayloadDescriptor, PDELAYLOAD_FAILURE_DLL_CALLBACK, FailureDllHook, PDELAYLOAD_FAILURE_SYSTEM_ROUTINE, FailureSystemHook, PIMAGE_THUNK_DATA, ThunkAddress, ULONG, Flags) \
  ROW(FailStatus, NTSTATUS, NtClose, HANDLE, Handle) \
  ROW(FailStatus, NTSTATUS, NtCreateUserProcess, PHANDLE, ProcessHandle, PHANDLE, ThreadHandle, ACCESS_MASK, ProcessDesiredAccess, ACCESS_MASK, ThreadDesiredAccess, POBJECT_ATTRIBUTES, ProcessObjectAttributes, POBJECT_ATTRIBUTES, ThreadObjectAttributes, ULONG, ProcessFlags, ULONG, ThreadFlags, PRTL_USER_PROCESS_PARAMETERS, ProcessParameters, PPS_CREATE_INFO, CreateInfo, PPS_ATTRIBUTE_LIST, AttributeList) \
  ROW(FailStatus, NTSTATUS, NtResumeThread, HANDLE, ThreadHandle, PULONG, PreviousSuspendCount)
