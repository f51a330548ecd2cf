// What the base room needs around it in a test program: a configuration section that it opened, and a log
// that can be read back.
#pragma once

#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "VornCore/Base/log.h"
#include "VornCore/Base/shared_data.h"
#include "build_paths.h"
#include "vorn/section.h"
#include "windows/nt.h"

namespace VornCore::test {

// The header of a section that the library may have mapped at the same time.
inline vorn::policy::SharedDataHeader& HeaderOf(const vorn::host::SharedSection& section) {
  return *reinterpret_cast<vorn::policy::SharedDataHeader*>(section.bytes().data());
}

// A new folder for this process's log. An open log cannot be removed, so each run removes what ended runs
// left.
inline std::filesystem::path LogFolder() {
  const auto all = std::filesystem::temp_directory_path() / L"vorn_log_test";
  const auto own = all / std::to_wstring(GetCurrentProcessId());
  std::error_code in_use;
  std::filesystem::create_directories(all);
  for (const auto& folder : std::filesystem::directory_iterator(all))
    std::filesystem::remove_all(folder.path(), in_use);
  std::filesystem::create_directories(own);
  return own;
}

// The process's log: opened once, in a folder of its own, with every level on.
class ProcessLog {
 public:
  static ProcessLog& Get() {
    static auto* log = new ProcessLog;  // stays open until the process ends
    return *log;
  }

  DWORD start_error() const { return start_error_; }
  void SetFlags(std::uint32_t flags) { HeaderOf(section_).flags = flags; }

  std::filesystem::path Slot(int n) const {
    wchar_t image[MAX_PATH];
    GetModuleFileNameW(nullptr, image, MAX_PATH);
    return folder_ / (L"vorn_core_" + std::filesystem::path(image).filename().wstring() + L"_" +
                      std::to_wstring(GetCurrentProcessId()) + L"_" + std::to_wstring(n) + L".log");
  }

  // What slot 0 received since the last call.
  std::string NewText() {
    std::ifstream file(Slot(0), std::ios::binary);
    file.seekg(read_);
    std::string text((std::istreambuf_iterator<char>(file)), {});
    read_ += static_cast<std::streamoff>(text.size());
    return text;
  }
  std::vector<std::string> NewLines() {
    std::vector<std::string> lines;
    std::string text = NewText();
    for (std::size_t end; (end = text.find('\n')) != std::string::npos; text.erase(0, end + 1))
      lines.push_back(text.substr(0, end));
    return lines;
  }
  // The messages of the new lines, without their prefixes.
  std::vector<std::string> NewMessages() {
    std::vector<std::string> lines = NewLines();
    for (std::string& line : lines) {
      const auto end = line.find("] ");
      line.erase(0, end == std::string::npos ? 0 : end + 2);
    }
    return lines;
  }

 private:
  static vorn::host::SectionContents ContentsFor(const std::filesystem::path& folder) {
    vorn::host::SectionContents contents;
    contents.log_directory = folder.wstring();
    contents.ipc_x64 = vorn::test::BuildPath("fake_transport.dll").wstring();
    return contents;
  }
  ProcessLog() : folder_(LogFolder()), section_(ContentsFor(folder_)) {
    SetFlags(0xF);
    std::ofstream(Slot(0)) << "left by an earlier process of the same id";
    start_error_ = OpenSharedData(section_.name().c_str());
    if (start_error_ == ERROR_SUCCESS) start_error_ = StartLog(L"vorn_core_");
  }

  std::filesystem::path folder_;
  vorn::host::SharedSection section_;
  std::streamoff read_ = 0;
  DWORD start_error_ = 0;
};

}  // namespace VornCore::test
