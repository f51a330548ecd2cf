// What the host reads from a minidump, and that no damaged one misleads it.
#include "vorn/minidump.h"

#include <gtest/gtest.h>

#include "minidump_builder.h"

namespace vorn::host {
namespace {

using test::BuildMinidump;
using test::DumpParts;

Minidump Good(const DumpParts& parts) {
  auto parsed = ParseMinidump(BuildMinidump(parts));
  if (auto* error = std::get_if<MinidumpError>(&parsed)) ADD_FAILURE() << error->reason;
  return std::holds_alternative<Minidump>(parsed) ? std::get<Minidump>(parsed) : Minidump{};
}

TEST(Minidump, SaysWhatCrashedWhereAndOnWhichThread) {
  const Minidump dump = Good({});
  EXPECT_EQ(dump.time, 1'000'000u);
  ASSERT_TRUE(dump.exception && dump.crash);
  EXPECT_EQ(dump.exception->thread_id, 12u);
  EXPECT_EQ(PlaceText(dump, dump.exception->address), "app.exe+0x1a2b");
  EXPECT_EQ(FaultText(*dump.exception), "reading 0x10");
  EXPECT_EQ(dump.crash->dump_thread_id, 13u);
  EXPECT_EQ(dump.thread_ids, (std::vector<std::uint32_t>{12, 13}));
  EXPECT_EQ(dump.modules[1].path, "C:\\\u00e4\U0001F600\\b.dll");
  EXPECT_EQ(dump.memory_bytes, 64u);
  EXPECT_EQ(PlaceText(dump, 0x140000000), "app.exe+0x0");
  EXPECT_EQ(PlaceText(dump, 0x180000FFF), "b.dll+0xfff");
  EXPECT_EQ(PlaceText(dump, 0x180001000), "0x180001000 (in no module)");
  EXPECT_EQ(PlaceText(dump, 0), "0x0 (in no module)");
  EXPECT_EQ(PlaceText(dump, ~0ull), "0xffffffffffffffff (in no module)");
}

TEST(Minidump, FaultsAreNamedByWhatWasTried) {
  const auto fault = [](std::uint32_t code, std::vector<std::uint64_t> parameters) {
    return FaultText(*Good({.code = code, .parameters = std::move(parameters)}).exception);
  };
  EXPECT_EQ(fault(0xC0000005, {1, 0x20}), "writing 0x20");
  EXPECT_EQ(fault(0xC0000006, {8, 0, 5}), "executing 0x0");
  EXPECT_EQ(fault(0xC0000005, {1}), "");
  EXPECT_EQ(fault(0xC0000094, {1, 2}), "");
  EXPECT_EQ(ExceptionName(0xC0000094), "divide by zero");
  EXPECT_EQ(ExceptionName(0x20474343), "C++ exception");
  EXPECT_EQ(ExceptionName(0xE06D7363), "C++ exception");
  EXPECT_EQ(ExceptionName(0xFFFFFFFF), "");
}

TEST(Minidump, AddressesOfA32BitProcessHave32Bits) {
  const Minidump dump = Good({.architecture = 0,
                              .address = 0xFFFFFFFF'80001000,
                              .parameters = {0, 0xFFFFFFFF'90000000},
                              .modules = {{0xFFFFFFFF'80000000, 0x2000, u"a.exe"}}});
  EXPECT_EQ(PlaceText(dump, dump.exception->address), "a.exe+0x1000");
  EXPECT_EQ(FaultText(*dump.exception), "reading 0x90000000");
}

TEST(Minidump, EveryTruncationIsAnError) {
  const auto whole = BuildMinidump({});
  for (std::size_t size = 0; size < whole.size(); ++size) {
    // A copy of exactly this size, so that the sanitizer sees a read behind it.
    const std::vector<std::byte> cut(whole.begin(), whole.begin() + static_cast<std::ptrdiff_t>(size));
    EXPECT_TRUE(std::holds_alternative<MinidumpError>(ParseMinidump(cut))) << size;
  }
}

TEST(Minidump, BadOffsetsAndCountsAreNamedWithTheirPlace) {
  struct Damage {
    std::size_t at;
    std::uint32_t value;
    std::size_t reported;
    const char* reason;
  };
  constexpr std::size_t kEntries = 32, kThreads = 328, kModules = 428, kMemory = 648;
  for (const Damage& damage : {
           Damage{0, 1, 0, "does not begin with \"MDMP\""},
           Damage{4, 1, 4, "its version is 0x1"},
           Damage{8, 2000, 8, "claims 2000 streams"},
           Damage{12, 0xFFFFFFF0, 12, "the stream directory"},
           Damage{kEntries + 4, 1, kEntries + 4, "the system information has 1 bytes instead of 2"},
           Damage{kEntries + 12 + 8, 0xFFFFFFFF, kEntries + 12 + 4,
                  "the exception (168 bytes at 0xffffffff)"},
           Damage{160 + 32, 16, 160 + 32, "the exception claims 16 parameters"},
           Damage{kThreads, 3, kThreads, "the thread list claims 3 entries in 100 bytes"},
           Damage{kThreads, 0xFFFFFFFF, kThreads, "the thread list claims 4294967295 entries"},
           Damage{kModules + 4 + 20, 0xFFFFFF00, kModules + 4 + 20, "the name of module 0"},
           Damage{kMemory + 12, 65, kMemory + 12, "memory range 0"},
       }) {
    auto bytes = BuildMinidump({});
    std::memcpy(bytes.data() + damage.at, &damage.value, 4);
    const auto parsed = ParseMinidump(bytes);
    const auto* error = std::get_if<MinidumpError>(&parsed);
    ASSERT_TRUE(error) << damage.reason;
    EXPECT_NE(error->reason.find(damage.reason), std::string::npos) << error->reason;
    EXPECT_EQ(error->offset, damage.reported) << error->reason;
  }
}

TEST(Minidump, NamesThatOverlapCostNoMoreThanTheyMay) {
  // 1000 modules, each with the longest name.
  DumpParts parts;
  parts.modules.assign(1000, {1, 1, u""});
  auto bytes = BuildMinidump(parts);
  const auto name = static_cast<std::uint32_t>(bytes.size());
  bytes.resize(bytes.size() + 4 + 0xFFFE);
  const std::uint32_t longest = 0xFFFE;
  std::memcpy(bytes.data() + name, &longest, 4);
  for (std::size_t i = 0; i < 1000; ++i) std::memcpy(bytes.data() + 428 + 4 + i * 108 + 20, &name, 4);
  EXPECT_TRUE(std::holds_alternative<MinidumpError>(ParseMinidump(bytes)));
}

}  // namespace
}  // namespace vorn::host
