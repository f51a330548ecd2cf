// Timing for benches: the candidates take turns in short batches within one run, and the fastest batch of
// each counts, so that what else the machine does weighs on all of them alike.
#pragma once

#include <algorithm>
#include <array>
#include <chrono>
#include <cstddef>
#include <limits>

namespace vorn::bench {

// Keeps a result alive, so that the work that made it is not optimised away.
template <typename T>
inline void Keep(const T& value) {
  asm volatile("" : : "r"(&value) : "memory");
}

// Nanoseconds of one batch of calls.
template <typename Work>
double BatchNanos(Work&& work, int calls) {
  const auto start = std::chrono::steady_clock::now();
  for (int i = 0; i < calls; ++i) work();
  const std::chrono::duration<double, std::nano> elapsed = std::chrono::steady_clock::now() - start;
  return elapsed.count() / calls;
}

// Nanoseconds per call of each candidate.
template <typename... Work>
std::array<double, sizeof...(Work)> SideBySide(int rounds, int calls, Work&&... work) {
  std::array<double, sizeof...(Work)> best;
  best.fill(std::numeric_limits<double>::infinity());
  for (int round = 0; round < rounds; ++round) {
    std::size_t i = 0;
    ((best[i] = std::min(best[i], BatchNanos(work, calls)), ++i), ...);
  }
  return best;
}

}  // namespace vorn::bench
