// What confinement adds to opening and closing a file, and to other work with files: time against the plain
// calls, side by side in one run, for a section without options and for one of a run of vorn; the allocations
// of one open; what open handles add to a close.
//
//   file_open_bench                 the ratios
//   file_open_bench --mark          200 opens and closes in each mode between named events, for
//                                   tools/count-requests, which counts the server requests between them
#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <optional>
#include <string>
#include <vector>

#include "File/file_mgr.h"
#include "VornCore/Base/shared_data.h"
#include "VornCore/Base/thread_state.h"
#include "VornCore/Hook/kernel_base.h"
#include "VornCore/Hook/ntdll.h"
#include "bench_clock.h"
#include "vorn/nt_path.h"
#include "vorn/recycle_bin.h"
#include "vorn/section.h"

namespace {
std::size_t allocations = 0;
}
// The linker leads every malloc of this program here.
extern "C" void* __real_malloc(std::size_t bytes);
extern "C" void* __wrap_malloc(std::size_t bytes) {
  ++allocations;
  return __real_malloc(bytes);
}

namespace {

using namespace VornCore;

constexpr int kRules = 100;
constexpr int kMarked = 200;
constexpr int kManyHandles = 10'000;

std::wstring Folder() { return L"C:\\vorn_open_bench"; }

const wchar_t* const kFolders[] = {L"off", L"deny", L"read", L"write"};

// An open and close: where, with which rights, and its budgets, without options and in a run.
struct Mode {
  const char* name;
  const wchar_t* folder;
  ACCESS_MASK access;
  double budgets[2];
};
constexpr Mode kModes[] = {
    {"off", L"off", GENERIC_READ, {1.05, 1.05}},         {"deny", L"deny", GENERIC_READ, {2.2, 1.5}},
    {"read", L"read", GENERIC_READ, {3.3, 1.6}},         {"write", L"write", GENERIC_WRITE, {3.8, 2.0}},
    {"stat", L"read", FILE_READ_ATTRIBUTES, {3.3, 1.8}},
};
const char* const kSectionNames[] = {"no options", "a run"};
constexpr std::uint32_t kRun =
    vorn::host::kRunOptions & ~vorn::policy::OptionBits(vorn::policy::SectionOption::kProveHooks);

void MakeFiles() {
  CreateDirectoryW(Folder().c_str(), nullptr);
  for (const wchar_t* mode : kFolders) {
    CreateDirectoryW((Folder() + L"\\" + mode).c_str(), nullptr);
    const std::wstring file = Folder() + L"\\" + mode + L"\\file.txt";
    CloseHandle(CreateFileW(file.c_str(), GENERIC_WRITE, 7, nullptr, CREATE_ALWAYS, 0, nullptr));
  }
}

void RemoveFiles() {
  for (const wchar_t* mode : kFolders) {
    DeleteFileW((Folder() + L"\\" + mode + L"\\file.txt").c_str());
    RemoveDirectoryW((Folder() + L"\\" + mode).c_str());
  }
  RemoveDirectoryW(Folder().c_str());
}

void UseRules(std::uint32_t flags, std::uint32_t options = 0) {
  static std::optional<vorn::host::SharedSection> section;
  vorn::host::SectionContents contents;
  contents.flags = flags;
  contents.options = options;
  if (options & vorn::policy::OptionBits(vorn::policy::SectionOption::kKeepByLink)) {
    contents.run = "bench";
    contents.keep_places = vorn::host::FindKeepPlaces();
  }
  const std::wstring folder = vorn::host::ToNtPath(Folder());
  for (int i = 0; i < kRules - 3; ++i)
    contents.file_rules.push_back({FileACL::kRead, folder + L"\\other" + std::to_wstring(i)});
  contents.file_rules.push_back({FileACL::kDeny, folder + L"\\deny"});
  contents.file_rules.push_back({FileACL::kRead, folder + L"\\read"});
  contents.file_rules.push_back({FileACL::kReadWrite, folder + L"\\write"});
  section.emplace(contents);
  if (OpenSharedData(section->name().c_str()) != 0) abort();
}

// Opens the file of a folder, by drive letter, and closes it.
class OpenClose {
 public:
  explicit OpenClose(const wchar_t* folder, ACCESS_MASK access = GENERIC_READ)
      : path_(L"\\??\\" + Folder() + L"\\" + folder + L"\\file.txt"), access_(access) {}
  void operator()() const {
    UNICODE_STRING name = nt::CountedString(path_.data(), path_.size() * sizeof(wchar_t));
    OBJECT_ATTRIBUTES attributes = nt::NamedObject(&name);
    IO_STATUS_BLOCK io;
    HANDLE file;
    if (nt::Success(NtCreateFile(&file, access_ | SYNCHRONIZE, &attributes, &io, nullptr, 0, 7, FILE_OPEN,
                                 FILE_SYNCHRONOUS_IO_NONALERT, nullptr, 0)))
      NtClose(file);
  }

