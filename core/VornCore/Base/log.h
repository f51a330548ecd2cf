// The log: three rotating files per process in the host's log directory.
//
//   VORN_LOG_W("open init event failed, status 0x%X", status);
//   if (IsDebugLogEnabled()) VORN_LOG_I("...", expensive());
//
// A line is written only when its level is in the section's level mask; it carries the caller's source file
// and line. Messages are narrow printf text of at most 1,023 bytes with their prefix; longer ones are cut.
// Nothing is allocated, the thread's last-error value is preserved, and any thread may log, also inside
// intercepted calls.
#pragma once

#include <cstdint>

#include "windows/nt.h"

namespace VornCore {

enum LogLevel : std::uint32_t {
  kLogNormal = 1,   // "N": start and end of the process, stages, threads
  kLogError = 2,    // "E"
  kLogWarning = 4,  // "W": warnings, refused or failed operations
  kLogInfo = 8,     // "I": per-call detail; callers test IsDebugLogEnabled() before they build arguments
};

#if defined(__clang__)
#define VORN_PRINTF(fmt_arg, first_arg) __attribute__((format(printf, fmt_arg, first_arg)))
#else
#define VORN_PRINTF(fmt_arg, first_arg) __attribute__((format(ms_printf, fmt_arg, first_arg)))
#endif

// Writes one line. Does nothing while the log is closed, when level is masked out, or when file, tag or
// format is null.
void LogPrint(const char* file, std::uint32_t level, int line, const char* tag, const char* format,
              ...) noexcept VORN_PRINTF(5, 6);

// Opens the log files below the section's log directory; with the option kOnDemand the first line opens them,
// and a directory in which that fails is told to the debugger alone. file_prefix: for example L"vorn_core_".
// 0 or a Win32 error (87 without a directory, 206 for one that is too long, else what opening answered).
[[nodiscard]] DWORD StartLog(const wchar_t* file_prefix) noexcept;

#define VORN_LOG_N(...) ::VornCore::LogPrint(__FILE__, ::VornCore::kLogNormal, __LINE__, "N", __VA_ARGS__)
#define VORN_LOG_E(...) ::VornCore::LogPrint(__FILE__, ::VornCore::kLogError, __LINE__, "E", __VA_ARGS__)
#define VORN_LOG_W(...) ::VornCore::LogPrint(__FILE__, ::VornCore::kLogWarning, __LINE__, "W", __VA_ARGS__)
#define VORN_LOG_I(...) ::VornCore::LogPrint(__FILE__, ::VornCore::kLogInfo, __LINE__, "I", __VA_ARGS__)

}  // namespace VornCore
