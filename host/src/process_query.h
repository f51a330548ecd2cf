// What the system knows about a process, asked from outside. Any thread.
#pragma once

#include <windows.h>

#include <string>

namespace vorn::host {

// Full path of its program; "" when it has ended or has not loaded it yet. The handle needs
// PROCESS_QUERY_INFORMATION, for the command line PROCESS_VM_READ too.
std::wstring ImageOf(HANDLE process);

// Its command line as it stands in the process; "" when it has ended or cannot be read.
std::wstring CommandLineOf(HANDLE process);

}  // namespace vorn::host
