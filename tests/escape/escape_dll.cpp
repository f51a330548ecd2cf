// Uses the time in which the loader runs it: copies ESCAPE_READ to ESCAPE_COPY, overwrites ESCAPE_WRITE and
// deletes ESCAPE_DELETE.
#include <windows.h>

#include <string>

namespace {

std::wstring Variable(const wchar_t* name) {
  wchar_t value[1024] = {};
  GetEnvironmentVariableW(name, value, 1024);
  return value;
}

HANDLE Open(const wchar_t* variable, DWORD access, DWORD disposition) {
  return CreateFileW(Variable(variable).c_str(), access, 7, nullptr, disposition, 0, nullptr);
}

}  // namespace

BOOL WINAPI DllMain(HINSTANCE, DWORD reason, LPVOID) {
  if (reason != DLL_PROCESS_ATTACH) return TRUE;
  const HANDLE from = Open(L"ESCAPE_READ", GENERIC_READ, OPEN_EXISTING);
  const HANDLE to = Open(L"ESCAPE_COPY", GENERIC_WRITE, CREATE_ALWAYS);
  const HANDLE over = Open(L"ESCAPE_WRITE", GENERIC_WRITE, OPEN_EXISTING);
  char text[64];
  DWORD bytes = 0;
  if (ReadFile(from, text, sizeof text, &bytes, nullptr)) WriteFile(to, text, bytes, &bytes, nullptr);
  WriteFile(over, "new", 3, &bytes, nullptr);
  for (HANDLE file : {from, to, over}) CloseHandle(file);
  DeleteFileW(Variable(L"ESCAPE_DELETE").c_str());
  return TRUE;
}
