#include "VornCore/Base/log.h"

#include <algorithm>
#include <atomic>
#include <climits>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <cwchar>
#include <utility>

#include "Platform/last_error.h"
#include "Platform/local_time.h"
#include "Platform/lock.h"
#include "VornCore/Base/process_info.h"
#include "VornCore/Base/shared_data.h"
#include "VornCore/Base/strings.h"
#include "VornCore/Base/thread_state.h"

namespace VornCore {
namespace {

constexpr int kSlots = 3;
constexpr LONGLONG kSlotBytes = 52'428'800;  // a slot is left once it holds more than this
constexpr std::size_t kPathUnits = 520;      // longest slot path, without terminator
constexpr int kLineLimit = 1022;             // longest line without its final line feed

// The path of a log file as it grows; never longer than a slot path may be.
class PathText {
 public:
  void Append(const wchar_t* text, std::size_t units) {
    if (units > kPathUnits - length_) {
      fits_ = false;
      return;
    }
    std::memcpy(text_ + length_, text, units * sizeof(wchar_t));
    length_ += units;
    text_[length_] = L'\0';
  }
  void Append(const wchar_t* text) { Append(text, std::wcslen(text)); }

  bool fits() const { return fits_; }
  wchar_t last() const { return length_ ? text_[length_ - 1] : L'\0'; }
  UNICODE_STRING counted() const { return nt::CountedString(text_, length_ * sizeof(wchar_t)); }

 private:
  wchar_t text_[kPathUnits + 1] = {};
  std::size_t length_ = 0;
  bool fits_ = true;
};

// The three files of this process. Lines are written, and files taken in turn, under the lock.
class LogHelper {
 public:
  virtual ~LogHelper() = default;

  bool opened() const { return opened_.load(std::memory_order_acquire); }

  // Names the three files base_0.log to base_2.log and opens the first, at once or for its first line. 0 or a
  // Win32 error.
  DWORD Open(const PathText& base, bool at_once) {
    for (int n = 0; n < kSlots; ++n) {
      const wchar_t digit[] = {static_cast<wchar_t>(L'0' + n)};
      Slot& slot = slots_[n];
      slot.path = base;
      slot.path.Append(L"_");
      slot.path.Append(digit, 1);
      slot.path.Append(L".log");
      slot.file = INVALID_HANDLE_VALUE;
      if (!slot.path.fits()) return ERROR_FILENAME_EXCED_RANGE;
    }
    const NTSTATUS status = at_once ? OpenSlot(slots_[current_]) : STATUS_SUCCESS;
    if (!nt::Success(status)) return RtlNtStatusToDosErrorNoTeb(status);
    first_line_opens_ = !at_once;
    opened_.store(true, std::memory_order_release);
    return ERROR_SUCCESS;
  }

  NTSTATUS Write(const char* line, ULONG bytes) {
    platform::LockGuard guard(lock_);
    OwnCallScope own;
    if (current_ < 0 || current_ >= kSlots) current_ = 0;
    // Only once: an open that fails is logged itself.
    if (std::exchange(first_line_opens_, false)) OpenSlot(slots_[current_]);
    if (slots_[current_].written > kSlotBytes) TakeNextSlot();
    Slot& slot = slots_[current_];
    if (slot.file == INVALID_HANDLE_VALUE) return STATUS_INVALID_HANDLE;
    IO_STATUS_BLOCK io{};
    const NTSTATUS status = NtWriteFile(slot.file, nullptr, nullptr, nullptr, &io, const_cast<char*>(line),
                                        bytes, nullptr, nullptr);
    if (nt::Success(status)) slot.written += bytes;
    return status;
  }

 private:
  struct Slot {
    HANDLE file = INVALID_HANDLE_VALUE;
    LONGLONG written = 0;  // bytes since the file was created or emptied
    PathText path;
  };

  static NTSTATUS OpenSlot(Slot& slot) {
    OwnCallScope own;  // the library's own file handlers let the call through
    UNICODE_STRING path = slot.path.counted();
    OBJECT_ATTRIBUTES attributes = nt::NamedObject(&path);
    IO_STATUS_BLOCK io{};
    HANDLE file = nullptr;
    const NTSTATUS status =
        NtCreateFile(&file, FILE_GENERIC_WRITE, &attributes, &io, nullptr, FILE_ATTRIBUTE_NORMAL,
                     FILE_SHARE_READ | FILE_SHARE_WRITE, FILE_OVERWRITE_IF,
                     FILE_SYNCHRONOUS_IO_NONALERT | FILE_NON_DIRECTORY_FILE, nullptr, 0);
    if (!nt::Success(status)) return status;
    slot.file = file;
    slot.written = 0;
    return status;
  }

