// Runs the file room in the test process itself: the hook tables are installed, the file manager listens, and
// the section comes from the test. The folder of a test lies outside the temp directory, which rules cannot
// touch.
#pragma once

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <optional>
#include <string>
#include <vector>

#include "File/file_mgr.h"
#include "VornCore/Base/shared_data.h"
#include "VornCore/Base/thread_state.h"
#include "VornCore/Hook/kernel_base.h"
#include "VornCore/Hook/ntdll.h"
#include "vorn/nt_path.h"
#include "vorn/section.h"

namespace VornCore {

class FileFixture : public testing::Test {
 protected:
  static void SetUpTestSuite() {
    static bool started = false;
    if (started) return;
    started = true;
    ASSERT_EQ(InitThreadState(), 0u);
    ASSERT_TRUE(Ntdll::Init() && KernelBase::Init());
    SetRules({});
    ASSERT_TRUE(GetFileMgr().Init());
  }

  void SetUp() override {
    LARGE_INTEGER now;  // process ids come again
    QueryPerformanceCounter(&now);
    folder_ = L"C:\\vorn_file_test_" + std::to_wstring(now.QuadPart) + L"_" + std::to_wstring(++serial_);
    Unconfined([&] {
      ASSERT_TRUE(CreateDirectoryW(folder_.c_str(), nullptr));
      for (const std::wstring name : {L"\\deny", L"\\read", L"\\write"}) {
        ASSERT_TRUE(CreateDirectoryW((folder_ + name).c_str(), nullptr));
        WriteText(name + L"\\f.txt", "old");
      }
    });
    SetRules({{FileACL::kDeny, Nt(L"\\deny")},
              {FileACL::kRead, Nt(L"\\read")},
              {FileACL::kReadWrite, Nt(L"\\write")}});
  }

  void TearDown() override {
    EXPECT_EQ(GetThreadState()->hookDepth, 0u);
    EXPECT_EQ(GetThreadState()->scratchLevel, 0);
    EXPECT_EQ(GetThreadState()->bInCreateFile, 0);
    EXPECT_EQ(GetFileMgr().model().handles().count(), 0);
    SetRules({});
    Unconfined([&] { RemoveTree(folder_); });
  }

  // Puts a section with these rules in force.
  static void SetRules(std::vector<vorn::host::FileRule> rules) {
    vorn::host::SectionContents contents;
    contents.flags = 0;
    contents.file_rules = std::move(rules);
    section_.emplace(contents);
    ASSERT_EQ(OpenSharedData(section_->name().c_str()), 0u);
  }

  // Runs body as the library's own file work.
  template <class Body>
  static void Unconfined(Body body) {
    ThreadState* state = GetThreadState();
    state->bOwnCall = 1;
    body();
    state->bOwnCall = 0;
  }

  std::wstring Dos(const std::wstring& name) const { return folder_ + name; }
  std::wstring Nt(const std::wstring& name) const { return vorn::host::ToNtPath(folder_ + name); }

  void WriteText(const std::wstring& name, const char* text) const {
    std::ofstream(std::filesystem::path(Dos(name)), std::ios::binary) << text;
  }
  // Content of a file; "(none)" when there is none.
  std::string Text(const std::wstring& name) const {
    std::string text = "(none)";
    Unconfined([&] {
      HANDLE file = CreateFileW(Dos(name).c_str(), GENERIC_READ, 7, nullptr, OPEN_EXISTING, 0, nullptr);
      if (file == INVALID_HANDLE_VALUE) return;
      char bytes[64];
      DWORD read = 0;
      ReadFile(file, bytes, sizeof bytes, &read, nullptr);
      CloseHandle(file);
      text.assign(bytes, read);
    });
    return text;
  }
  bool Exists(const std::wstring& name) const {
    DWORD attributes = 0;
    Unconfined([&] { attributes = GetFileAttributesW(Dos(name).c_str()); });
    return attributes != INVALID_FILE_ATTRIBUTES;
  }

  struct Opened {
    NTSTATUS status;
    HANDLE handle;
  };
  // One NtCreateFile by name, with read, write and delete sharing.
  static Opened Create(const std::wstring& nt_name, ACCESS_MASK access, ULONG disposition = FILE_OPEN,
                       ULONG options = FILE_SYNCHRONOUS_IO_NONALERT, HANDLE root = nullptr) {
    UNICODE_STRING name = nt::CountedString(nt_name.data(), nt_name.size() * sizeof(wchar_t));
    OBJECT_ATTRIBUTES attributes = nt::NamedObject(&name);
    attributes.RootDirectory = root;
    Opened opened{};
    IO_STATUS_BLOCK io;
    opened.status = NtCreateFile(&opened.handle, access | SYNCHRONIZE, &attributes, &io, nullptr, 0, 7,
                                 disposition, options, nullptr, 0);
    return opened;
  }
  Opened Create(const wchar_t* name, ACCESS_MASK access, ULONG disposition = FILE_OPEN,
                ULONG options = FILE_SYNCHRONOUS_IO_NONALERT) const {
    return Create(L"\\??\\" + Dos(name), access, disposition, options);
  }
  // A rename request and its target, as NtSetInformationFile takes them.
  static std::vector<std::byte> RenameBuffer(const std::wstring& target, ULONG flags, HANDLE root = nullptr) {
    std::vector<std::byte> bytes(sizeof(nt::RenameInformation) + target.size() * sizeof(wchar_t));
    auto* info = reinterpret_cast<nt::RenameInformation*>(bytes.data());
    info->Flags = flags;
    info->RootDirectory = root;
    info->FileNameLength = static_cast<ULONG>(target.size() * sizeof(wchar_t));
    memcpy(info->FileName, target.data(), info->FileNameLength);
    return bytes;
  }
  static ACCESS_MASK GrantedAccess(HANDLE handle) {
    PUBLIC_OBJECT_BASIC_INFORMATION info = {};
    NtQueryObject(handle, ObjectBasicInformation, &info, sizeof info, nullptr);
    return info.GrantedAccess;
  }

  // Tries each entry once: remove_all comes back without end to a file that a failed test has left open.
  static void RemoveTree(const std::filesystem::path& folder) {
    std::error_code ignored;
    for (const auto& entry : std::filesystem::directory_iterator(folder, ignored)) {
      if (entry.is_directory(ignored)) RemoveTree(entry.path());
      std::filesystem::remove(entry.path(), ignored);
    }
    std::filesystem::remove(folder, ignored);
  }

  std::wstring folder_;

 private:
  static inline std::optional<vorn::host::SharedSection> section_;
  static inline int serial_ = 0;
};

}  // namespace VornCore
