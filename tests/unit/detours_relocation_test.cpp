// Prologue analysis and jump chains on small pieces of annotated code. (What relocated code does is shown in
// the emulator.)
#include <gtest/gtest.h>

#include <cstdint>
#include <optional>
#include <vector>

#include "detours/code/jump_chain.h"
#include "detours/code/prologue.h"
#include "detours/code/relocator.h"

namespace detours {
namespace {

using Bytes = std::vector<std::uint8_t>;

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
    Bytes code;
  } cases[] = {
      {"return without padding", Mode::kX64, CodeError::kTooShort, {0xC3, 0x55, 0x55, 0x55, 0x55}},
      {"return before another function", Mode::kX64, CodeError::kTooShort, {0x89, 0xC8, 0xC3, 0xCC, 0x55}},
      {"breakpoint", Mode::kX64, CodeError::kBreakpoint, {0x55, 0xCC, 0x90, 0x90, 0x90}},
      {"end of readable code", Mode::kX64, CodeError::kTruncated, {0x55, 0x48, 0x8B}},
      {"undefined opcode", Mode::kX64, CodeError::kUnknownInstruction, {0x06, 0x90, 0x90, 0x90, 0x90}},
      {"fifteen prefixes", Mode::kX64, CodeError::kTooLong, Bytes(20, 0x66)},
      // xor eax, eax; L: inc rax (3); jnz L
      {"loop into the first bytes",
       Mode::kX64,
       CodeError::kBranchIntoPatch,
       {0x31, 0xC0, 0x48, 0xFF, 0xC0, 0x75, 0xFB, 0xC3}},
      // jz into the middle of mov eax, imm32
      {"branch into an instruction",
       Mode::kX64,
       CodeError::kBranchIntoPatch,
       {0x74, 0x01, 0xB8, 0x90, 0x90, 0x90, 0x90, 0xC3}},
      // mov eax, [rip-6]: its own first byte
      {"reads its own code", Mode::kX64, CodeError::kReadsPatch, {0x8B, 0x05, 0xFA, 0xFF, 0xFF, 0xFF, 0xC3}},
      // mov eax, [start+1]
      {"reads its own code by address",
       Mode::kX86,
       CodeError::kReadsPatch,
       {0x8B, 0x05, 0x01, 0x00, 0x40, 0x00, 0xC3}},
      // call rax; mov eax, 1: the call comes back into the jump
      {"returns into the first bytes",
       Mode::kX64,
       CodeError::kReturnsIntoPatch,
       {0xFF, 0xD0, 0xB8, 0x01, 0x00, 0x00, 0x00, 0xC3}},
      // call next; pop rax
      {"learns its address",
       Mode::kX64,
       CodeError::kReadsOwnAddress,
       {0xE8, 0x00, 0x00, 0x00, 0x00, 0x58, 0xC3}},
      // xbegin is a relative branch too
      {"transactional branch",
       Mode::kX64,
       CodeError::kUnknownInstruction,
       {0xC7, 0xF8, 0x00, 0x00, 0x00, 0x00, 0xC3}},
  };
  for (const auto& c : cases) {
    const auto prologue = AnalyzePrologue(c.code, kFrom, c.mode);
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
    Bytes code;
    std::optional<Link> link;
  } cases[] = {
      {"import stub", Mode::kX64, {0xFF, 0x25, 0x00, 0x10, 0, 0}, Link{kSlot, kFrom + 0x1006}},
      {"import stub with rex", Mode::kX64, {0x48, 0xFF, 0x25, 0x00, 0x10, 0, 0}, Link{kSlot, kFrom + 0x1007}},
      {"import stub behind filler",
       Mode::kX64,
       {0x48, 0x8D, 0xA4, 0x24, 0, 0, 0, 0, 0xFF, 0x25, 0xF2, 0x0F, 0, 0},
       Link{kSlot, kFrom + 0x1000}},
      {"import stub x86",
       Mode::kX86,
       {0x8B, 0xFF, 0x55, 0x8B, 0xEC, 0x5D, 0xFF, 0x25, 0x00, 0x20, 0x41, 0x00},
       Link{kSlot, 0x412000}},
      {"hot patched", Mode::kX86, {0xEB, 0xF9}, Link{kDirect, kFrom - 5}},
      {"thunk", Mode::kX64, {0xE9, 0x00, 0x01, 0, 0}, Link{kDirect, kFrom + 0x105}},
      {"jump through the thread block", Mode::kX86, {0x64, 0xFF, 0x25, 0xC0, 0, 0, 0}, std::nullopt},
      {"jump through a register", Mode::kX64, {0xFF, 0xE0}, std::nullopt},
      {"far jump", Mode::kX64, {0xFF, 0x2D, 0, 0, 0, 0}, std::nullopt},
      {"ordinary function", Mode::kX64, {0x55, 0x48, 0x89, 0xE5}, std::nullopt},
  };
  for (const auto& c : cases) {
    const auto link = LeadingJump(c.code, kFrom, c.mode);
    ASSERT_EQ(link.has_value(), c.link.has_value()) << c.what;
    if (!link) continue;
    EXPECT_EQ(link->kind, c.link->kind) << c.what;
    EXPECT_EQ(link->address, c.link->address) << c.what;
  }
}

}  // namespace
}  // namespace detours
