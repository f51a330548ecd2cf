// Stands in the library's place where a test needs a start-up that goes a certain way: reports through the
// init event as the library does, or does what VORN_TEST_START says: "hang", "false" (a failing attach), or
// an exit code in hexadecimal.
#include <cwchar>

#include "Platform/nt.h"
#include "Policy/section_view.h"
#include "Policy/wide.h"
#include "detours/detours.h"

namespace {

bool ReportReady() {
  wchar_t section_name[256];
  const DWORD units = GetEnvironmentVariableW(L"VORN_SHARED_DATA_NAME", section_name, 256);
  if (units == 0 || units >= 256) return false;
  UNICODE_STRING name = nt::CountedString(section_name, units * sizeof(wchar_t));
  OBJECT_ATTRIBUTES attributes = nt::NamedObject(&name);
  HANDLE section = nullptr;
  if (!nt::Success(NtOpenSection(&section, SECTION_MAP_READ, &attributes))) return false;
  const auto* base = static_cast<const std::byte*>(MapViewOfFile(section, FILE_MAP_READ, 0, 0, 0));
  if (!base) return false;
  MEMORY_BASIC_INFORMATION region;
  VirtualQuery(base, &region, sizeof region);
  const vorn::policy::SectionView view({base, region.RegionSize});
  const auto prefix = view.CreateProcessEventPrefix().text;

  wchar_t event_name[300];
  const int length = _snwprintf(event_name, 300, L"%.*ls%lu", static_cast<int>(prefix.size()),
                                vorn::policy::W(prefix.data()), GetCurrentProcessId());
  name = nt::CountedString(event_name, static_cast<size_t>(length) * sizeof(wchar_t));
  attributes = nt::NamedObject(&name);
  HANDLE event = nullptr;
  if (!nt::Success(NtOpenEvent(&event, EVENT_MODIFY_STATE, &attributes))) return false;
  SetEvent(event);
  CloseHandle(event);
  return true;
}

}  // namespace

BOOL WINAPI DllMain(HINSTANCE, DWORD reason, LPVOID) {
  if (DetourIsHelperProcess() || reason != DLL_PROCESS_ATTACH) return TRUE;
  DetourRestoreAfterWith();
  wchar_t mode[32] = L"";
  GetEnvironmentVariableW(L"VORN_TEST_START", mode, 32);
  if (wcscmp(mode, L"hang") == 0) Sleep(INFINITE);
  if (wcscmp(mode, L"false") == 0) return FALSE;
  if (mode[0] != 0) {
    UINT code = 0;
    for (const wchar_t* digit = mode; *digit; ++digit) {
      code = code * 16 + static_cast<UINT>(*digit <= L'9' ? *digit - L'0' : *digit - L'a' + 10);
    }
    TerminateProcess(GetCurrentProcess(), code);
  }
  return ReportReady();
}
