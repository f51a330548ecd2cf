// Works with files as a seed says, and prints what each step answered: statuses, errors, data, granted
// rights, attributes, and the tree that is left.
//
//   transparency_probe FOLDER FIRST_SEED COUNT STEPS EXTENDED [SKIP…]
//
// EXTENDED 1: also with the information class for deletions that not every system has.
// Each seed works in a folder of its own below FOLDER. The steps whose numbers follow are left out, which
// changes no other step.
#include <windows.h>
#include <winternl.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <random>
#include <set>
#include <string>
#include <vector>

#include "windows/nt.h"
#include "windows/user_only_security.h"

namespace {

constexpr int kSlots = 4;
const wchar_t* const kNames[] = {L"a.txt",   L"b.txt",         L"c", L"d", L"d\\e.txt", L"D\\f", L"A.TXT",
                                 L"none\\g", L"long name.text"};
constexpr ACCESS_MASK kAccess[] = {GENERIC_READ,
                                   GENERIC_WRITE,
                                   GENERIC_READ | GENERIC_WRITE,
                                   DELETE,
                                   MAXIMUM_ALLOWED,
                                   GENERIC_ALL,
                                   FILE_APPEND_DATA,
                                   FILE_READ_ATTRIBUTES,
                                   GENERIC_READ | GENERIC_WRITE | DELETE,
                                   FILE_WRITE_ATTRIBUTES};
constexpr ULONG kShares[] = {0, 1, 3, 7, 7, 7};
constexpr ULONG kOptions[] = {
    0, 0, 0, FILE_NON_DIRECTORY_FILE, FILE_DIRECTORY_FILE, FILE_DELETE_ON_CLOSE, FILE_OPEN_REPARSE_POINT};
constexpr DWORD kAttributes[] = {FILE_ATTRIBUTE_NORMAL, FILE_ATTRIBUTE_NORMAL, FILE_ATTRIBUTE_READONLY,
                                 FILE_ATTRIBUTE_HIDDEN};
constexpr DWORD kMoveFlags[] = {0, MOVEFILE_REPLACE_EXISTING, MOVEFILE_COPY_ALLOWED,
                                MOVEFILE_REPLACE_EXISTING | MOVEFILE_WRITE_THROUGH};

template <class T, std::size_t N>
const T& Pick(const T (&from)[N], unsigned choice) {
  return from[choice % N];
}

// Calls that take names.
constexpr struct {
  const char* name;
  BOOL (*run)(const wchar_t* path, const wchar_t* other, unsigned choice);
} kByName[] = {
    {"delete", [](auto path, auto, auto) { return DeleteFileW(path); }},
    {"move", [](auto path, auto to, auto choice) { return MoveFileExW(path, to, Pick(kMoveFlags, choice)); }},
    {"copy", [](auto path, auto to, auto choice) { return CopyFileW(path, to, choice % 2); }},
    {"make", [](auto path, auto, auto) { return CreateDirectoryW(path, nullptr); }},
    {"remove", [](auto path, auto, auto) { return RemoveDirectoryW(path); }},
    {"attributes",
     [](auto path, auto, auto choice) { return SetFileAttributesW(path, Pick(kAttributes, choice)); }},
    {"replace",
     [](auto path, auto by, auto) { return ReplaceFileW(path, by, nullptr, 0, nullptr, nullptr); }},
};

// To how many an access list gives something; -1 when it cannot be read.
int AllowedBy(const std::wstring& path) {
  alignas(8) std::byte bytes[4096];
  DWORD needed;
  BOOL present = FALSE, by_default;
  PACL list = nullptr;
  ACL_SIZE_INFORMATION size = {};
  if (!GetFileSecurityW(path.c_str(), DACL_SECURITY_INFORMATION, bytes, sizeof bytes, &needed) ||
      !GetSecurityDescriptorDacl(bytes, &present, &list, &by_default) || !present || !list ||
      !GetAclInformation(list, &size, sizeof size, AclSizeInformation))
    return -1;
  return static_cast<int>(size.AceCount);
}

class Sequence {
 public:
  Sequence(const std::wstring& folder, unsigned seed, bool extended)
      : folder_(folder), random_(seed), extended_(extended) {
    CreateDirectoryW(folder_.c_str(), nullptr);
    CreateDirectoryW(Dos(L"d").c_str(), nullptr);
    for (const wchar_t* name : {L"a.txt", L"d\\e.txt"}) {
      const HANDLE file = CreateFileW(Dos(name).c_str(), GENERIC_WRITE, 0, nullptr, CREATE_NEW, 0, nullptr);
      DWORD written;
      WriteFile(file, "old", 3, &written, nullptr);
      CloseHandle(file);
    }
  }

