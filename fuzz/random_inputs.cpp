// Drives a fuzz target without a fuzzing engine: random inputs of a fixed seed, so that each test run tries
// it.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <iterator>
#include <memory>
#include <random>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

int main(int argc, char** argv) {
  constexpr std::uint32_t kTelling[] = {0,    1,    2,      7,          8,          20,        0x7F,
                                        0x80, 0xFF, 0x1000, 0x7FFFFFFF, 0xFFFFFFF0, 0xFFFFFFFF};
  const int rounds = argc > 1 ? std::atoi(argv[1]) : 100'000;
  std::mt19937 random(20'240'501);
  for (int round = 0; round < rounds; ++round) {
    const std::size_t size = random() % (random() % 4 ? 64 : 800);
    // Exactly as large as said, so that a byte too far is found.
    const std::unique_ptr<std::uint8_t[]> data(new std::uint8_t[size]);
    for (std::size_t at = 0; at < size;) {
      const std::uint32_t value = random() % 2 ? kTelling[random() % std::size(kTelling)] : random();
      const std::size_t bytes = std::min<std::size_t>(std::size_t{1} << random() % 3, size - at);
      std::memcpy(&data[at], &value, bytes);
      at += bytes;
    }
    LLVMFuzzerTestOneInput(data.get(), size);
  }
  return 0;
}
