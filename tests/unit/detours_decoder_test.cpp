// The decoder against an independent one, on the code of real DLLs and on random bytes: it agrees or it
// refuses.
#include <Zydis/Zydis.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <random>
#include <span>
#include <string>
#include <vector>

#include "detours/code/instruction.h"
#include "detours/code/pe_format.h"

namespace detours {
namespace {

// The first bytes of a function, for messages.
std::string Hex(std::span<const std::uint8_t> code) {
  std::string text;
  for (const std::uint8_t byte : code.first(std::min<std::size_t>(code.size(), 24))) {
    char digits[4];
    snprintf(digits, sizeof(digits), "%02X ", byte);
    text += digits;
  }
  return text;
}

struct Oracle {
  explicit Oracle(Mode mode) {
    mode == Mode::kX64 ? ZydisDecoderInit(&decoder, ZYDIS_MACHINE_MODE_LONG_64, ZYDIS_STACK_WIDTH_64)
                       : ZydisDecoderInit(&decoder, ZYDIS_MACHINE_MODE_LEGACY_32, ZYDIS_STACK_WIDTH_32);
  }

  // False when these bytes are no instruction.
  bool Decode(std::span<const std::uint8_t> code) {
    return ZYAN_SUCCESS(
        ZydisDecoderDecodeFull(&decoder, code.data(), code.size(), &instruction, operands.data()));
  }

  [[nodiscard]] bool IsRipRelative() const {
    for (std::size_t i = 0; i < instruction.operand_count_visible; ++i) {
      const auto& operand = operands[i];
      if (operand.type != ZYDIS_OPERAND_TYPE_MEMORY) continue;
      if (operand.mem.base == ZYDIS_REGISTER_RIP || operand.mem.base == ZYDIS_REGISTER_EIP) return true;
    }
    return false;
  }

  [[nodiscard]] Flow RelativeFlow() const {
    const std::string name = ZydisMnemonicGetString(instruction.mnemonic);
    if (name == "jmp") return Flow::kJump;
    if (name == "call") return Flow::kCall;
    return name.starts_with("loop") || name.ends_with("cxz") ? Flow::kCounted : Flow::kConditional;
  }

