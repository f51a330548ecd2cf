// Makes file calls and prints what each answered. The commands come from a script, one per line, so that one
// process start serves many of them; the answers go to standard output, one line each.
//
//   file_probe SCRIPT LAST EVENT
//
// When the script is done, the program asks for the file LAST, which is denied to it, until EVENT says that
// the host has heard of that.
//
//   create SLOT ACCESS DISPOSITION OPTIONS NAME   NtCreateFile; the handle goes into SLOT (0 to 9)
//   ask DISPOSITION NAME                          NtCreateFile for the attributes, closed at once
//   openfile SLOT ACCESS OPTIONS NAME             NtOpenFile
//   below SLOT ACCESS FOLDER_SLOT NAME            NtCreateFile relative to a folder
//   openid SLOT ACCESS FOLDER_SLOT FILE_SLOT      NtCreateFile by the id of an open file
//   write SLOT TEXT                               NtWriteFile
//   close SLOT                                    NtClose
//   duplicate SLOT FROM_SLOT                      DuplicateHandle within the process
//   disposition SLOT CLASS FLAGS                  NtSetInformationFile; prints the buffer afterwards too
//   rename SLOT CLASS FLAGS NAME                  NtSetInformationFile; FLAGS 1 replaces an existing file
//   times SLOT                                    sets the last write time
//   size SLOT BYTES                               sets the end of the file
//   delete NAME                                   NtDeleteFile
//   move FLAGS FROM|TO                            MoveFileExW, drive-letter paths; prints the Win32 error
//   race COUNT NAME                               opens for reading, COUNT times; prints how often the data
//                                                 began with "d"
//   storm THREADS COUNT FOLDER                    each thread opens and closes a file of FOLDER\open and is
//                                                 refused THREAD_NUMBER of FOLDER\denied; prints how often
//                                                 and failures, and on a line of its own how many handles
//                                                 are left behind
//
// ACCESS, DISPOSITION, OPTIONS and FLAGS are hexadecimal, other numbers decimal; names are NT names and reach
// to the end of the line. An answer is an NTSTATUS in hexadecimal unless stated otherwise.
#include <windows.h>
#include <winternl.h>

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <cstring>
#include <cwchar>
#include <filesystem>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

#include "tests/unit/open_handles.h"

extern "C" {
NTSTATUS NTAPI NtDeleteFile(POBJECT_ATTRIBUTES);
NTSTATUS NTAPI NtReadFile(HANDLE, HANDLE, PIO_APC_ROUTINE, PVOID, PIO_STATUS_BLOCK, PVOID, ULONG,
                          PLARGE_INTEGER, PULONG);
NTSTATUS NTAPI NtSetInformationFile(HANDLE, PIO_STATUS_BLOCK, PVOID, ULONG, FILE_INFORMATION_CLASS);
NTSTATUS NTAPI NtWriteFile(HANDLE, HANDLE, PIO_APC_ROUTINE, PVOID, PIO_STATUS_BLOCK, PVOID, ULONG,
                           PLARGE_INTEGER, PULONG);
}

namespace {

constexpr NTSTATUS kRefused = static_cast<NTSTATUS>(0xC0000022);
constexpr ULONG kShareAll = 7;
constexpr ULONG kOpenById = 0x2000;

HANDLE slots[10];

std::wstring Wide(const std::string& text) {
  std::wstring wide(text.size(), 0);
  wide.resize(static_cast<std::size_t>(MultiByteToWideChar(
      CP_UTF8, 0, text.data(), static_cast<int>(text.size()), wide.data(), static_cast<int>(wide.size()))));
  return wide;
}

// The words of a command; Rest gives what follows as it stands.
class Words {
 public:
  explicit Words(const std::string& line) : at_(line.c_str()) {}
  std::string Next() {
    Skip();
    const char* start = at_;
    while (*at_ && *at_ != ' ') ++at_;
    return {start, at_};
  }
  ULONG Hex() { return static_cast<ULONG>(strtoul(Next().c_str(), nullptr, 16)); }
  ULONG Decimal() { return static_cast<ULONG>(strtoul(Next().c_str(), nullptr, 10)); }
  HANDLE& Slot() { return slots[Hex() % 10]; }
  std::string Text() {
    Skip();
    return at_;
  }
  std::wstring Rest() { return Wide(Text()); }

