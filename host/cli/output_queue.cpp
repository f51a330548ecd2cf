#include "output_queue.h"

#include <utility>

namespace vorn::cli {

OutputQueue::OutputQueue(std::function<void(const std::string&)> write) : write_(std::move(write)) {}

OutputQueue::~OutputQueue() { Finish(); }

void OutputQueue::Push(std::string line) {
  const std::lock_guard lock(mutex_);
  if (bytes_ + line.size() > kMaxBytes) {
    ++dropped_;
    return;
  }
  bytes_ += line.size();
  lines_.push_back(std::move(line));
  if (!thread_.joinable()) thread_ = std::thread([this] { Run(); });
  changed_.notify_one();
}

std::uint64_t OutputQueue::dropped() const {
  const std::lock_guard lock(mutex_);
  return dropped_;
}

void OutputQueue::Finish() {
  {
    const std::lock_guard lock(mutex_);
    finished_ = true;
    changed_.notify_one();
  }
  if (thread_.joinable()) thread_.join();
}

void OutputQueue::Run() {
  std::unique_lock lock(mutex_);
  for (;;) {
    changed_.wait(lock, [this] { return finished_ || !lines_.empty(); });
    if (lines_.empty()) return;
    const std::string line = std::move(lines_.front());
    lines_.pop_front();
    lock.unlock();
    write_(line);
    lock.lock();
    bytes_ -= line.size();
  }
}

}  // namespace vorn::cli