  ZydisDecoder decoder;
  ZydisDecodedInstruction instruction;
  std::array<ZydisDecodedOperand, ZYDIS_MAX_OPERAND_COUNT> operands;
};

// What moving code depends on. True when both say the same.
bool Agree(const Instruction& ours, const Oracle& oracle, std::span<const std::uint8_t> code) {
  const auto& theirs = oracle.instruction;
  const bool relative = theirs.raw.imm[0].is_relative != 0;
  bool same = ours.length == theirs.length && ours.IsRelativeFlow() == relative;
  if (relative)
    same = same && ours.flow == oracle.RelativeFlow() && ours.distance == theirs.raw.imm[0].value.s;
  same = same && ours.rip_relative == oracle.IsRipRelative();
  if (ours.rip_relative) {
    same = same && ours.displacement_offset == theirs.raw.disp.offset &&
           ours.displacement == theirs.raw.disp.value;
  }
  const auto category = theirs.meta.category;
  if (category == ZYDIS_CATEGORY_RET) same = same && ours.flow == Flow::kReturn;
  if (category == ZYDIS_CATEGORY_UNCOND_BR) same = same && ours.EndsFlow();
  if (category == ZYDIS_CATEGORY_CALL)
    same = same && (ours.flow == Flow::kCall || ours.flow == Flow::kIndirectCall);
  EXPECT_TRUE(same) << ZydisMnemonicGetString(theirs.mnemonic) << ": " << Hex(code);
  return same;
}

class Decoder : public testing::TestWithParam<Mode> {};
INSTANTIATE_TEST_SUITE_P(Modes, Decoder, testing::Values(Mode::kX64, Mode::kX86),
                         [](const auto& info) { return info.param == Mode::kX64 ? "X64" : "X86"; });

// The beginning of each code section of the DLLs of a folder, for this mode.
std::vector<std::vector<std::uint8_t>> CodeOfDlls(const std::filesystem::path& folder, Mode mode) {
  constexpr std::uint32_t kExecutable = 0x2000'0000;
  std::vector<std::vector<std::uint8_t>> code;
  std::error_code missing;
  for (const auto& entry : std::filesystem::directory_iterator(folder, missing)) {
    if (entry.path().extension() != ".dll") continue;
    std::ifstream file(entry.path(), std::ios::binary);
    const auto read = [&](auto& value, std::uint32_t at) {
      file.seekg(at).read(reinterpret_cast<char*>(&value), sizeof value);
    };
    std::uint32_t nt = 0;
    pe::FileHeader header{};
    read(nt, pe::kNtOffsetField);
    read(header, nt + 4);
    if (header.machine != (mode == Mode::kX64 ? pe::kMachineX64 : pe::kMachineX86)) continue;
    for (std::uint32_t i = 0; i < header.section_count; ++i) {
      pe::SectionHeader section{};
      read(section, nt + 24 + header.optional_header_size + i * sizeof section);
      if (!(section.characteristics & kExecutable)) continue;
      code.emplace_back(std::min({section.virtual_size, section.raw_size, 32u << 10}));
      file.seekg(section.raw_offset)
          .read(reinterpret_cast<char*>(code.back().data()),
                static_cast<std::streamsize>(code.back().size()));
    }
  }
  return code;
}

TEST_P(Decoder, AgreesOnTheCodeOfTheSystemDlls) {
  Oracle oracle(GetParam());
  std::size_t instructions = 0, refused = 0;
  for (const char* folder :
       {"/usr/lib/x86_64-linux-gnu/wine/x86_64-windows", "/usr/lib/i386-linux-gnu/wine/i386-windows",
        "/usr/lib/x86_64-linux-gnu/wine/i386-windows", "/usr/lib/gcc/i686-w64-mingw32/12-posix"}) {
    for (const auto& code : CodeOfDlls(folder, GetParam())) {
      for (std::span<const std::uint8_t> rest = code; !rest.empty();
           rest = rest.subspan(oracle.instruction.length)) {
        if (!oracle.Decode(rest)) break;
        ++instructions;
        const auto ours = Decode(rest, GetParam());
        refused += !ours;
        ASSERT_TRUE(!ours || Agree(*ours, oracle, rest));
      }
    }
  }
  if (!instructions) GTEST_SKIP() << "no DLLs of this kind are installed (packages wine64, g++-mingw-w64)";
  EXPECT_LT(refused * 10000, instructions) << "one in ten thousand";
}

TEST_P(Decoder, AgreesOrRefusesOnRandomBytes) {
  constexpr std::array<std::uint8_t, 12> kLeads = {0x0F, 0x48, 0x66, 0x67, 0xC4, 0xC5,
                                                   0x62, 0xF2, 0xF3, 0xFF, 0xE8, 0x41};
  std::mt19937_64 random(20240601);
  Oracle oracle(GetParam());
  std::size_t both = 0, refused = 0;
  for (int i = 0; i < 1'000'000; ++i) {
    std::array<std::uint8_t, 16> code{};
    for (auto& byte : code) byte = static_cast<std::uint8_t>(random());
    // Half of them begin with a byte that opens a map or changes what follows.
    const auto choice = random() % (2 * kLeads.size());
    if (choice < kLeads.size()) code[0] = kLeads[choice];
    const auto ours = Decode(code, GetParam());
    if (!oracle.Decode(code)) continue;
    ++(ours ? both : refused);
    ASSERT_TRUE(!ours || Agree(*ours, oracle, code));
  }
  EXPECT_LT(refused * 20, both);
}

}  // namespace
}  // namespace detours
