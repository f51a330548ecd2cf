// Minidump files for tests, laid out one stream behind the other:
//   0 header   32 directory of 6 streams   104 system information   160 exception   328 thread list
//   then the module list, the memory list, the crash stream, the modules' names, and the memory itself
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include "Policy/crash_dump.h"

namespace vorn::test {

struct DumpModule {
  std::uint64_t base;
  std::uint32_t size;
  std::u16string path;
};

struct DumpParts {
  std::uint32_t time = 1'000'000;
  std::uint16_t architecture = 9;  // x64
  std::uint32_t code = 0xC0000005;
  std::uint64_t address = 0x140001A2B;
  std::vector<std::uint64_t> parameters = {0, 0x10};
  std::vector<DumpModule> modules = {{0x140000000, 0x5000, u"C:\\dir\\app.exe"},
                                     {0x180000000, 0x1000, u"C:\\\u00e4\U0001F600\\b.dll"}};
  policy::DumpUserStream crash = {12, 13, 0};
};

inline std::vector<std::byte> BuildMinidump(const DumpParts& parts) {
  std::vector<std::byte> file(104);
  const auto put = [&](std::size_t at, auto value) {
    if (file.size() < at + sizeof value) file.resize(at + sizeof value);
    std::memcpy(file.data() + at, &value, sizeof value);
  };
  const auto u32 = [&](std::size_t at, std::size_t value) { put(at, static_cast<std::uint32_t>(value)); };
  u32(0, 0x504D444D), u32(4, 0xA793), u32(8, 6), u32(12, 32), u32(20, parts.time);
  std::size_t entry = 32;
  const auto stream = [&](std::uint32_t type, std::size_t size) {
    const std::size_t at = file.size();
    u32(entry, type), u32(entry + 4, size), u32(entry + 8, at);
    entry += 12;
    file.resize(at + size);
    return at;
  };
  put(stream(7, 56), parts.architecture);
  const std::size_t exception = stream(6, 168);
  u32(exception, parts.crash.crashing_thread_id), u32(exception + 8, parts.code);
  put(exception + 24, parts.address);
  u32(exception + 32, parts.parameters.size());
  for (std::size_t i = 0; i < parts.parameters.size(); ++i) put(exception + 40 + i * 8, parts.parameters[i]);
  const std::size_t threads = stream(3, 4 + 2 * 48);
  u32(threads, 2), u32(threads + 4, parts.crash.crashing_thread_id);
  u32(threads + 52, parts.crash.dump_thread_id);
  const std::size_t modules = stream(4, 4 + parts.modules.size() * 108);
  const std::size_t memory = stream(5, 4 + 16);
  put(stream(policy::kDumpUserStream, sizeof parts.crash), parts.crash);
  u32(modules, parts.modules.size());
  for (std::size_t i = 0; i < parts.modules.size(); ++i) {
    const auto& [base, size, path] = parts.modules[i];
    const std::size_t record = modules + 4 + i * 108, name = file.size();
    put(record, base), u32(record + 8, size), u32(record + 20, name);
    u32(name, path.size() * 2);
    for (const char16_t unit : path) put(file.size(), unit);
  }
  u32(memory, 1), put(memory + 4, parts.address), u32(memory + 12, 64), u32(memory + 16, file.size());
  file.resize(file.size() + 64);
  return file;
}

}  // namespace vorn::test
