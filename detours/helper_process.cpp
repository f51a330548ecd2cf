// The helper process: updates a process of its own bitness on behalf of one of the other.
//
// It is the system's rundll32.exe of the target's bitness, made to load the very DLL that the target shall
// get:
//
//   rundll32.exe "DLL",#1
//
// What it has to do travels in its start-up information (lpReserved2, which the process finds as RuntimeData
// in its process parameters), not in the command line or the environment: nobody becomes a helper, and
// thereby a process in which the DLL does nothing, by a command that a script can type. The data start with a
// zero count of inherited file descriptors, which is all that the C runtime reads there.
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <cwchar>
#include <initializer_list>

#include "detours/bitness.h"
#include "detours/detours.h"
#include "detours/win32_error.h"
#include "windows/unique_handle.h"

extern "C" IMAGE_DOS_HEADER __ImageBase;

namespace detours {
namespace {

using vorn::windows::UniqueHandle;

constexpr DWORD kWaitMilliseconds = 30'000;
// Exit code of a helper that did its work. Any other code is a Win32 error, or of a rundll32 that never got
// as far as the DLL.
constexpr DWORD kHelperDone = 0x48454C50;
constexpr size_t kMaxPath = 1024;  // characters, with the terminator

// The same for both bitnesses.
struct HelperOrder {
  uint32_t inherited_descriptors;  // 0
  uint8_t signature[16];
  uint32_t target_pid;
  char dll[kMaxPath];  // ANSI, terminated
};
static_assert(sizeof(HelperOrder) == 24 + kMaxPath);

constexpr uint8_t kSignature[16] = {0x83, 0x1c, 0xe0, 0x5a, 0x77, 0xd9, 0x42, 0x6f,
                                    0xa8, 0x0e, 0x91, 0xc4, 0x3b, 0x26, 0xf5, 0x5d};

static_assert(offsetof(nt::ProcessParameters, RuntimeData) == (sizeof(void*) == 8 ? 0xE0 : 0x88));

// rundll32.exe "DLL",#1
// Allocates nothing, for code that runs inside the loader.
struct HelperCommand {
  wchar_t text[kMaxPath + 32];
  size_t length;  // characters; 0: the DLL's name cannot be expressed

  // dll: full path, ANSI.
  explicit HelperCommand(const char* dll) : length(0) {
    static constexpr wchar_t kHead[] = L"rundll32.exe \"";
    static constexpr wchar_t kTail[] = L"\",#1";
    constexpr size_t kHeadLength = sizeof(kHead) / sizeof(wchar_t) - 1;
    memcpy(text, kHead, sizeof(kHead));
    const int n = MultiByteToWideChar(CP_ACP, 0, dll, -1, text + kHeadLength, kMaxPath);
    if (n <= 1) return;
    length = kHeadLength + static_cast<size_t>(n) - 1;
    memcpy(text + length, kTail, sizeof(kTail));
    length += sizeof(kTail) / sizeof(wchar_t) - 1;
  }

