// A link to a folder, made as the system lets a program make one, removed with the object.
#pragma once

#include "tests/e2e/file_script.h"

namespace vorn::test {

// A program of a Unix file system; its end cannot be waited for.
inline void RunUnix(const std::wstring& program, const std::vector<std::filesystem::path>& paths) {
  std::wstring command = program;
  for (const std::filesystem::path& path : paths)
    command += L" " + host::ToWide(UnixName(path.parent_path())) + L"/" + path.filename().wstring();
  STARTUPINFOW startup{};
  startup.cb = sizeof startup;
  PROCESS_INFORMATION process{};
  CreateProcessW((L"\\\\?\\unix\\bin\\" + program.substr(0, program.find(L' '))).c_str(), command.data(),
                 nullptr, nullptr, FALSE, 0, nullptr, nullptr, &startup, &process);
}

class FolderLink {
 public:
  FolderLink(std::filesystem::path link, const std::filesystem::path& target) : link_(std::move(link)) {
    std::error_code error;
    std::filesystem::create_directory_symlink(target, link_, error);
    if (error) RunUnix(L"ln -s", {target, link_});
    EXPECT_TRUE(Becomes(true));
  }
  // Whoever removes the tree would follow the link.
  ~FolderLink() {
    if (!RemoveDirectoryW(link_.c_str())) RunUnix(L"rm", {link_});
    EXPECT_TRUE(Becomes(false));
  }
  FolderLink(const FolderLink&) = delete;
  FolderLink& operator=(const FolderLink&) = delete;

 private:
  bool Becomes(bool present) const {
    for (int i = 0; i < 500; ++i, Sleep(10))
      if ((GetFileAttributesW(link_.c_str()) != INVALID_FILE_ATTRIBUTES) == present) return true;
    return false;
  }
  const std::filesystem::path link_;
};

}  // namespace vorn::test