 private:
  void Skip() {
    while (*at_ == ' ') ++at_;
  }
  const char* at_;
};

struct Name {
  explicit Name(std::wstring path, HANDLE root = nullptr) : text(std::move(path)) {
    counted = {static_cast<USHORT>(text.size() * sizeof(wchar_t)),
               static_cast<USHORT>(text.size() * sizeof(wchar_t)), text.data()};
    InitializeObjectAttributes(&attributes, &counted, OBJ_CASE_INSENSITIVE, root, nullptr);
  }
  std::wstring text;
  UNICODE_STRING counted;
  OBJECT_ATTRIBUTES attributes;
};

NTSTATUS Create(HANDLE* file, ACCESS_MASK access, ULONG disposition, ULONG options, Name name) {
  IO_STATUS_BLOCK io;
  return NtCreateFile(file, access, &name.attributes, &io, nullptr, 0, kShareAll, disposition, options,
                      nullptr, 0);
}

NTSTATUS Set(HANDLE file, void* info, ULONG bytes, ULONG number) {
  IO_STATUS_BLOCK io;
  return NtSetInformationFile(file, &io, info, bytes, static_cast<FILE_INFORMATION_CLASS>(number));
}

NTSTATUS Rename(HANDLE file, ULONG number, ULONG flags, const std::wstring& target) {
  constexpr std::size_t kHead = 20;
  std::vector<char> info(kHead + target.size() * sizeof(wchar_t) + 8);
  const auto name_bytes = static_cast<ULONG>(target.size() * sizeof(wchar_t));
  memcpy(&info[0], &flags, 4);
  memcpy(&info[16], &name_bytes, 4);
  memcpy(&info[kHead], target.data(), name_bytes);
  return Set(file, info.data(), static_cast<ULONG>(info.size()), number);
}

NTSTATUS OpenById(HANDLE* file, ACCESS_MASK access, HANDLE folder, HANDLE named) {
  BY_HANDLE_FILE_INFORMATION info = {};
  GetFileInformationByHandle(named, &info);
  const DWORD id[2] = {info.nFileIndexLow, info.nFileIndexHigh};
  return Create(file, access, FILE_OPEN, kOpenById | FILE_SYNCHRONOUS_IO_NONALERT,
                Name({reinterpret_cast<const wchar_t*>(id), 4}, folder));
}

void Storm(int threads, int count, const std::wstring& folder) {
  std::atomic<int> refused = 0, failures = 0;
  const auto run = [&](int first, int end) {
    std::vector<std::thread> workers;
    for (int t = 0; t < threads; ++t)
      workers.emplace_back([&, first, end, t] {
        const std::wstring own = folder + L"\\open\\" + std::to_wstring(t);
        const std::wstring denied = folder + L"\\denied\\" + std::to_wstring(t) + L"_";
        for (int i = first; i < end; ++i) {
          HANDLE file = nullptr;
          if (Create(&file, GENERIC_WRITE | DELETE | SYNCHRONIZE, FILE_OPEN_IF, FILE_SYNCHRONOUS_IO_NONALERT,
                     Name(own)) < 0)
            ++failures;
          else if (NtClose(file) < 0)
            ++failures;
          refused +=
              Create(&file, GENERIC_WRITE, FILE_CREATE, 0, Name(denied + std::to_wstring(i))) == kRefused;
        }
      });
    for (std::thread& worker : workers) worker.join();
  };
  const int warm_up = std::min(count, 20);
  run(0, warm_up);  // one-time allocations
  const int handles = vorn::test::OpenHandles();
  run(warm_up, count);
  printf("%d refused, %d failed\n%d\n", refused.load(), failures.load(), vorn::test::OpenHandles() - handles);
}

int Race(int count, const std::wstring& path) {
  int reached = 0;
  for (int i = 0; i < count; ++i) {
    HANDLE file;
    char byte = 0;
    IO_STATUS_BLOCK io;
    if (Create(&file, GENERIC_READ | SYNCHRONIZE, FILE_OPEN, FILE_SYNCHRONOUS_IO_NONALERT, Name(path)) < 0)
      continue;
    NtReadFile(file, nullptr, nullptr, nullptr, &io, &byte, 1, nullptr, nullptr);
    NtClose(file);
    reached += byte == 'd';
  }
  return reached;
}

void Print(NTSTATUS status) { printf("%lX\n", static_cast<unsigned long>(status)); }

void Execute(const std::string& line) {
  Words words(line);
  const std::string command = words.Next();
  IO_STATUS_BLOCK io;
  if (command == "create") {
    HANDLE& slot = words.Slot();
    const ULONG access = words.Hex(), disposition = words.Hex(), options = words.Hex();
    Print(Create(&slot, access, disposition, options, Name(words.Rest())));
  } else if (command == "ask") {
    const ULONG disposition = words.Hex();
    HANDLE file = nullptr;
    Print(Create(&file, SYNCHRONIZE | FILE_READ_ATTRIBUTES, disposition, 0, Name(words.Rest())));
    if (file) NtClose(file);
  } else if (command == "openid" || command == "below") {
    HANDLE& slot = words.Slot();
    const ULONG access = words.Hex();
    HANDLE folder = words.Slot();
    Print(command == "openid"
              ? OpenById(&slot, access, folder, words.Slot())
              : Create(&slot, access, FILE_OPEN, FILE_SYNCHRONOUS_IO_NONALERT, Name(words.Rest(), folder)));
  } else if (command == "openfile") {
    HANDLE& slot = words.Slot();
    const ULONG access = words.Hex(), options = words.Hex();
    Name name(words.Rest());
    Print(NtOpenFile(&slot, access, &name.attributes, &io, kShareAll, options));
  } else if (command == "write") {
    HANDLE slot = words.Slot();
    std::string text = words.Text();
    LARGE_INTEGER start = {};
    Print(NtWriteFile(slot, nullptr, nullptr, nullptr, &io, text.data(), static_cast<ULONG>(text.size()),
                      &start, nullptr));
  } else if (command == "close") {
    Print(NtClose(words.Slot()));
  } else if (command == "duplicate") {
    HANDLE& slot = words.Slot();
    Print(!DuplicateHandle(GetCurrentProcess(), words.Slot(), GetCurrentProcess(), &slot, 0, FALSE,
                           DUPLICATE_SAME_ACCESS));
  } else if (command == "disposition") {
    HANDLE slot = words.Slot();
    const ULONG number = words.Decimal();
    ULONG flags = words.Hex();
    const NTSTATUS status = Set(slot, &flags, number == 13 ? 1 : 4, number);
    printf("%lX %lX\n", static_cast<unsigned long>(status), flags);
  } else if (command == "rename") {
    HANDLE slot = words.Slot();
    const ULONG number = words.Decimal(), flags = words.Hex();
    Print(Rename(slot, number, flags, words.Rest()));
  } else if (command == "times") {
    FILE_BASIC_INFO info = {};
    info.LastWriteTime.QuadPart = 125911584000000000;
    Print(Set(words.Slot(), &info, sizeof info, 4));
  } else if (command == "size") {
    HANDLE slot = words.Slot();
    FILE_END_OF_FILE_INFO info;
    info.EndOfFile.QuadPart = words.Decimal();
    Print(Set(slot, &info, sizeof info, 20));
  } else if (command == "delete") {
    Name name(words.Rest());
    Print(NtDeleteFile(&name.attributes));
  } else if (command == "move") {
    const ULONG flags = words.Hex();
    const std::wstring both = words.Rest();
    const std::size_t bar = both.find(L'|');
    const bool moved = MoveFileExW(both.substr(0, bar).c_str(), both.substr(bar + 1).c_str(), flags);
    printf("%lu\n", moved ? 0 : GetLastError());
  } else if (command == "race") {
    const int count = static_cast<int>(words.Decimal());
    printf("%d\n", Race(count, words.Rest()));
  } else if (command == "storm") {
    const int threads = static_cast<int>(words.Decimal()), count = static_cast<int>(words.Decimal());
    Storm(threads, count, words.Rest());
  } else {
    printf("no such command: %s\n", line.c_str());
  }
}

}  // namespace

int wmain(int argc, wchar_t** argv) {
  if (argc < 4) return 2;
  std::ifstream script{std::filesystem::path(argv[1])};
  for (std::string line; std::getline(script, line);) {
    Execute(line);
    Sleep(1);  // messages of one kind that come faster are a flood, of which some are dropped
  }
  fflush(stdout);

  const HANDLE seen = OpenEventW(SYNCHRONIZE, FALSE, argv[3]);
  const std::wstring last = std::wstring(L"\\??\\") + argv[2];
  for (int i = 0; i < 500; ++i) {
    HANDLE file;
    if (Create(&file, GENERIC_READ, FILE_OPEN, 0, Name(last)) != kRefused) return 0;  // nothing is reported
    if (WaitForSingleObject(seen, 20) == WAIT_OBJECT_0) return 0;
  }
  return 3;
}
