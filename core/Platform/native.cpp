#include "Platform/native.h"

#include "Platform/wine_adapter.h"
#include "Platform/wine_link_names.h"

namespace VornCore::platform {
namespace {

NativeApi RealFunctions() noexcept {
  NativeApi api{};
  api.NtQueryObject = &::NtQueryObject;
  api.NtOpenSymbolicLinkObject = &::NtOpenSymbolicLinkObject;
  api.NtQuerySymbolicLinkObject = &::NtQuerySymbolicLinkObject;
  api.NtQueryInformationProcess = &::NtQueryInformationProcess;
  api.GetLogicalDrives = &::GetLogicalDrives;
  api.NtQueryFullAttributesFile = &::NtQueryFullAttributesFile;
  api.NtQueryDirectoryFile = &::NtQueryDirectoryFile;
  api.NtQueryInformationFile = &::NtQueryInformationFile;
  api.NtReadFile = &::NtReadFile;
  api.GetFinalPathNameByHandleW = &::GetFinalPathNameByHandleW;
  api.GetFileInformationByHandle = &::GetFileInformationByHandle;
  api.GetFileInformationByHandleEx = &::GetFileInformationByHandleEx;
  HMODULE kernel32 = GetModuleHandleW(L"kernel32.dll");
  api.FindFirstFileNameW =
      reinterpret_cast<decltype(&::FindFirstFileNameW)>(GetProcAddress(kernel32, "FindFirstFileNameW"));
  api.FindNextFileNameW =
      reinterpret_cast<decltype(&::FindNextFileNameW)>(GetProcAddress(kernel32, "FindNextFileNameW"));
  api.FindClose = &::FindClose;
  api.AliasTarget = [](std::wstring_view, wchar_t*, std::size_t) -> std::size_t { return 0; };
  api.paths_can_be_wrong = false;
  api.listings_hide_links = false;
  api.UnixPath = [](const wchar_t*, char*, std::size_t) -> std::size_t { return 0; };
  api.ExactFolder = [](const wchar_t*, wchar_t*, std::size_t) -> std::size_t { return 0; };
  api.LoadMiniDumpWriteDump = &LoadMiniDumpWriteDump;
  if (IsWine()) wine::Adapt(api);
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

void SetLinkFolderSource(LinkFolderSource source) noexcept { wine::SetLinkFolders(source); }

}  // namespace VornCore::platform