 private:
  const std::wstring path_;
  const ACCESS_MASK access_;
};

std::uint32_t FlagsOf(const Mode& mode) {
  return &mode == kModes ? vorn::policy::kFlagFileCreateCheckOff : 0;
}

// What two candidates cost in rounds that take turns, so that what else the machine does weighs on both. The
// ratio is the median of the rounds' ratios; the times are the best of each.
struct Comparison {
  double base = 1e18, other = 1e18, ratio = 0;  // nanoseconds per call
};

template <class Base, class Other>
Comparison TakeTurns(Base&& base, Other&& other) {
  constexpr int kRounds = 61;
  Comparison result;
  std::vector<double> ratios;
  for (int round = 0; round < kRounds; ++round) {
    const double base_time = base(), other_time = other();
    result.base = std::min(result.base, base_time);
    result.other = std::min(result.other, other_time);
    ratios.push_back(other_time / base_time);
  }
  std::nth_element(ratios.begin(), ratios.begin() + kRounds / 2, ratios.end());
  result.ratio = ratios[kRounds / 2];
  return result;
}

// The hooks are removed for the plain calls.
template <class Work>
Comparison ConfinedAgainstPlain(int calls, Work&& work) {
  return TakeTurns(
      [&] {
        Ntdll::UnInit();
        work();
        return vorn::bench::BatchNanos(work, calls);
      },
      [&] {
        Ntdll::Init();
        work();
        return vorn::bench::BatchNanos(work, calls);
      });
}

void CompareOpens() {
  std::printf("open and close of an existing file, confined against plain (%d rules)\n", kRules);
  for (const Mode& mode : kModes) {
    for (const bool run : {false, true}) {
      UseRules(FlagsOf(mode), run ? kRun : 0);
      const OpenClose open_close(mode.folder, mode.access);
      const Comparison times = ConfinedAgainstPlain(150, open_close);
      const std::size_t before = allocations;
      for (int i = 0; i < 100; ++i) open_close();
      std::printf("  %-6s %-11s ratio %4.2f (budget %.2f)  %6.2f us, plain %6.2f us  allocations %.2f\n",
                  mode.name, kSectionNames[run], times.ratio, mode.budgets[run], times.other / 1e3,
                  times.base / 1e3, static_cast<double>(allocations - before) / 100);
    }
  }
}

// Work that changes a folder: made and deleted, renamed there and back, replaced, truncated.
template <class Use>
void ForEachChange(Use&& use) {
  const std::wstring file = Folder() + L"\\write\\file.txt", other = Folder() + L"\\write\\other.txt";
  const auto make = [](const std::wstring& path) {
    CloseHandle(CreateFileW(path.c_str(), GENERIC_WRITE, 7, nullptr, CREATE_ALWAYS, 0, nullptr));
  };
  use("create and delete", 1.8, [&] {
    make(other);
    DeleteFileW(other.c_str());
  });
  use("rename there and back", 2.0, [&] {
    MoveFileExW(file.c_str(), other.c_str(), 0);
    MoveFileExW(other.c_str(), file.c_str(), 0);
  });
  use("create and replace", 2.0, [&] {
    make(other);
    MoveFileExW(other.c_str(), file.c_str(), MOVEFILE_REPLACE_EXISTING);
  });
  use("truncate", 2.0, [&] { make(file); });
}

void CompareChanges() {
  UseRules(0, kRun);
  std::printf("changes in a run, confined against plain\n");
  ForEachChange([](const char* name, double budget, auto&& work) {
    const Comparison times = ConfinedAgainstPlain(50, work);
    std::printf("  %-30s ratio %4.2f (budget %.2f)  %6.2f us, plain %6.2f us\n", name, times.ratio, budget,
                times.other / 1e3, times.base / 1e3);
  });
}

// A write that succeeds is only looked at.
void CompareWrites() {
  UseRules(0);
  const std::wstring path = Folder() + L"\\write\\file.txt";
  HANDLE file = CreateFileW(path.c_str(), GENERIC_WRITE, 7, nullptr, OPEN_EXISTING, 0, nullptr);
  const Comparison times = ConfinedAgainstPlain(2000, [&] {
    IO_STATUS_BLOCK io;
    LARGE_INTEGER start = {};
    char byte = 0;
    NtWriteFile(file, nullptr, nullptr, nullptr, &io, &byte, 1, &start, nullptr);
  });
  CloseHandle(file);
  std::printf("write of one byte, confined against plain\n  ratio %4.2f  %.0f ns, plain %.0f ns\n",
              times.ratio, times.other, times.base);
}

void CompareCloses() {
  UseRules(0);
  HandleRecords& records = GetFileMgr().model().handles();
  int count = 0;
  const auto handle_of = [](int i) {
    return reinterpret_cast<HANDLE>(0x100000ull + 4ull * static_cast<unsigned>(i));
  };
  const auto have = [&](int wanted) {
    for (; count < wanted; ++count)
      records.Add(MakeHandleRecord({.handle = handle_of(count)}, L"\\Device\\x"));
    for (; count > wanted; --count) records.Take(handle_of(count - 1));
  };
  const auto close_event = [] {
    HANDLE event = CreateEventW(nullptr, FALSE, FALSE, nullptr);
    NtClose(event);
  };
  const auto compare = [&](const auto& work) {
    const auto with = [&](int wanted) {
      return [&, wanted] {
        have(wanted);
        work();
        return vorn::bench::BatchNanos(work, 150);
      };
    };
    return TakeTurns(with(10), with(kManyHandles));
  };
  std::printf("close with %d open records against 10 (budget 1.10)\n", kManyHandles);
  std::printf("  create and close of an event   ratio %4.2f\n", compare(close_event).ratio);
  std::printf("  open and close of a file       ratio %4.2f\n", compare(OpenClose(L"write")).ratio);
  have(0);
}

// The server's trace shows the event's name, so a reader of the trace knows what lies between two marks.
void Mark(const std::string& name) {
  CloseHandle(CreateEventA(nullptr, FALSE, FALSE, ("vorn_mark_" + name).c_str()));
}

// A tree in which every file has a second name in another folder, opened for writing one after the other.
class LinkedTree {
 public:
  LinkedTree() {
    for (const wchar_t* folder : {L"\\linked", L"\\twins"})
      CreateDirectoryW((Folder() + L"\\write" + folder).c_str(), nullptr);
    for (int i = 0; i < kFiles; ++i) {
      CloseHandle(CreateFileW(Name(i).c_str(), GENERIC_WRITE, 7, nullptr, CREATE_ALWAYS, 0, nullptr));
      CreateHardLinkW(Twin(i).c_str(), Name(i).c_str(), nullptr);
    }
  }
  ~LinkedTree() {
    for (int i = 0; i < kFiles; ++i) {
      DeleteFileW(Name(i).c_str());
      DeleteFileW(Twin(i).c_str());
    }
    for (const wchar_t* folder : {L"\\linked", L"\\twins"})
      RemoveDirectoryW((Folder() + L"\\write" + folder).c_str());
  }
  LinkedTree(const LinkedTree&) = delete;
  LinkedTree& operator=(const LinkedTree&) = delete;