  // Every step draws the same numbers, whether it is skipped or not.
  void Step(int number, bool skipped) {
    const Choice choice{random_(), random_(), random_(), random_(), random_(), random_()};
    if (skipped) return;
    std::printf("%2d ", number);
    Do(choice);
    std::printf("\n");
  }

  void Finish() {
    for (HANDLE& slot : slots_) Close(slot);
    for (const void* view : views_) UnmapViewOfFile(view);
    std::printf("tree\n");
    List(folder_, 1);
  }

 private:
  struct Choice {
    unsigned kind, a, b, c, d, e;
  };

  std::wstring Dos(const std::wstring& name) const { return folder_ + L"\\" + name; }
  std::wstring Nt(const std::wstring& name) const { return L"\\??\\" + Dos(name); }

  void Status(NTSTATUS status) { std::printf(" %08lX", static_cast<unsigned long>(status)); }
  void Result(BOOL success) { std::printf(" error %lu", success ? 0 : GetLastError()); }

  static void Close(HANDLE& slot) {
    if (slot) NtClose(slot);
    slot = nullptr;
  }

  void Do(const Choice& choice) {
    HANDLE& slot = slots_[choice.a % kSlots];
    const wchar_t* name = Pick(kNames, choice.b);
    const wchar_t* other = Pick(kNames, choice.c);
    const int number = static_cast<int>(choice.a % kSlots);
    const unsigned kind = choice.kind % 25;
    if (kind < 5) return Open(slot, name, choice);
    if (kind == 5) return Write(slot, choice);
    if (kind == 6) return Read(slot);
    if (kind == 7) return Query(slot);
    if (kind < 10) return Rename(slot, name, choice.c % 2, nt::kFileRenameInformation);
    if (kind == 10) return Rename(slot, name, choice.c % 2, nt::kFileLinkInformation);
    if (kind < 13) {
      const BOOLEAN remove = choice.b % 4 != 0;
      std::printf("dispose %d %d", number, remove);
      return Set(slot, remove, nt::kFileDispositionInformation);
    }
    if (kind == 13 && extended_) {
      constexpr ULONG kFlags[] = {1, 3, 0x11, 0x13, 0, 8};
      const nt::DispositionInformationEx flags{Pick(kFlags, choice.b)};
      std::printf("dispose %d flags %lX", number, flags.Flags);
      return Set(slot, flags, nt::kFileDispositionInformationEx);
    }
    if (kind == 14) {
      FILE_BASIC_INFO basic = {};
      basic.LastWriteTime.QuadPart = 0x01D000000000000LL + choice.b % 7;
      basic.FileAttributes = Pick(kAttributes, choice.c);
      std::printf("basic %d %lX", number, basic.FileAttributes);
      return Set(slot, basic, nt::kFileBasicInformation);
    }
    if (kind == 15) {
      const LARGE_INTEGER end{.QuadPart = choice.b % 9};
      std::printf("end %d %lld", number, end.QuadPart);
      return Set(slot, end, nt::kFileEndOfFileInformation);
    }
    if (kind == 16) {
      std::printf("duplicate %d to %u", number, choice.b % kSlots);
      HANDLE copy = nullptr;
      if (!slot || !DuplicateHandle(GetCurrentProcess(), slot, GetCurrentProcess(), &copy, 0, FALSE,
                                    DUPLICATE_SAME_ACCESS))
        return;
      std::printf(" done");
      Close(slots_[choice.b % kSlots]);
      slots_[choice.b % kSlots] = copy;
      return;
    }
    if (kind < 19) {
      std::printf("close %d", number);
      return Close(slot);
    }
    if (kind == 19) return Map(slot);
    const auto& call = Pick(kByName, choice.e);
    std::printf("%s %ls %ls %u", call.name, name, other, choice.d % 4);
    Result(call.run(Dos(name).c_str(), Dos(other).c_str(), choice.d));
  }