  bool Equals(const wchar_t* command, size_t characters) const {
    return length && characters == length && memcmp(command, text, length * sizeof(wchar_t)) == 0;
  }
};

// Full path of the rundll32.exe in a folder of the system ("\\System32", "\\SysWOW64", "\\Sysnative").
bool RunDll32In(const wchar_t* folder, wchar_t (&path)[MAX_PATH]) {
  static constexpr wchar_t kProgram[] = L"\\rundll32.exe";
  const size_t n = GetSystemWindowsDirectoryW(path, MAX_PATH), folder_length = wcslen(folder);
  if (n == 0 || n + folder_length + sizeof(kProgram) / sizeof(wchar_t) > MAX_PATH) return false;
  memcpy(path + n, folder, folder_length * sizeof(wchar_t));
  memcpy(path + n + folder_length, kProgram, sizeof(kProgram));
  return true;
}

// Whether the image of a process, as the system names it, is the system's rundll32.exe of either bitness.
bool IsRunDll32(const wchar_t* image) {
  wchar_t path[MAX_PATH];
  for (const wchar_t* folder : {L"\\System32", L"\\SysWOW64"})
    if (RunDll32In(folder, path) && CompareStringOrdinal(image, -1, path, -1, TRUE) == CSTR_EQUAL)
      return true;
  return false;
}

// The order that this process was started with; null in every other process.
const HelperOrder* FindOrder() {
  const UNICODE_STRING& data = nt::CurrentParameters()->RuntimeData;
  const auto* order = reinterpret_cast<const HelperOrder*>(data.Buffer);
  if (!order || data.Length != sizeof(HelperOrder)) return nullptr;
  if (memcmp(order->signature, kSignature, sizeof(kSignature)) != 0) return nullptr;
  return order->dll[kMaxPath - 1] == 0 ? order : nullptr;
}

// Full path of the rundll32.exe of the target's bitness.
bool HelperImage(HANDLE target, wchar_t (&path)[MAX_PATH]) {
  // System32 means the caller's own bitness; the other one has a name of its own.
  const bool target_wow64 = IsWow64(target), own_wow64 = IsWow64(GetCurrentProcess());
  const wchar_t* folder = L"\\System32";
  if (target_wow64 && !own_wow64) folder = L"\\SysWOW64";
  if (!target_wow64 && own_wow64) folder = L"\\Sysnative";
  return RunDll32In(folder, path);
}

DWORD WaitForHelper(HANDLE helper) {
  if (WaitForSingleObject(helper, kWaitMilliseconds) != WAIT_OBJECT_0) {
    // A rundll32 that cannot load the DLL shows a message and waits for its user. The target is in a known
    // state only when the helper is gone.
    TerminateProcess(helper, ERROR_TIMEOUT);
    if (WaitForSingleObject(helper, kWaitMilliseconds) != WAIT_OBJECT_0) return ERROR_TIMEOUT;
  }
  DWORD code;
  if (!GetExitCodeProcess(helper, &code)) return Failure();
  if (code == kHelperDone) return NO_ERROR;
  return code ? code : ERROR_DLL_INIT_FAILED;
}

DWORD RunHelper(DWORD pid, const char* dll, PDETOUR_CREATE_PROCESS_ROUTINEW create_process) {
  HelperOrder order = {};
  const size_t length = strnlen(dll, kMaxPath);
  if (length == 0 || length == kMaxPath) return ERROR_INVALID_PARAMETER;
  memcpy(order.signature, kSignature, sizeof(kSignature));
  order.target_pid = pid;
  memcpy(order.dll, dll, length);
  HelperCommand command(order.dll);
  if (!command.length) return ERROR_INVALID_PARAMETER;

  const UniqueHandle target(OpenProcess(PROCESS_QUERY_LIMITED_INFORMATION, FALSE, pid));
  if (!target) return Failure();
  wchar_t image[MAX_PATH];
  if (!HelperImage(target.get(), image)) return ERROR_PATH_NOT_FOUND;

  STARTUPINFOW startup = {};
  startup.cb = sizeof(startup);
  startup.cbReserved2 = sizeof(order);
  startup.lpReserved2 = reinterpret_cast<BYTE*>(&order);
  PROCESS_INFORMATION started = {};
  if (!create_process(image, command.text, nullptr, nullptr, FALSE, CREATE_NO_WINDOW, nullptr, nullptr,
                      &startup, &started)) {
    return Failure();
  }
  const UniqueHandle process(started.hProcess), thread(started.hThread);
  return WaitForHelper(process.get());
}

DWORD CarryOut(const HelperOrder& order) {
  const UniqueHandle target(
      OpenProcess(PROCESS_QUERY_INFORMATION | PROCESS_VM_OPERATION | PROCESS_VM_READ | PROCESS_VM_WRITE,
                  FALSE, order.target_pid));
  if (!target) return Failure();
  LPCSTR dll = order.dll;
  return DetourUpdateProcessWithDll(target.get(), &dll, 1) ? kHelperDone : Failure();
}

// The DLL that this code is linked into, loaded under exactly the name in the order.
bool IsOwnDll(const char* dll) { return GetModuleHandleA(dll) == reinterpret_cast<HMODULE>(&__ImageBase); }

bool IsOwnImageRunDll32() {
  wchar_t image[MAX_PATH];
  DWORD units = MAX_PATH;
  return QueryFullProcessImageNameW(GetCurrentProcess(), 0, image, &units) && IsRunDll32(image);
}

}  // namespace
}  // namespace detours

// The loader calls the DLL for every thread, so this compares one length in all processes but a helper. There
// the order is believed only where nothing but the helper's work can follow from it: the program is the
// system's rundll32, which is told to run this very DLL. Any other program or DLL that comes with an order,
// which whoever starts a process can write, is an ordinary process.
BOOL WINAPI DetourIsHelperProcess() {
  using namespace detours;
  const HelperOrder* order = FindOrder();
  if (!order) return FALSE;
  const UNICODE_STRING& actual = nt::CurrentParameters()->CommandLine;
  const HelperCommand command(order->dll);
  return command.Equals(actual.Buffer, actual.Length / sizeof(wchar_t)) && IsOwnDll(order->dll) &&
         IsOwnImageRunDll32();
}

BOOL WINAPI DetourIsHelperCommand(LPCWSTR image, LPCWSTR command, LPCSTR dll) {
  return image && command && dll && detours::IsRunDll32(image) &&
         detours::HelperCommand(dll).Equals(command, wcslen(command));
}

BOOL WINAPI DetourProcessViaHelperW(DWORD pid, LPCSTR dll, PDETOUR_CREATE_PROCESS_ROUTINEW create_process) {
  DWORD error = ERROR_INVALID_PARAMETER;
  if (pid && dll && create_process) error = detours::RunHelper(pid, dll, create_process);
  if (error) SetLastError(error);
  return error == NO_ERROR;
}

VOID CALLBACK DetourFinishHelperProcess(HWND, HINSTANCE, LPSTR, INT) {
  DWORD code = ERROR_INVALID_FUNCTION;
  if (DetourIsHelperProcess()) code = detours::CarryOut(*detours::FindOrder());
  ExitProcess(code);
}
