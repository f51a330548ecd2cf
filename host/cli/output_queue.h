// Lines that a thread of their own writes, so that who has something to say never waits for a reader: a
// terminal that stands still, a full disk, a pipe that nobody reads.
//
//   OutputQueue screen([](const std::string& line) { PrintErrorLine(line); });
//   screen.Push(line);      // never waits; what does not fit is counted
//   screen.Finish();        // waits until the rest is written
#pragma once

#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <mutex>
#include <string>
#include <thread>

namespace vorn::cli {

class OutputQueue {
 public:
  // write: called by the queue's thread, with one line after the other; must not throw.
  explicit OutputQueue(std::function<void(const std::string&)> write);
  ~OutputQueue();  // as Finish
  OutputQueue(const OutputQueue&) = delete;
  OutputQueue& operator=(const OutputQueue&) = delete;

  // Any thread, until Finish.
  void Push(std::string line);
  // Lines that did not fit.
  std::uint64_t dropped() const;
  // Waits until everything is written, and ends the thread. Once.
  void Finish();

 private:
  static constexpr std::size_t kMaxBytes = 16u << 20;

  void Run();

  const std::function<void(const std::string&)> write_;
  mutable std::mutex mutex_;
  std::condition_variable changed_;
  std::deque<std::string> lines_;
  std::size_t bytes_ = 0;  // of lines_
  std::uint64_t dropped_ = 0;
  bool finished_ = false;
  std::thread thread_;  // made with the first line; last: it uses the others
};

}  // namespace vorn::cli
