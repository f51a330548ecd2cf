#include "Platform/native.h"

namespace VornCore::platform {
namespace {

NativeApi RealFunctions() noexcept {
  NativeApi api{};
  api.NtQueryObject = &::NtQueryObject;
  api.NtOpenSymbolicLinkObject = &::NtOpenSymbolicLinkObject;
  api.NtQuerySymbolicLinkObject = &::NtQuerySymbolicLinkObject;
  api.NtQueryInformationProcess = &::NtQueryInformationProcess;
  api.NtQueryFullAttributesFile = &::NtQueryFullAttributesFile;
  api.NtQueryDirectoryFile = &::NtQueryDirectoryFile;
  api.GetFinalPathNameByHandleW = &::GetFinalPathNameByHandleW;
  api.GetFileInformationByHandle = &::GetFileInformationByHandle;
  api.GetFileInformationByHandleEx = &::GetFileInformationByHandleEx;
  // Kernel32 exports these from Windows Vista on; an implementation without them answers "no names".
  HMODULE kernel32 = GetModuleHandleW(L"kernel32.dll");
  api.FindFirstFileNameW =
      reinterpret_cast<decltype(&::FindFirstFileNameW)>(GetProcAddress(kernel32, "FindFirstFileNameW"));
  api.FindNextFileNameW =
      reinterpret_cast<decltype(&::FindNextFileNameW)>(GetProcAddress(kernel32, "FindNextFileNameW"));
  return api;
}

}  // namespace

NativeApi& Native() noexcept {
  static NativeApi api = RealFunctions();
  return api;
}

bool IsWine() noexcept {
  static const bool wine = GetProcAddress(GetModuleHandleW(L"ntdll.dll"), "wine_get_version") != nullptr;
  return wine;
}

}  // namespace VornCore::platform
