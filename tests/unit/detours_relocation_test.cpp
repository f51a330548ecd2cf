// Prologue analysis and jump chains on small pieces of annotated code. (That moved code does what it did
// is shown in fuzz/decoder_fuzz.cpp.)
#include <gtest/gtest.h>

#include <cstdint>
#include <optional>
#include <string_view>
#include <vector>

#include "detours/code/jump_chain.h"
#include "detours/code/prologue.h"
#include "detours/code/relocator.h"

namespace detours {
namespace {

using namespace std::string_view_literals;
using Bytes = std::vector<std::uint8_t>;

Bytes Of(std::string_view code) { return {code.begin(), code.end()}; }

constexpr std::uint64_t kFrom = 0x40'0000;

// The code followed by enough of a function's rest: ret and padding.
Bytes Function(Bytes code) {
  code.insert(code.end(), {0x90, 0x90, 0x90, 0xC3});
  code.resize(code.size() + 32, 0xCC);
  return code;
}

TEST(Prologue, IsRefusedWithTheReason) {
  const struct {
    const char* what;
    Mode mode;
    CodeError reason;
    std::string_view code;
  } cases[] = {
      {"return without padding", Mode::kX64, CodeError::kTooShort, "\xC3\x55\x55\x55\x55"sv},
      {"return before another function", Mode::kX64, CodeError::kTooShort, "\x89\xC8\xC3\xCC\x55"sv},
      {"breakpoint", Mode::kX64, CodeError::kBreakpoint, "\x55\xCC\x90\x90\x90"sv},
      {"end of readable code", Mode::kX64, CodeError::kTruncated, "\x55\x48\x8B"sv},
      {"undefined opcode", Mode::kX64, CodeError::kUnknownInstruction, "\x06\x90\x90\x90\x90"sv},
      {"fifteen prefixes", Mode::kX64, CodeError::kTooLong,
       "\x66\x66\x66\x66\x66\x66\x66\x66\x66\x66\x66\x66\x66\x66\x66\x66\x66\x66\x66\x66"sv},
      // xor eax, eax; L: inc rax (3); jnz L
      {"loop into the first bytes", Mode::kX64, CodeError::kBranchIntoPatch,
       "\x31\xC0\x48\xFF\xC0\x75\xFB\xC3"sv},
      // jz into the middle of mov eax, imm32
      {"branch into an instruction", Mode::kX64, CodeError::kBranchIntoPatch,
       "\x74\x01\xB8\x90\x90\x90\x90\xC3"sv},
      // mov eax, [rip-6]: its own first byte
      {"reads its own code", Mode::kX64, CodeError::kReadsPatch, "\x8B\x05\xFA\xFF\xFF\xFF\xC3"sv},
      // mov eax, [start+1]
      {"reads its own code by address", Mode::kX86, CodeError::kReadsPatch, "\x8B\x05\x01\x00\x40\x00\xC3"sv},
      // call rax; mov eax, 1: the call comes back into the jump
      {"returns into the first bytes", Mode::kX64, CodeError::kReturnsIntoPatch,
       "\xFF\xD0\xB8\x01\x00\x00\x00\xC3"sv},
      // call next; pop rax
      {"learns its address", Mode::kX64, CodeError::kReadsOwnAddress, "\xE8\x00\x00\x00\x00\x58\xC3"sv},
      // xbegin is a relative branch too
      {"transactional branch", Mode::kX64, CodeError::kUnknownInstruction, "\xC7\xF8\x00\x00\x00\x00\xC3"sv},
  };
  for (const auto& c : cases) {
    const auto prologue = AnalyzePrologue(Of(c.code), kFrom, c.mode);
    ASSERT_FALSE(prologue.has_value()) << c.what;
    EXPECT_EQ(prologue.error(), c.reason) << c.what << ": " << Text(prologue.error());
  }
}

TEST(Prologue, PaddingMayFollowAShortFunction) {
  const auto analyze = [](Bytes padding, Mode mode, std::uint64_t address = kFrom) {
    Bytes code = {0x31, 0xC0, 0xC3};  // xor eax, eax; ret
    code.insert(code.end(), padding.begin(), padding.end());
    return AnalyzePrologue(code, address, mode);
  };
  for (const Mode mode : {Mode::kX64, Mode::kX86}) {
    for (const Bytes& padding : {Bytes{0xCC, 0xCC}, Bytes{0x90, 0x90}, Bytes{0x0F, 0x1F, 0x40, 0x00},
                                 Bytes{0x66, 0x66, 0x2E, 0x0F, 0x1F, 0x84, 0, 0, 0, 0, 0}}) {
      const auto prologue = analyze(padding, mode);
      ASSERT_TRUE(prologue.has_value()) << Text(prologue.error());
      EXPECT_EQ(prologue->size, 3);
      EXPECT_FALSE(prologue->falls_through);
    }
  }
  const Bytes lea = {0x8D, 0xB4, 0x26, 0, 0, 0, 0};  // lea esi, [esi+0]
  EXPECT_TRUE(analyze(lea, Mode::kX86).has_value());
  EXPECT_FALSE(analyze(lea, Mode::kX64).has_value());
  EXPECT_FALSE(analyze({0x90, 0x90}, Mode::kX64, kFrom + 13).has_value()) << "a function may begin there";
}

TEST(Prologue, AReturnThatABranchSkipsIsNotTheEnd) {
  const Bytes code = Function({0x74, 0x01, 0xC3, 0x31, 0xC0});  // jz +1; ret; xor eax, eax
  const auto prologue = AnalyzePrologue(code, kFrom, Mode::kX64);
  ASSERT_TRUE(prologue.has_value()) << Text(prologue.error());
  EXPECT_EQ(prologue->size, 5);
  EXPECT_TRUE(prologue->falls_through);
}

TEST(Prologue, RecursionIsNoLoop) {
  const Bytes call = {0x55, 0x48, 0x89, 0xE5, 0x90, 0xE8, 0xF6, 0xFF, 0xFF, 0xFF, 0x5D, 0xC3};
  EXPECT_TRUE(AnalyzePrologue(call, kFrom, Mode::kX64).has_value());
  const Bytes tail_call = {0x55, 0x48, 0x89, 0xE5, 0x90, 0x5D, 0xEB, 0xF8};
  EXPECT_TRUE(AnalyzePrologue(tail_call, kFrom, Mode::kX64).has_value());
}

TEST(Relocation, OperandsMustReachFromTheNewPlace) {
  const Bytes code = Function({0x48, 0x8B, 0x05, 0x00, 0x10, 0x00, 0x00});  // mov rax, [rip+0x1000]
  const auto prologue = AnalyzePrologue(code, kFrom, Mode::kX64);
  ASSERT_TRUE(prologue.has_value());
  EXPECT_EQ(prologue->highest, kFrom + 0x1007);
  const auto moved = Relocate(*prologue, code, kFrom, kFrom + 0x1'0000'0000, Mode::kX64);
  ASSERT_FALSE(moved.has_value());
  EXPECT_EQ(moved.error(), CodeError::kOutOfReach);
}

TEST(JumpChain, EntriesLeadOnOrNot) {
  constexpr auto kSlot = Link::Kind::kSlot;
  constexpr auto kDirect = Link::Kind::kDirect;
  const struct {
    const char* what;
    Mode mode;
    std::string_view code;
    std::optional<Link> link;
  } cases[] = {
      {"import stub", Mode::kX64, "\xFF\x25\x00\x10\x00\x00"sv, Link{kSlot, kFrom + 0x1006}},
      {"import stub with rex", Mode::kX64, "\x48\xFF\x25\x00\x10\x00\x00"sv, Link{kSlot, kFrom + 0x1007}},
      {"import stub behind filler", Mode::kX64, "\x48\x8D\xA4\x24\x00\x00\x00\x00\xFF\x25\xF2\x0F\x00\x00"sv,
       Link{kSlot, kFrom + 0x1000}},
      {"import stub x86", Mode::kX86, "\x8B\xFF\x55\x8B\xEC\x5D\xFF\x25\x00\x20\x41\x00"sv,
       Link{kSlot, 0x412000}},
      {"hot patched", Mode::kX86, "\xEB\xF9"sv, Link{kDirect, kFrom - 5}},
      {"thunk", Mode::kX64, "\xE9\x00\x01\x00\x00"sv, Link{kDirect, kFrom + 0x105}},
      {"jump through the thread block", Mode::kX86, "\x64\xFF\x25\xC0\x00\x00\x00"sv, std::nullopt},
      {"jump through a register", Mode::kX64, "\xFF\xE0"sv, std::nullopt},
      {"far jump", Mode::kX64, "\xFF\x2D\x00\x00\x00\x00"sv, std::nullopt},
      {"ordinary function", Mode::kX64, "\x55\x48\x89\xE5"sv, std::nullopt},
  };
  for (const auto& c : cases) {
    const auto link = LeadingJump(Of(c.code), kFrom, c.mode);
    ASSERT_EQ(link.has_value(), c.link.has_value()) << c.what;
    if (!link) continue;
    EXPECT_EQ(link->kind, c.link->kind) << c.what;
    EXPECT_EQ(link->address, c.link->address) << c.what;
  }
}

}  // namespace
}  // namespace detours