  void Open(HANDLE& slot, const wchar_t* name, const Choice& choice) {
    Close(slot);
    const std::wstring path = Nt(name);
    UNICODE_STRING text = nt::CountedString(path.data(), path.size() * sizeof(wchar_t));
    OBJECT_ATTRIBUTES attributes = nt::NamedObject(&text);
    IO_STATUS_BLOCK io = {};
    static vorn::windows::UserOnlySecurity security;
    if (choice.e / 64 % 4 == 0) attributes.SecurityDescriptor = security.descriptor();
    // Who empties a file has the right to write it, as programs have: some systems grant handles more than
    // was asked for otherwise, depending on whether the file was there.
    const bool empties = choice.d % 6 == FILE_SUPERSEDE || choice.d % 6 >= FILE_OVERWRITE;
    const ACCESS_MASK access = Pick(kAccess, choice.c) | (empties ? GENERIC_READ | GENERIC_WRITE : 0);
    const ULONG disposition = choice.d % 6, options = Pick(kOptions, choice.d / 6),
                share = Pick(kShares, choice.e);
    const ULONG attribute = Pick(kAttributes, choice.e / 8);
    // Deleting at close asks for the right to.
    const ACCESS_MASK all =
        access | SYNCHRONIZE | (options & FILE_DELETE_ON_CLOSE && choice.c % 3 ? DELETE : 0);
    std::printf("open %d %ls access %lX disposition %lu options %lX share %lu attributes %lX",
                static_cast<int>(choice.a % kSlots), name, all, disposition, options, share, attribute);
    const NTSTATUS status = NtCreateFile(&slot, all, &attributes, &io, nullptr, attribute, share, disposition,
                                         options | FILE_SYNCHRONOUS_IO_NONALERT, nullptr, 0);
    Status(status);
    if (!nt::Success(status)) {
      slot = nullptr;
      return;
    }
    struct {
      ACCESS_MASK granted;
    } rights = {};
    IO_STATUS_BLOCK ignored;
    NtQueryInformationFile(slot, &ignored, &rights, sizeof rights, static_cast<FILE_INFORMATION_CLASS>(8));
    std::printf(" information %llu granted %lX", static_cast<unsigned long long>(io.Information),
                rights.granted);
  }

  void Write(HANDLE slot, const Choice& choice) {
    const char text[] = "0123456789";
    IO_STATUS_BLOCK io = {};
    LARGE_INTEGER at{.QuadPart = choice.c % 4};
    std::printf("write %d", static_cast<int>(choice.a % kSlots));
    Status(NtWriteFile(slot, nullptr, nullptr, nullptr, &io, const_cast<char*>(text), choice.b % 10, &at,
                       nullptr));
    std::printf(" %llu", static_cast<unsigned long long>(io.Information));
  }

  void Read(HANDLE slot) {
    char text[32] = {};
    IO_STATUS_BLOCK io = {};
    LARGE_INTEGER at = {};
    std::printf("read");
    Status(NtReadFile(slot, nullptr, nullptr, nullptr, &io, text, sizeof text - 1, &at, nullptr));
    std::printf(" \"%s\"", text);
  }

  template <class Information>
  void Set(HANDLE slot, Information information, ULONG info_class) {
    IO_STATUS_BLOCK io = {};
    const Information before = information;
    Status(NtSetInformationFile(slot, &io, &information, sizeof information,
                                static_cast<FILE_INFORMATION_CLASS>(info_class)));
    if (std::memcmp(&before, &information, sizeof before)) std::printf(" buffer changed");
  }

  void Rename(HANDLE slot, const wchar_t* name, bool replace, ULONG info_class) {
    const std::wstring path = Nt(name);
    std::vector<std::byte> buffer(sizeof(nt::RenameInformation) + path.size() * sizeof(wchar_t));
    auto* request = reinterpret_cast<nt::RenameInformation*>(buffer.data());
    request->ReplaceIfExists = replace;
    request->FileNameLength = static_cast<ULONG>(path.size() * sizeof(wchar_t));
    std::memcpy(request->FileName, path.data(), request->FileNameLength);
    IO_STATUS_BLOCK io = {};
    std::printf("%s to %ls replace %d", info_class == nt::kFileLinkInformation ? "link" : "rename", name,
                replace);
    Status(NtSetInformationFile(slot, &io, request, static_cast<ULONG>(buffer.size()),
                                static_cast<FILE_INFORMATION_CLASS>(info_class)));
  }