  // Milliseconds an open; false in all_open when one was refused.
  double Open(const char* mark, bool* all_open) const {
    int i = 0;
    const auto write = [&] {
      HANDLE file = CreateFileW(Name(i++).c_str(), GENERIC_WRITE, 7, nullptr, OPEN_EXISTING, 0, nullptr);
      DWORD written = 0;
      if (!WriteFile(file, "x", 1, &written, nullptr)) *all_open = false;
      CloseHandle(file);
    };
    Mark(mark);
    const double nanos = vorn::bench::BatchNanos(write, kFiles);
    Mark("end");
    return nanos / 1e6;
  }

 private:
  static constexpr int kFiles = 300;
  static std::wstring Name(int i) { return Folder() + L"\\write\\linked\\" + std::to_wstring(i); }
  static std::wstring Twin(int i) { return Folder() + L"\\write\\twins\\" + std::to_wstring(i); }
};

void CompareLinks() {
  Ntdll::UnInit();
  const LinkedTree tree;
  UseRules(0, kRun);
  bool all_open = true;
  std::vector<double> ratios;
  double first = 0, plain = 1e9, confined = 1e9;
  for (int round = 0; round < 5; ++round) {
    Ntdll::UnInit();
    const double base = tree.Open("plain_linked", &all_open);
    Ntdll::Init();
    const double other = tree.Open("linked", &all_open);
    if (round == 0) first = other;
    plain = std::min(plain, base);
    confined = std::min(confined, other);
    ratios.push_back(other / base);
  }
  std::nth_element(ratios.begin(), ratios.begin() + 2, ratios.end());
  std::printf("write to a file with a second name elsewhere, confined against plain%s\n",
              all_open ? "" : "  REFUSED");
  std::printf("  ratio %4.2f (budget 2)  %.3f ms each, plain %.3f; the first time %.3f ms (budget 1)\n",
              ratios[2], confined, plain, first);
  Ntdll::UnInit();
}

void MarkModes() {
  const auto run = [](std::string name, auto&& work) {
    std::replace(name.begin(), name.end(), ' ', '_');
    for (int i = 0; i < 3; ++i) work();  // what happens once, happens here
    Mark(name);
    for (int i = 0; i < kMarked; ++i) work();
    Mark("end");
  };
  const auto compare = [&](const std::string& name, std::uint32_t flags, bool plain_section, auto&& work) {
    Ntdll::UnInit();
    run("plain_" + name, work);
    for (const bool options : {false, true}) {
      if (!options && !plain_section) continue;
      UseRules(flags, options ? kRun : 0);
      Ntdll::Init();
      run(options ? "run_" + name : name, work);
      Ntdll::UnInit();
    }
  };
  for (const Mode& mode : kModes)
    compare(mode.name, FlagsOf(mode), true, OpenClose(mode.folder, mode.access));
  ForEachChange([&](const char* name, double, auto&& work) { compare(name, 0, false, work); });
}

}  // namespace

int main(int argc, char** argv) {
  MakeFiles();
  UseRules(0);
  if (InitThreadState() != 0 || !Ntdll::Init() || !KernelBase::Init() || !GetFileMgr().Init()) return 1;
  if (argc > 1 && strcmp(argv[1], "--mark") == 0) {
    MarkModes();
  } else if (argc > 1 && strcmp(argv[1], "--links") == 0) {
    CompareLinks();
  } else {
    CompareOpens();
    CompareChanges();
    CompareWrites();
    CompareCloses();
    CompareLinks();
  }
  Ntdll::UnInit();
  KernelBase::UnInit();
  RemoveFiles();
}
