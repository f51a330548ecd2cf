// Interception and injection.
//
// Interception: change the first instructions of a function so that calls reach a detour, and keep a
// trampoline through which the detour reaches the real function.
//
//   void* target = address_of_function;         // afterwards: the trampoline
//   DetourTransactionBegin();
//   DetourUpdateThread(GetCurrentThread());
//   DetourAttach(&target, detour);
//   LONG error = DetourTransactionCommit();     // all attaches and detaches, or none
//
// Injection: make a process that was created suspended load a DLL before its own first instruction, by adding
// the DLL in front of the program's import table. The DLL's own attach calls DetourRestoreAfterWith, which
// gives the program its own import table back. A process of the other bitness is updated by a helper process
// of that bitness, which loads the DLL and calls its export with ordinal 1, DetourFinishHelperProcess.
//
// Results are Win32 error codes (0 = NO_ERROR) or BOOL with GetLastError(), as each function says. One thread
// at a time holds a transaction; the other functions may be called from any thread.
#pragma once

#include <windows.h>

extern "C" {

// Opens a transaction for the calling thread. ERROR_INVALID_OPERATION when one is open already.
LONG WINAPI DetourTransactionBegin();

// Enlists a thread: it is suspended until the transaction ends, and if it stands inside code that the commit
// changes, its instruction pointer is moved along. The calling thread is accepted and left running. The
// handle needs the rights to suspend, query, get and set the context, and stays open until the transaction
// ends. Without this, a thread that enters a function while it is patched still meets the old or the new
// entry, but one that was stopped between its first instructions is lost. Any error also fails the commit.
LONG WINAPI DetourUpdateThread(HANDLE thread);

// Adds an attach. *pointer: in, the target's address; from the commit on, the trampoline. Import stubs and
// hot-patch entries are followed to the code behind them; what somebody else patched is patched again on top.
// An error (ERROR_INVALID_BLOCK: too short to patch, or code that cannot be moved; ERROR_INVALID_HANDLE: no
// code there; ERROR_NOT_ENOUGH_MEMORY: no room nearby; ERROR_INVALID_PARAMETER; ERROR_INVALID_OPERATION: no
// transaction of this thread) also fails the commit.
LONG WINAPI DetourAttach(PVOID* pointer, PVOID detour);

// Adds a detach. *pointer: in, the trampoline; from the commit on, the address that the attach was given. An
// error (ERROR_INVALID_PARAMETER: not attached with this detour; ERROR_INVALID_BLOCK: somebody patched the
// function since, and would be cut off; ERROR_INVALID_HANDLE: the function's module is gone) also fails the
// commit.
LONG WINAPI DetourDetach(PVOID* pointer, PVOID detour);

// Carries out everything, or nothing when any earlier call of the transaction failed (then the first error)
// or when pages cannot be made writable or executable (then the system's error).
LONG WINAPI DetourTransactionCommit();

// Drops everything that was added. ERROR_INVALID_OPERATION without a transaction of this thread.
LONG WINAPI DetourTransactionAbort();

// TRUE in a process that was started only to update another process's import table: the system's
// rundll32.exe, told to run the DLL that asks, with an order in its start-up data.
BOOL WINAPI DetourIsHelperProcess();

// Whether a process with this image (full path, as the system names it) and this command line is what
// DetourProcessViaHelperW starts for the DLL. Such a process runs nothing but that DLL.
BOOL WINAPI DetourIsHelperCommand(LPCWSTR image, LPCWSTR command, LPCSTR dll);

// In a process that was started with an updated import table: puts the original header and table back.
// FALSE when there is nothing to restore.
BOOL WINAPI DetourRestoreAfterWith();

// Updates the import table of a suspended process of the caller's own bitness, so that it loads the DLLs
// (ANSI paths, count of them, each with an export of ordinal 1) first, in this order. The handle needs
// PROCESS_QUERY_INFORMATION and PROCESS_VM_OPERATION, _READ and _WRITE. FALSE with GetLastError() on failure;
// the process is then unchanged. ERROR_INVALID_HANDLE: a process of the other bitness or without a readable
// image; ERROR_BAD_EXE_FORMAT: headers or an import table that contradict themselves; ERROR_NOT_SUPPORTED: a
// 32-bit image in a 64-bit process (managed code for any processor); ERROR_NOT_ENOUGH_MEMORY: no room within
// 4 GB above the image; ERROR_INVALID_PARAMETER: no DLLs, or a name that is null, empty or longer than 32,767
// bytes.
BOOL WINAPI DetourUpdateProcessWithDll(HANDLE process, LPCSTR* dlls, DWORD count);

typedef BOOL(WINAPI* PDETOUR_CREATE_PROCESS_ROUTINEW)(LPCWSTR, LPWSTR, LPSECURITY_ATTRIBUTES,
                                                      LPSECURITY_ATTRIBUTES, BOOL, DWORD, LPVOID, LPCWSTR,
                                                      LPSTARTUPINFOW, LPPROCESS_INFORMATION);

// Updates the suspended process pid through a helper process of its bitness, started with create_process.
// dll: ANSI path, up to 1,023 bytes, of that bitness. Waits for the helper, at most 30 seconds; one that
// takes longer is ended (ERROR_TIMEOUT). FALSE with GetLastError() on failure, which is the helper's own
// error if it got that far, ERROR_DLL_INIT_FAILED if it ended without having called the DLL.
BOOL WINAPI DetourProcessViaHelperW(DWORD pid, LPCSTR dll, PDETOUR_CREATE_PROCESS_ROUTINEW create_process);

// The helper's work; ends the helper process. Export with ordinal 1 of every DLL that is injected this way.
// The parameters are those of a rundll32 entry and are not used.
VOID CALLBACK DetourFinishHelperProcess(HWND, HINSTANCE, LPSTR, INT);
}
