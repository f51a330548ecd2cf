#include "detours/code/instruction.h"

#include <array>

namespace detours {
namespace {

using Byte = std::uint8_t;
using Row = std::uint16_t;

// What follows an opcode byte.
enum : Row {
  o = 0,              // nothing
  M = 1 << 0,         // ModRM and what it asks for
  B = 1 << 1,         // immediate of one byte
  Z = 1 << 2,         // immediate of four bytes; two with prefix 66
  W = 1 << 3,         // immediate of two bytes
  J = 1 << 4,         // the immediate is a relative target
  N = 1 << 5,         // undefined on x64
  X = 1 << 6,         // undefined, or better left alone
  S = 1 << 7,         // defined with certain prefixes or operands only: HasMeaning()
  P = 1 << 8,         // prefix
  V = 1 << 9,         // mov r, imm: eight bytes with REX.W
  O = 1 << 10,        // plain address, as wide as addresses are
  F = 1 << 11,        // far pointer: Z and a selector of two bytes
  G = 1 << 12,        // ModRM.reg chooses the operation, and not all of them exist: kGroups
  A = 1 << 13,        // the operand is memory
  R = 1 << 14,        // the operand is a register
  Y = M | B | G | R,  // vector shifts by an immediate
};

// clang-format off
constexpr std::array<Row, 256> kOneByteMap = {
//  0      1      2      3      4      5      6      7      8      9      A      B      C      D      E      F
    M,     M,     M,     M,     B,     Z,     N,     N,     M,     M,     M,     M,     B,     Z,     N,     X,      // 00 add; or; 0F: see below
    M,     M,     M,     M,     B,     Z,     N,     N,     M,     M,     M,     M,     B,     Z,     N,     N,      // 10 adc; sbb
    M,     M,     M,     M,     B,     Z,     P,     N,     M,     M,     M,     M,     B,     Z,     P,     N,      // 20 and, es:; sub, cs:
    M,     M,     M,     M,     B,     Z,     P,     N,     M,     M,     M,     M,     B,     Z,     P,     N,      // 30 xor, ss:; cmp, ds:
    o,     o,     o,     o,     o,     o,     o,     o,     o,     o,     o,     o,     o,     o,     o,     o,      // 40 inc; dec; x64: REX
    o,     o,     o,     o,     o,     o,     o,     o,     o,     o,     o,     o,     o,     o,     o,     o,      // 50 push; pop
    N,     N,     M|N|A, M,     P,     P,     P,     P,     Z,     M|Z,   B,     M|B,   o,     o,     o,     o,      // 60 bound, movsxd, fs:, gs:, 66, 67; push, imul, ins, outs
    J|B,   J|B,   J|B,   J|B,   J|B,   J|B,   J|B,   J|B,   J|B,   J|B,   J|B,   J|B,   J|B,   J|B,   J|B,   J|B,    // 70 jcc
    M|B,   M|Z,   M|B|N, M|B,   M,     M,     M,     M,     M,     M,     M,     M,     M|G,   M|A,   M|G,   M|G,    // 80 add.., test, xchg; mov, lea, pop
    o,     o,     o,     o,     o,     o,     o,     o,     o,     o,     F|N,   o,     o,     o,     o,     o,      // 90 nop, xchg; cwde, call far
    O,     O,     O,     O,     o,     o,     o,     o,     B,     Z,     o,     o,     o,     o,     o,     o,      // A0 mov moffs, movs; test, stos, lods, scas
    B,     B,     B,     B,     B,     B,     B,     B,     V,     V,     V,     V,     V,     V,     V,     V,      // B0 mov r, imm
    M|B,   M|B,   W,     o,     M|N|A, M|N|A, M|B|G, M|Z|G, W|B,   o,     W,     o,     o,     B,     N,     o,      // C0 shifts, ret, les, lds, mov; enter, leave, retf, int
    M,     M,     M,     M,     B|N,   B|N,   X,     o,     M,     M,     M,     M,     M,     M,     M,     M,      // D0 shifts, aam, aad, xlat; x87
    J|B,   J|B,   J|B,   J|B,   B,     B,     B,     B,     J|Z,   J|Z,   F|N,   J|B,   o,     o,     o,     o,      // E0 loop, jecxz, in, out; call, jmp, jmp far
    P,     o,     P,     P,     o,     o,     M,     M,     o,     o,     o,     o,     o,     o,     M|G,   M|G|S,  // F0 lock, int1, repne, rep, hlt; inc, dec, call, jmp, push
};

// Behind 0F. Control and debug registers, bounds registers and vendors' oddities are left alone.
constexpr std::array<Row, 256> kTwoByteMap = {
//  0      1      2      3      4      5      6      7      8      9      A      B      C      D      E      F
    M|G,   M|G|A, M,     M,     X,     o,     o,     o,     o,     o,     X,     o,     X,     M|A,   o,     X,      // 00 sldt.., sgdt.., lar, lsl; syscall; ud2, prefetchw
    M,     M,     M|S,   M|A,   M,     M,     M|S,   M|A,   M,     M,     X,     X,     M,     M,     M,     M,      // 10 movups..; hints, endbr
    X,     X,     X,     X,     X,     X,     X,     X,     M,     M,     M,     M|A,   M,     M,     M,     M,      // 20 movaps, cvt, ucomis
    o,     o,     o,     o,     o,     o,     X,     o,     X,     X,     X,     X,     X,     X,     X,     X,      // 30 rdtsc, sysenter; 38, 3A: see below
    M,     M,     M,     M,     M,     M,     M,     M,     M,     M,     M,     M,     M,     M,     M,     M,      // 40 cmovcc
    M|R,   M,     M,     M,     M,     M,     M,     M,     M,     M,     M,     M,     M,     M,     M,     M,      // 50 movmskps..
    M,     M,     M,     M,     M,     M,     M,     M,     M,     M,     M,     M,     M,     M,     M,     M,      // 60 punpck..
    M|B,   Y,     Y,     Y,     M,     M,     M,     o,     M|S,   M|S,   X,     X,     M|S,   M|S,   M,     M,      // 70 pshuf, shifts, emms; vmread
    J|Z,   J|Z,   J|Z,   J|Z,   J|Z,   J|Z,   J|Z,   J|Z,   J|Z,   J|Z,   J|Z,   J|Z,   J|Z,   J|Z,   J|Z,   J|Z,    // 80 jcc
    M,     M,     M,     M,     M,     M,     M,     M,     M,     M,     M,     M,     M,     M,     M,     M,      // 90 setcc
    o,     o,     o,     M,     M|B,   M,     X,     X,     o,     o,     o,     M,     M|B,   M,     M,     M,      // A0 cpuid, bt, shld; bts, shrd, fences, imul
    M,     M,     M|A,   M,     M|A,   M|A,   M,     M,     M|S,   M,     M|B|G, M,     M,     M,     M,     M,      // B0 cmpxchg, btr, movzx; popcnt, bsf, movsx
    M,     M,     M|B,   M|A,   M|B,   M|B|R, M|B,   M|G,   o,     o,     o,     o,     o,     o,     o,     o,      // C0 xadd, cmpps, movnti, pinsrw, cmpxchg8b; bswap
    M|S,   M,     M,     M,     M,     M,     M|S,   M|R,   M,     M,     M,     M,     M,     M,     M,     M,      // D0 psrl.., pand; psub, pmax
    M,     M,     M,     M,     M,     M,     M|S,   M|A,   M,     M,     M,     M,     M,     M,     M,     M,      // E0 pavg, psra, cvt, movnt; padd, pxor
    M|S|A, M,     M,     M,     M,     M,     M,     M|R,   M,     M,     M,     M,     M,     M,     M,     M,      // F0 lddqu, psll, psadbw, maskmov; psub, padd, ud0
};

// The values of ModRM.reg that stand for an operation, one bit each.
struct Group {
  bool two_byte;
  Byte opcode;
  Byte defined;
};
constexpr std::array kGroups = {
    Group{false, 0x8C, 0b0011'1111},  // mov from a segment register
    Group{false, 0x8E, 0b0011'1101},  // mov to one, never to cs
    Group{false, 0x8F, 0b0000'0001},  // pop; otherwise the prefix of another vector encoding
    Group{false, 0xC6, 0b0000'0001},  // mov; otherwise xabort
    Group{false, 0xC7, 0b0000'0001},  // mov; otherwise xbegin, which branches
    Group{false, 0xFE, 0b0000'0011},  // inc, dec
    Group{false, 0xFF, 0b0111'1111},  // inc, dec, call, call far, jmp, jmp far, push
    Group{true,  0x00, 0b0011'1111},  // sldt, str, lldt, ltr, verr, verw
    Group{true,  0x01, 0b1101'1111},  // sgdt, sidt, lgdt, lidt, smsw, lmsw, invlpg
    Group{true,  0x71, 0b0101'0100},  // psrlw, psraw, psllw
    Group{true,  0x72, 0b0101'0100},  // psrld, psrad, pslld
    Group{true,  0x73, 0b1100'1100},  // psrlq, psrldq, psllq, pslldq
    Group{true,  0xBA, 0b1111'0000},  // bt, bts, btr, btc
    Group{true,  0xC7, 0b1111'1010},  // cmpxchg8b, xrstors, xsavec, xsaves, rdrand, rdseed
};

// Opcodes that exist in the maps that have one shape throughout (ModRM; behind 3A an immediate byte as well).
using Defined = std::array<std::uint64_t, 4>;
constexpr Defined kMap38 = {0xFFBF0F3F70B10FFF, 0x0000000000000003, 0x0000000000000007, 0x0F630000F900BF00};
constexpr Defined kMap3A = {0x0000000700F0FF00, 0x0000000F00000017, 0x0000000000000000, 0x000100008000D000};
constexpr std::array<Defined, 3> kVexMaps = {{
    {0x0000FF0001FF0000, 0xF0FFFFFFFFFF0FFE, 0x00004000030F0000, 0x7FFFFFFFFFFF0074},
    {0xFFFFFF3F77C8FFFF, 0x03000000570F0AE3, 0xFFC0FFC0FFC05000, 0x00EC0000F8008000},
    {0x430F000723F0FF77, 0xFF00FF0FF0001F57, 0x0000000000000000, 0x000100008000C000},
}};
constexpr std::array<Defined, 3> kEvexMaps = {{
    {0x0000FF0000FF0000, 0xCF7FFFFFFFF20000, 0x0000000000000000, 0x7F7EFFFFFF7E0074},
    {0xFFFF3FFFFF7F3811, 0xFFEF017C0F3FF0FD, 0xFFF0FFCFFFC0AF08, 0x00000000F000BD10},
    {0xCF0000EFEFF08F3B, 0x000F00C000F3001C, 0x0000000000000000, 0x000000000000C004},
}};
// clang-format on

constexpr bool Contains(const Defined& map, Byte opcode) noexcept {
  return (map[opcode >> 6] >> (opcode & 63) & 1) != 0;
}

enum class Map : Byte { kOneByte, kTwoByte, k38, k3A };

// The state of one decoding: a cursor over the bytes and what the prefixes said.
class Decoder {
 public:
  Decoder(std::span<const Byte> code, Mode mode) noexcept
      : code_(code.first(code.size() < kMaxInstructionLength ? code.size() : kMaxInstructionLength)),
        cut_(code.size() < kMaxInstructionLength ? CodeError::kTruncated : CodeError::kTooLong),
        x64_(mode == Mode::kX64) {}

  Result<Instruction, CodeError> Run() noexcept {
    if (!Opcode() || !(row_ & M ? ModRm() : true) || !Immediate()) return error_;
    ClassifyFlow();
    out_.opcode = opcode_;
    out_.two_byte_map = map_ == Map::kTwoByte && !extended_;
    out_.address_size = address_size_;
    out_.length = static_cast<Byte>(at_);
    return out_;
  }

 private:
  bool Fail(CodeError error) noexcept {
    error_ = error;
    return false;
  }

  bool Next(Byte& byte) noexcept {
    if (at_ == code_.size()) return Fail(cut_);
    byte = code_[at_++];
    return true;
  }

  // Prefixes, opcode maps and opcode. Leaves row_ with what follows.
  bool Opcode() noexcept {
    for (;;) {
      if (!Next(opcode_)) return false;
      if (x64_ && (opcode_ & 0xF0) == 0x40) {  // counts only directly in front of the opcode
        rex_ = opcode_;
        continue;
      }
      row_ = kOneByteMap[opcode_];
      if (!(row_ & P)) break;
      rex_ = 0;
      switch (opcode_) {
        case 0x66:
          operand_size_ = true;
          break;
        case 0x67:
          address_size_ = true;
          break;
        case 0xF0:
          lock_ = true;
          break;
        case 0xF2:
        case 0xF3:
          repeat_ = opcode_;
          break;
        case 0x64:
        case 0x65:
          out_.segment = true;
          break;
        default:
          break;  // the other segments are flat
      }
    }
    out_.prefix_length = static_cast<Byte>(at_ - 1);
    if (IsExtended()) return Extended();
    if (opcode_ != 0x0F) return !(row_ & X || (x64_ && row_ & N)) || Fail(CodeError::kUnknownInstruction);

    if (!Next(opcode_)) return false;
    if (opcode_ == 0x38 || opcode_ == 0x3A) {
      const bool with_immediate = opcode_ == 0x3A;
      map_ = with_immediate ? Map::k3A : Map::k38;
      row_ = with_immediate ? M | B : M;
      if (!Next(opcode_)) return false;
      return Contains(with_immediate ? kMap3A : kMap38, opcode_) || Fail(CodeError::kUnknownInstruction);
    }
    map_ = Map::kTwoByte;
    row_ = kTwoByteMap[opcode_];
    return !(row_ & X) || Fail(CodeError::kUnknownInstruction);
  }

  // C4, C5 and 62 begin VEX and EVEX on x64; on x86 only where les, lds and bound would name a register.
  [[nodiscard]] bool IsExtended() const noexcept {
    if (opcode_ != 0xC4 && opcode_ != 0xC5 && opcode_ != 0x62) return false;
    return x64_ || (at_ < code_.size() && code_[at_] >= 0xC0);
  }

  bool Extended() noexcept {
    const Byte form = opcode_;
    if (rex_ != 0 || operand_size_ || lock_ || repeat_ != 0) return Fail(CodeError::kUnknownInstruction);
    extended_ = true;
    Byte first = 0;
    Byte second = 0;
    Byte third = 0;
    if (!Next(first)) return false;
    unsigned map = 1;
    if (form != 0xC5) {
      map = form == 0xC4 ? first & 0x1F : first & 0x0F;
      if (map < 1 || map > 3) return Fail(CodeError::kUnknownInstruction);
      if (!Next(second)) return false;
    }
    if (form == 0x62) {
      if (!(second & 4)) return Fail(CodeError::kUnknownInstruction);
      if (!Next(third)) return false;
    }
    if (!Next(opcode_)) return false;
    if (!Contains(form == 0x62 ? kEvexMaps[map - 1] : kVexMaps[map - 1], opcode_)) {
      return Fail(CodeError::kUnknownInstruction);
    }
    map_ = map == 1 ? Map::kTwoByte : map == 2 ? Map::k38 : Map::k3A;
    row_ = M;
    if (map == 3) row_ |= B;
    if (map == 1) {
      if (opcode_ == 0x77) row_ = o;  // vzeroupper
      const bool immediate = (opcode_ >= 0x70 && opcode_ <= 0x73) || opcode_ == 0xC2 ||
                             (opcode_ >= 0xC4 && opcode_ <= 0xC6);  // vpshuf, shifts, vcmp, vpinsrw, vshuf
      if (immediate) row_ |= B;
    }
    return true;
  }

  bool ModRm() noexcept {
    Byte modrm = 0;
    if (!Next(modrm)) return false;
    const unsigned mod = modrm >> 6;
    const unsigned reg = modrm >> 3 & 7;
    const unsigned rm = modrm & 7;
    const bool x87 = map_ == Map::kOneByte && (opcode_ & 0xF8) == 0xD8;
    if (!HasMeaning(mod != 3, reg) || (x87 && IsUndefinedX87(mod != 3, reg, rm))) {
      return Fail(CodeError::kUnknownInstruction);
    }
    reg_ = static_cast<Byte>(reg);
    if (map_ == Map::kOneByte) {
      if (opcode_ == 0xF6 && reg < 2) row_ |= B;  // test
      if (opcode_ == 0xF7 && reg < 2) row_ |= Z;
    }
    if (mod == 3) return true;
    if (address_size_ && !x64_) {  // 16-bit addresses
      if (mod == 1) return Skip(1);
      return mod == 2 || rm == 6 ? Skip(2) : true;
    }
    unsigned base = rm;
    if (rm == 4) {
      Byte sib = 0;
      if (!Next(sib)) return false;
      base = sib & 7;
    }
    if (mod == 1) return Skip(1);
    if (mod == 2) return Skip(4);
    if (base != 5) return true;
    if (rm == 5) {
      out_.rip_relative = x64_;
      out_.absolute = !x64_;
      out_.displacement_offset = static_cast<Byte>(at_);
      return Signed(4, out_.displacement);
    }
    return Skip(4);
  }

  // Whether these operands and prefixes stand for something in an opcode that otherwise exists.
  [[nodiscard]] bool HasMeaning(bool memory, unsigned reg) const noexcept {
    if ((row_ & A && !memory) || (row_ & R && memory)) return false;
    if (row_ & G) {
      for (const Group& group : kGroups) {
        if (group.two_byte != (map_ == Map::kTwoByte) || group.opcode != opcode_) continue;
        if (!(group.defined >> reg & 1)) return false;
      }
    }
    if (!(row_ & S)) return true;
    if (map_ == Map::kOneByte) return memory || (reg != 3 && reg != 5);  // FF: far targets lie in memory
    const bool repne = repeat_ == 0xF2;
    switch (opcode_) {
      case 0x12:  // movhlps and movlhps have no form with 66, loads have
      case 0x16:
        return memory || !operand_size_;
      case 0x78:  // vmread, vmwrite; with prefixes extrq, insertq
      case 0x79:
        return !operand_size_ && repeat_ == 0;
      case 0x7C:  // haddpd, hsubpd, addsubpd and their ps forms
      case 0x7D:
      case 0xD0:
        return operand_size_ || repne;
      case 0xB8:  // popcnt
        return repeat_ == 0xF3;
      case 0xD6:  // movq, cvtpd2dq
      case 0xE6:
        return operand_size_ || repeat_ != 0;
      default:  // lddqu
        return repne;
    }
  }

  // Register forms of the floating-point opcodes that do not exist; of the memory forms, these three.
  [[nodiscard]] bool IsUndefinedX87(bool memory, unsigned reg, unsigned rm) const noexcept {
    if (memory) {
      return (opcode_ == 0xD9 && reg == 1) || (opcode_ == 0xDB && (reg == 4 || reg == 6)) ||
             (opcode_ == 0xDD && reg == 5);
    }
    switch (opcode_) {
      case 0xD9:
        return (reg == 2 && rm != 0) || (reg == 4 && (rm == 2 || rm == 3 || rm > 5)) || (reg == 5 && rm == 7);
      case 0xDA:
        return reg > 3 && !(reg == 5 && rm == 1);
      case 0xDB:
        return reg == 7 || (reg == 4 && rm > 4);
      case 0xDD:
        return reg > 5;
      case 0xDE:
        return reg == 3 && rm != 1;
      case 0xDF:
        return reg == 7 || (reg == 4 && rm != 0);
      default:
        return false;
    }
  }

  bool Immediate() noexcept {
    if (row_ & J) {
      if ((row_ & Z) && operand_size_) return Fail(CodeError::kUnknownInstruction);  // makers disagree
      return Signed(row_ & Z ? 4 : 1, out_.distance);
    }
    unsigned size = 0;
    if (row_ & B) size += 1;
    if (row_ & W) size += 2;
    const unsigned z = operand_size_ && !(rex_ & 8) ? 2 : 4;
    if (row_ & Z) size += z;
    if (row_ & V) size += x64_ && rex_ & 8 ? 8 : z;
    if (row_ & O) size += x64_ ? (address_size_ ? 4 : 8) : (address_size_ ? 2 : 4);
    if (row_ & F) size += z + 2;
    return size == 0 || Skip(size);
  }

  void ClassifyFlow() noexcept {
    if (extended_) return;
    if (map_ == Map::kTwoByte) {
      if (row_ & J) out_.flow = Flow::kConditional;
      if (opcode_ == 0x0B) out_.flow = Flow::kStop;                       // ud2
      if (opcode_ == 0xFF || opcode_ == 0xB9) out_.flow = Flow::kStop;    // ud0, ud1
      if (opcode_ == 0x07 || opcode_ == 0x35) out_.flow = Flow::kReturn;  // sysret, sysexit
      return;
    }
    if (map_ != Map::kOneByte) return;
    switch (opcode_) {
      case 0xE0:
      case 0xE1:
      case 0xE2:
      case 0xE3:
        out_.flow = Flow::kCounted;
        break;
      case 0xE8:
        out_.flow = Flow::kCall;
        break;
      case 0xE9:
      case 0xEB:
        out_.flow = Flow::kJump;
        break;
      case 0xEA:
        out_.flow = Flow::kStop;
        break;
      case 0x9A:
        out_.flow = Flow::kIndirectCall;
        break;
      case 0xC2:
      case 0xC3:
      case 0xCA:
      case 0xCB:
      case 0xCF:
        out_.flow = Flow::kReturn;
        break;
      case 0xCC:
        out_.flow = Flow::kBreakpoint;
        break;
      case 0xF4:
        out_.flow = Flow::kStop;
        break;
      case 0xFF:
        if (reg_ == 2 || reg_ == 3) out_.flow = Flow::kIndirectCall;
        if (reg_ == 4) out_.flow = Flow::kIndirectJump;
        if (reg_ == 5) out_.flow = Flow::kStop;
        break;
      default:
        if (row_ & J) out_.flow = Flow::kConditional;
        break;
    }
  }

  bool Skip(std::size_t count) noexcept {
    if (code_.size() - at_ < count) return Fail(cut_);
    at_ += count;
    return true;
  }

  bool Signed(std::size_t count, std::int32_t& value) noexcept {
    if (code_.size() - at_ < count) return Fail(cut_);
    std::uint32_t raw = 0;
    for (std::size_t i = 0; i < count; ++i) raw |= std::uint32_t{code_[at_ + i]} << (8 * i);
    value = count == 1 ? static_cast<std::int8_t>(raw) : static_cast<std::int32_t>(raw);
    at_ += count;
    return true;
  }

  std::span<const Byte> code_;
  CodeError cut_;  // what it means when the bytes run out
  bool x64_;
  std::size_t at_ = 0;
  CodeError error_ = CodeError::kTruncated;
  Instruction out_;
  Byte opcode_ = 0;
  Byte reg_ = 0;  // ModRM.reg
  Byte rex_ = 0;
  Byte repeat_ = 0;  // F2, F3 or 0, the last one
  bool operand_size_ = false;
  bool address_size_ = false;
  bool lock_ = false;
  bool extended_ = false;  // VEX or EVEX
  Map map_ = Map::kOneByte;
  Row row_ = o;
};

}  // namespace

Result<Instruction, CodeError> Decode(std::span<const std::uint8_t> code, Mode mode) noexcept {
  return Decoder(code, mode).Run();
}

}  // namespace detours
