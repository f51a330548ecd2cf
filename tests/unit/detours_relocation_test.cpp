// Prologue analysis, relocation and jump chains on small pieces of annotated code.
#include <gtest/gtest.h>

#include <cstdint>
#include <initializer_list>
#include <ostream>
#include <string>
#include <vector>

#include "detours/code/jump_chain.h"
#include "detours/code/prologue.h"
#include "detours/code/relocator.h"

namespace detours {
namespace {

using Bytes = std::vector<std::uint8_t>;

constexpr std::uint64_t kFrom = 0x40'0000;
constexpr std::uint64_t kTo = 0x50'0000;

// The code followed by enough of a function's rest: ret and padding.
Bytes Function(Bytes code) {
  code.insert(code.end(), {0x90, 0x90, 0x90, 0xC3});
  code.resize(code.size() + 32, 0xCC);
  return code;
}

struct RefusedCase {
  const char* name;
  Mode mode;
  CodeError reason;
  Bytes code;
};
std::ostream& operator<<(std::ostream& out, const RefusedCase& c) { return out << c.name; }

class Refused : public testing::TestWithParam<RefusedCase> {};

TEST_P(Refused, WithTheReason) {
  const auto prologue = AnalyzePrologue(GetParam().code, kFrom, GetParam().mode);
  ASSERT_FALSE(prologue.has_value());
  EXPECT_EQ(prologue.error(), GetParam().reason) << Text(prologue.error());
}

INSTANTIATE_TEST_SUITE_P(
    Prologue, Refused,
    testing::Values(
        RefusedCase{"ReturnWithoutPadding", Mode::kX64, CodeError::kTooShort, {0xC3, 0x55, 0x55, 0x55, 0x55}},
        RefusedCase{
            "ReturnBeforeAnotherFunction", Mode::kX64, CodeError::kTooShort, {0x89, 0xC8, 0xC3, 0xCC, 0x55}},
        RefusedCase{"Breakpoint", Mode::kX64, CodeError::kBreakpoint, {0x55, 0xCC, 0x90, 0x90, 0x90}},
        RefusedCase{"EndOfReadableCode", Mode::kX64, CodeError::kTruncated, {0x55, 0x48, 0x8B}},
        RefusedCase{
            "UndefinedOpcode", Mode::kX64, CodeError::kUnknownInstruction, {0x06, 0x90, 0x90, 0x90, 0x90}},
        RefusedCase{"FifteenPrefixes", Mode::kX64, CodeError::kTooLong, Bytes(20, 0x66)},
        // xor eax, eax; L: inc rax (3); jnz L
        RefusedCase{"LoopIntoTheFirstBytes",
                    Mode::kX64,
                    CodeError::kBranchIntoPatch,
                    {0x31, 0xC0, 0x48, 0xFF, 0xC0, 0x75, 0xFB, 0xC3}},
        // jz into the middle of mov eax, imm32
        RefusedCase{"BranchIntoAnInstruction",
                    Mode::kX64,
                    CodeError::kBranchIntoPatch,
                    {0x74, 0x01, 0xB8, 0x90, 0x90, 0x90, 0x90, 0xC3}},
        // mov eax, [rip-6]: its own first byte
        RefusedCase{"ReadsItsOwnCode",
                    Mode::kX64,
                    CodeError::kReadsPatch,
                    {0x8B, 0x05, 0xFA, 0xFF, 0xFF, 0xFF, 0xC3}},
        RefusedCase{"ReadsItsOwnCodeByAddress",
                    Mode::kX86,
                    CodeError::kReadsPatch,
                    {0x8B, 0x05, 0x01, 0x00, 0x40, 0x00, 0xC3}},  // mov eax, [start+1]
        // call rax; mov eax, 1: the call comes back into the jump
        RefusedCase{"ReturnsIntoTheFirstBytes",
                    Mode::kX64,
                    CodeError::kReturnsIntoPatch,
                    {0xFF, 0xD0, 0xB8, 0x01, 0x00, 0x00, 0x00, 0xC3}},
        // call next; pop rax
        RefusedCase{"LearnsItsAddress",
                    Mode::kX64,
                    CodeError::kReadsOwnAddress,
                    {0xE8, 0x00, 0x00, 0x00, 0x00, 0x58, 0xC3}},
        // xbegin is a relative branch too
        RefusedCase{"TransactionalBranch",
                    Mode::kX64,
                    CodeError::kUnknownInstruction,
                    {0xC7, 0xF8, 0x00, 0x00, 0x00, 0x00, 0xC3}}),
    [](const auto& info) { return info.param.name; });

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

struct MovedCase {
  const char* name;
  Mode mode;
  Bytes code;
  Bytes moved;  // from 0x400000 to 0x500000
};
std::ostream& operator<<(std::ostream& out, const MovedCase& c) { return out << c.name; }

class Moved : public testing::TestWithParam<MovedCase> {};

TEST_P(Moved, AsExpected) {
  const Bytes code = Function(GetParam().code);
  const auto prologue = AnalyzePrologue(code, kFrom, GetParam().mode);
  ASSERT_TRUE(prologue.has_value()) << Text(prologue.error());
  const auto moved = Relocate(*prologue, code, kFrom, kTo, GetParam().mode);
  ASSERT_TRUE(moved.has_value()) << Text(moved.error());
  const auto bytes = moved->Bytes();
  EXPECT_EQ(Bytes(bytes.begin(), bytes.end()), GetParam().moved);
}

INSTANTIATE_TEST_SUITE_P(
    Relocation, Moved,
    testing::Values(
        // mov r10, rcx; mov eax, 0x33: copied, and back to the ninth byte
        MovedCase{"SystemCallStub",
                  Mode::kX64,
                  {0x4C, 0x8B, 0xD1, 0xB8, 0x33, 0, 0, 0},
                  {0x4C, 0x8B, 0xD1, 0xB8, 0x33, 0, 0, 0, 0xE9, 0xFB, 0xFF, 0xEF, 0xFF}},
        // cmp dword [rip+0x1000], 0: the displacement stands before an immediate
        MovedCase{"RipRelativeWithImmediate",
                  Mode::kX64,
                  {0x83, 0x3D, 0x00, 0x10, 0, 0, 0x00},
                  {0x83, 0x3D, 0x00, 0x10, 0xF0, 0xFF, 0x00, 0xE9, 0xFB, 0xFF, 0xEF, 0xFF}},
        // test ecx, ecx; jz +0x10; nop
        MovedCase{"ShortBranchOut",
                  Mode::kX64,
                  {0x85, 0xC9, 0x74, 0x10, 0x90},
                  {0x85, 0xC9, 0x0F, 0x84, 0x0C, 0x00, 0xF0, 0xFF, 0x90, 0xE9, 0xF7, 0xFF, 0xEF, 0xFF}},
        // jz over the nop: stays inside
        MovedCase{"ShortBranchInside",
                  Mode::kX64,
                  {0x74, 0x01, 0x90, 0x31, 0xC0},
                  {0x0F, 0x84, 0x01, 0, 0, 0, 0x90, 0x31, 0xC0, 0xE9, 0xF7, 0xFF, 0xEF, 0xFF}},
        // jrcxz with its 32-bit form kept; nop; nop
        MovedCase{"CountedBranch",
                  Mode::kX64,
                  {0x67, 0xE3, 0x10, 0x90, 0x90},
                  {0x67, 0xE3, 0x02, 0xEB, 0x05, 0xE9, 0x09, 0x00, 0xF0, 0xFF, 0x90, 0x90, 0xE9, 0xF4, 0xFF,
                   0xEF, 0xFF}},
        // sub rsp, 0x28; call +0x100
        MovedCase{"Call",
                  Mode::kX64,
                  {0x48, 0x83, 0xEC, 0x28, 0xE8, 0x00, 0x01, 0, 0},
                  {0x48, 0x83, 0xEC, 0x28, 0xE8, 0x00, 0x01, 0xF0, 0xFF, 0xE9, 0xFB, 0xFF, 0xEF, 0xFF}},
        // call next: the callee still pops the old address
        MovedCase{"CallThatReadsTheAddress",
                  Mode::kX86,
                  {0xE8, 0, 0, 0, 0},
                  {0x68, 0x05, 0x00, 0x40, 0x00, 0xE9, 0xFB, 0xFF, 0xEF, 0xFF, 0xE9, 0xF6, 0xFF, 0xEF, 0xFF}},
        // mov edi, edi; push ebp; mov ebp, esp
        MovedCase{"HotPatchEntry",
                  Mode::kX86,
                  {0x8B, 0xFF, 0x55, 0x8B, 0xEC},
                  {0x8B, 0xFF, 0x55, 0x8B, 0xEC, 0xE9, 0xFB, 0xFF, 0xEF, 0xFF}},
        // mov eax, fs:[0x30]
        MovedCase{"ThreadBlock",
                  Mode::kX86,
                  {0x64, 0xA1, 0x30, 0, 0, 0},
                  {0x64, 0xA1, 0x30, 0, 0, 0, 0xE9, 0xFB, 0xFF, 0xEF, 0xFF}}),
    [](const auto& info) { return info.param.name; });

TEST(Relocation, OperandsMustReachFromTheNewPlace) {
  const Bytes code = Function({0x48, 0x8B, 0x05, 0x00, 0x10, 0x00, 0x00});  // mov rax, [rip+0x1000]
  const auto prologue = AnalyzePrologue(code, kFrom, Mode::kX64);
  ASSERT_TRUE(prologue.has_value());
  EXPECT_EQ(prologue->highest, kFrom + 0x1007);
  const auto moved = Relocate(*prologue, code, kFrom, kFrom + 0x1'0000'0000, Mode::kX64);
  ASSERT_FALSE(moved.has_value());
  EXPECT_EQ(moved.error(), CodeError::kOutOfReach);
}

struct LinkCase {
  const char* name;
  Mode mode;
  Bytes code;
  std::optional<Link> link;
};
std::ostream& operator<<(std::ostream& out, const LinkCase& c) { return out << c.name; }

class Entry : public testing::TestWithParam<LinkCase> {};

TEST_P(Entry, LeadsOnOrNot) {
  const auto link = LeadingJump(GetParam().code, kFrom, GetParam().mode);
  ASSERT_EQ(link.has_value(), GetParam().link.has_value());
  if (!link) return;
  EXPECT_EQ(link->kind, GetParam().link->kind);
  EXPECT_EQ(link->address, GetParam().link->address);
}

constexpr auto kSlot = Link::Kind::kSlot;
constexpr auto kDirect = Link::Kind::kDirect;
INSTANTIATE_TEST_SUITE_P(
    JumpChain, Entry,
    testing::Values(
        LinkCase{"ImportStub", Mode::kX64, {0xFF, 0x25, 0x00, 0x10, 0, 0}, Link{kSlot, kFrom + 0x1006}},
        LinkCase{"ImportStubWithRex",
                 Mode::kX64,
                 {0x48, 0xFF, 0x25, 0x00, 0x10, 0, 0},
                 Link{kSlot, kFrom + 0x1007}},
        LinkCase{"ImportStubBehindFiller",
                 Mode::kX64,
                 {0x48, 0x8D, 0xA4, 0x24, 0, 0, 0, 0, 0xFF, 0x25, 0xF2, 0x0F, 0, 0},
                 Link{kSlot, kFrom + 0x1000}},
        LinkCase{"ImportStubX86",
                 Mode::kX86,
                 {0x8B, 0xFF, 0x55, 0x8B, 0xEC, 0x5D, 0xFF, 0x25, 0x00, 0x20, 0x41, 0x00},
                 Link{kSlot, 0x412000}},
        LinkCase{"HotPatched", Mode::kX86, {0xEB, 0xF9}, Link{kDirect, kFrom - 5}},
        LinkCase{"Thunk", Mode::kX64, {0xE9, 0x00, 0x01, 0, 0}, Link{kDirect, kFrom + 0x105}},
        LinkCase{"JumpThroughTheThreadBlock", Mode::kX86, {0x64, 0xFF, 0x25, 0xC0, 0, 0, 0}, std::nullopt},
        LinkCase{"JumpThroughARegister", Mode::kX64, {0xFF, 0xE0}, std::nullopt},
        LinkCase{"FarJump", Mode::kX64, {0xFF, 0x2D, 0, 0, 0, 0}, std::nullopt},
        LinkCase{"OrdinaryFunction", Mode::kX64, {0x55, 0x48, 0x89, 0xE5}, std::nullopt}),
    [](const auto& info) { return info.param.name; });

}  // namespace
}  // namespace detours
