// Reads the log files of a folder while they are written. A busy process fills its three files within a
// minute and then empties the oldest: what is read at the end is only what it wrote last.
//
//   LogFollower log(folder, [&](std::string_view line) { … });   // on the follower's thread
//   …                                                            // the processes run and end
//   log.Finish();                                                // every line has been handed over
#pragma once

#include <chrono>
#include <condition_variable>
#include <filesystem>
#include <fstream>
#include <functional>
#include <map>
#include <mutex>
#include <string>
#include <string_view>
#include <thread>

namespace vorn::test {

class LogFollower {
 public:
  using OnLine = std::function<void(std::string_view line)>;

  LogFollower(std::filesystem::path folder, OnLine on_line)
      : folder_(std::move(folder)), on_line_(std::move(on_line)), thread_([this] { Follow(); }) {}
  ~LogFollower() { Finish(); }

  void Finish() {
    if (!thread_.joinable()) return;
    {
      std::lock_guard lock(mutex_);
      finishing_ = true;
    }
    wake_.notify_one();
    thread_.join();
    ReadNewLines();
  }

 private:
  struct File {
    std::uintmax_t read = 0;  // bytes
    std::string unfinished;   // the start of a line whose end is not written yet
  };

  void Follow() {
    // A file is emptied only after the two others were filled: far more than what is written in this time.
    constexpr std::chrono::milliseconds kInterval(50);
    std::unique_lock lock(mutex_);
    while (!wake_.wait_for(lock, kInterval, [this] { return finishing_; })) ReadNewLines();
  }

  void ReadNewLines() {
    for (const auto& entry : std::filesystem::directory_iterator(folder_)) {
      std::ifstream stream(entry.path(), std::ios::binary | std::ios::ate);
      const auto size = static_cast<std::uintmax_t>(stream.tellg());
      if (!stream) continue;
      File& file = files_[entry.path()];
      if (size < file.read) file = {};  // emptied, and written again
      std::string text(size - file.read, '\0');
      stream.seekg(static_cast<std::streamoff>(file.read));
      stream.read(text.data(), static_cast<std::streamsize>(text.size()));
      text.resize(static_cast<std::size_t>(stream.gcount()));
      file.read += text.size();
      HandOver(file, text);
    }
  }

  void HandOver(File& file, std::string_view text) {
    for (std::size_t end; (end = text.find('\n')) != text.npos; text.remove_prefix(end + 1)) {
      if (file.unfinished.empty()) {
        on_line_(text.substr(0, end));
      } else {
        on_line_(file.unfinished.append(text.substr(0, end)));
        file.unfinished.clear();
      }
    }
    file.unfinished += text;
  }

  const std::filesystem::path folder_;
  const OnLine on_line_;
  std::map<std::filesystem::path, File> files_;
  std::mutex mutex_;
  std::condition_variable wake_;
  bool finishing_ = false;
  std::thread thread_;  // last: it uses the others
};

}  // namespace vorn::test
