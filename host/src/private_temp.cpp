#include "vorn/private_temp.h"

#include <windows.h>

#include <filesystem>
#include <memory>
#include <system_error>

#include "vorn/environment.h"
#include "vorn/text.h"
#include "windows/nt.h"
#include "windows/unique_handle.h"

namespace vorn::host {
namespace {

// Empty when it cannot be told.
std::wstring FinalPath(const std::wstring& path) {
  const windows::UniqueHandle file(CreateFileW(path.c_str(), 0, nt::kShareAll, nullptr, OPEN_EXISTING,
                                               FILE_FLAG_BACKUP_SEMANTICS | FILE_FLAG_OPEN_REPARSE_POINT,
                                               nullptr));
  std::wstring final(32768, L'\0');
  final.resize(file ? GetFinalPathNameByHandleW(file.get(), final.data(), static_cast<DWORD>(final.size()),
                                                VOLUME_NAME_NT)
                    : 0);
  return final;
}

// Removes what lies in folder, whose final path is `final`. Not every system says of a link that it is one: a
// folder is entered only where it really lies.
void RemoveContents(const std::wstring& folder, const std::wstring& final) {
  WIN32_FIND_DATAW entry;
  const std::unique_ptr<void, decltype(&FindClose)> find(FindFirstFileW((folder + L"\\*").c_str(), &entry),
                                                         &FindClose);
  if (find.get() == INVALID_HANDLE_VALUE) return;
  do {
    const std::wstring name = entry.cFileName;
    if (name == L"." || name == L"..") continue;
    const std::wstring path = folder + L"\\" + name, expected = final + L"\\" + name;
    const bool link = (entry.dwFileAttributes & FILE_ATTRIBUTE_REPARSE_POINT) || FinalPath(path) != expected;
    if (!link && (entry.dwFileAttributes & FILE_ATTRIBUTE_READONLY))
      SetFileAttributesW(path.c_str(), FILE_ATTRIBUTE_NORMAL);
    if (entry.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY) {
      if (!link) RemoveContents(path, expected);
      RemoveDirectoryW(path.c_str());
    } else {
      DeleteFileW(path.c_str());
    }
  } while (FindNextFileW(find.get(), &entry));
}

}  // namespace

std::wstring PrivateTempPath(const std::string& run) {
  const std::wstring folder = DataFolder(L"temp");
  return folder.empty() ? folder : (std::filesystem::path(folder) / ToWide(run)).wstring();
}

PrivateTemp::PrivateTemp(std::wstring path) : path_(std::move(path)) {
  std::error_code error;
  std::filesystem::create_directories(path_, error);
  if (error) throw std::system_error(error, "the run's temp folder \"" + ToUtf8(path_) + "\"");
}

PrivateTemp::~PrivateTemp() {
  const std::wstring final = FinalPath(path_);
  if (!final.empty()) RemoveContents(path_, final);
  RemoveDirectoryW(path_.c_str());
}

}  // namespace vorn::host
