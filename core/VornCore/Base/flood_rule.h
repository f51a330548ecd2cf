// Which messages of a run of alike ones are dropped: from the sixth on, while the run is younger than a
// millisecond. A message of another type or subtype starts a new run; a run whose first six messages took
// longer than that is never dropped from again.
//
// Many threads ask at once without a lock: a race can only change which message of a flood is dropped.
#pragma once

#include <atomic>
#include <cstdint>

namespace VornCore {

class FloodRule {
 public:
  // now: microseconds.
  [[nodiscard]] bool Drops(std::uint16_t type, std::uint16_t subtype, std::uint64_t now) noexcept {
    constexpr auto kRelaxed = std::memory_order_relaxed;
    if (type != last_type_.load(kRelaxed) || subtype != last_subtype_.load(kRelaxed)) {
      last_type_.store(type, kRelaxed);
      last_subtype_.store(subtype, kRelaxed);
      run_count_.store(1, kRelaxed);
      run_start_.store(now, kRelaxed);
      return false;
    }
    const std::uint32_t count = run_count_.load(kRelaxed) + 1;
    run_count_.store(count, kRelaxed);
    return count >= kFloodCount && now - run_start_.load(kRelaxed) < kFloodMicros;
  }

 private:
  static constexpr std::uint32_t kFloodCount = 6;
  static constexpr std::uint64_t kFloodMicros = 1'000;

  std::atomic<std::uint16_t> last_type_ = 0xFFFF, last_subtype_ = 0xFFFF;
  std::atomic<std::uint32_t> run_count_ = 0;
  std::atomic<std::uint64_t> run_start_ = 0;
};

}  // namespace VornCore