  // A file that is mapped cannot be deleted or cut off everywhere. The view stays to the end of the sequence.
  void Map(HANDLE slot) {
    std::printf("map");
    HANDLE section = CreateFileMappingW(slot ? slot : INVALID_HANDLE_VALUE, nullptr, PAGE_READONLY, 0,
                                        slot ? 0 : 1, nullptr);
    Result(section != nullptr);
    if (void* view = section ? MapViewOfFile(section, FILE_MAP_READ, 0, 0, 0) : nullptr)
      views_.push_back(view);
    Close(section);
  }

  void Query(HANDLE slot) {
    FILE_STANDARD_INFO standard = {};
    FILE_BASIC_INFO basic = {};
    std::printf("query");
    if (!GetFileInformationByHandleEx(slot, FileStandardInfo, &standard, sizeof standard) ||
        !GetFileInformationByHandleEx(slot, FileBasicInfo, &basic, sizeof basic))
      return Result(FALSE);
    std::printf(" size %lld pending %d folder %d attributes %lX", standard.EndOfFile.QuadPart,
                standard.DeletePending, standard.Directory, basic.FileAttributes);
  }

  void List(const std::wstring& folder, int depth) {
    WIN32_FIND_DATAW entry;
    std::vector<WIN32_FIND_DATAW> entries;
    const HANDLE find = FindFirstFileW((folder + L"\\*").c_str(), &entry);
    if (find == INVALID_HANDLE_VALUE) return;
    do {
      if (wcscmp(entry.cFileName, L".") && wcscmp(entry.cFileName, L"..")) entries.push_back(entry);
    } while (FindNextFileW(find, &entry));
    FindClose(find);
    std::sort(entries.begin(), entries.end(),
              [](const auto& a, const auto& b) { return wcscmp(a.cFileName, b.cFileName) < 0; });
    for (const WIN32_FIND_DATAW& found : entries) {
      const std::wstring path = folder + L"\\" + found.cFileName;
      // What ReplaceFile could not put back has a random name.
      const bool temporary = path.ends_with(L".tmp");
      std::printf("%*s%ls %lX", 2 * depth, "", temporary ? L"(temporary)" : found.cFileName,
                  found.dwFileAttributes);
      if (found.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY) {
        std::printf("\n");
        List(path, depth + 1);
        continue;
      }
      char text[32] = {};
      DWORD bytes = 0;
      const HANDLE file = CreateFileW(path.c_str(), GENERIC_READ, 7, nullptr, OPEN_EXISTING, 0, nullptr);
      ReadFile(file, text, sizeof text - 1, &bytes, nullptr);
      CloseHandle(file);
      std::printf(" allows %d \"%s\"\n", AllowedBy(path), text);
    }
  }

  const std::wstring folder_;
  std::mt19937 random_;
  const bool extended_;
  std::vector<void*> views_;
  HANDLE slots_[kSlots] = {};
};

}  // namespace

int wmain(int argc, wchar_t** argv) {
  if (argc < 6) return 2;
  const unsigned first = static_cast<unsigned>(wcstoul(argv[2], nullptr, 10));
  const unsigned count = static_cast<unsigned>(wcstoul(argv[3], nullptr, 10));
  const int steps = static_cast<int>(wcstol(argv[4], nullptr, 10));
  std::set<int> skipped;
  for (int i = 6; i < argc; ++i) skipped.insert(static_cast<int>(wcstol(argv[i], nullptr, 10)));
  for (unsigned seed = first; seed - first < count; ++seed) {
    std::printf("sequence %u\n", seed);
    Sequence sequence(std::wstring(argv[1]) + L"\\" + std::to_wstring(seed), seed, argv[5][0] == L'1');
    for (int step = 0; step < steps; ++step) sequence.Step(step, skipped.contains(step));
    sequence.Finish();
  }
  return 0;
}