  void TakeNextSlot() {
    current_ = (current_ + 1) % kSlots;
    Slot& slot = slots_[current_];
    if (slot.file == INVALID_HANDLE_VALUE) {
      OpenSlot(slot);  // a slot that cannot be opened stays without a file: writes answer so
      return;
    }
    LARGE_INTEGER zero{};
    IO_STATUS_BLOCK io{};
    for (const ULONG what : {nt::kFileEndOfFileInformation, nt::kFilePositionInformation})
      NtSetInformationFile(slot.file, &io, &zero, sizeof zero, static_cast<FILE_INFORMATION_CLASS>(what));
    slot.written = 0;
  }

  std::atomic<bool> opened_ = false;
  bool first_line_opens_ = false;
  platform::CriticalSection lock_;
  std::int32_t current_ = 0;
  Slot slots_[kSlots];
};

LogHelper gs_log;

// Minutes that local time is ahead of UTC, without daylight saving: asked once. Two threads that ask at the
// same time store the same value.
int ZoneMinutes() {
  static constinit std::atomic<int> cache = INT_MIN;
  int minutes = cache.load(std::memory_order_relaxed);
  if (minutes == INT_MIN) {
    DYNAMIC_TIME_ZONE_INFORMATION zone{};
    GetDynamicTimeZoneInformation(&zone);
    minutes = -static_cast<int>(zone.Bias);
    cache.store(minutes, std::memory_order_relaxed);
  }
  return minutes;
}

const char* BaseName(const char* path) {
  const char* separator = std::strrchr(path, '\\');
  return separator ? separator + 1 : path;
}

// What fits of a printf call into limit bytes; not terminated.
VORN_PRINTF(3, 0)
int FormatCut(char* out, int limit, const char* format, va_list args) {
  const int length = _vsnprintf(out, static_cast<std::size_t>(limit), format, args);
  return length < 0 || length > limit ? limit : length;
}

VORN_PRINTF(3, 4)
int FormatCut(char* out, int limit, const char* format, ...) {
  va_list args;
  va_start(args, format);
  const int length = FormatCut(out, limit, format, args);
  va_end(args);
  return length;
}

}  // namespace

void LogPrint(const char* file, std::uint32_t level, int line, const char* tag, const char* format,
              ...) noexcept {
  if (!gs_log.opened() || !(level & GetLogLevelMask()) || !file || !tag || !format) return;
  platform::LastErrorKeeper keeper;

  const int zone = ZoneMinutes();
  const unsigned distance = static_cast<unsigned>(zone < 0 ? -zone : zone);
  const SYSTEMTIME now = platform::LocalTime();
  char text[1024];
  int length =
      FormatCut(text, kLineLimit, "[%04u-%02u-%02uT%02u:%02u:%02u.%03u%c%02u:%02u](%lu|%lu)[%s][%s:%u] ",
                now.wYear, now.wMonth, now.wDay, now.wHour, now.wMinute, now.wSecond, now.wMilliseconds,
                zone < 0 ? '-' : '+', distance / 60, distance % 60, GetCurrentProcessId(),
                GetCurrentThreadId(), tag, BaseName(file), static_cast<unsigned>(line));

  char message[1024];
  va_list args;
  va_start(args, format);
  const int message_length = FormatCut(message, 1023, format, args);
  va_end(args);

  const int kept = std::min(message_length, kLineLimit - length);
  std::memcpy(text + length, message, static_cast<std::size_t>(kept));
  length += kept;
  if (text[length - 1] != '\n') text[length++] = '\n';

  const NTSTATUS status = gs_log.Write(text, static_cast<ULONG>(length));
  if (!nt::Success(status)) {
    char report[100];
    const int n =
        FormatCut(report, 99, "NtWriteFile failed, status is :%08X\n", static_cast<unsigned>(status));
    report[n] = '\0';
    OutputDebugStringA(report);
  }
}

DWORD StartLog(const wchar_t* file_prefix) noexcept {
  std::uint32_t bytes = 0;
  const wchar_t* directory = GetLogDirectory(&bytes);
  if (!directory || bytes < sizeof(wchar_t)) return ERROR_INVALID_PARAMETER;

  wchar_t digits[33];
  PathText base;
  base.Append(L"\\??\\");
  base.Append(directory, bytes / sizeof(wchar_t));
  if (base.last() != L'\\') base.Append(L"\\");
  base.Append(file_prefix);
  base.Append(GetImageBaseName());
  base.Append(L"_");
  base.Append(UIntToWide(GetCurrentProcessId(), 10, digits));
  return gs_log.Open(base, !GetSection().Has(vorn::policy::SectionOption::kOnDemand));
}

}  // namespace VornCore
