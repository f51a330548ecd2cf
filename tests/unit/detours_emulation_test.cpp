// Moved code does what it did: prologues run in an emulator, once where they stand and once in a trampoline,
// from the same registers and memory, until control leaves them. Registers, memory and the way out must be
// the same. Material: random instructions, branches preferred, and the exports of the system DLLs.
#include <gtest/gtest.h>
#include <unicorn/unicorn.h>

#include <array>
#include <cstdint>
#include <random>
#include <vector>

#include "detours/code/prologue.h"
#include "detours/code/relocator.h"
#include "tests/unit/system_dlls.h"

namespace detours {
namespace {

constexpr std::uint64_t kPage = 4096;
constexpr std::uint64_t kFunction = 0x1000'0100;
constexpr std::uint64_t kTrampoline = 0x1800'0040;
constexpr std::uint64_t kStack = 0x2000'0000;
constexpr std::size_t kMaxSteps = 64;

struct Write {
  std::uint64_t address;
  std::uint64_t value;
  int size;
  bool operator==(const Write&) const = default;
};

struct Outcome {
  uc_err error = UC_ERR_OK;
  bool left = false;       // control went out of the bytes,
  std::uint64_t exit = 0;  // to here
  std::vector<std::uint64_t> registers;
  std::vector<Write> writes;
};

// An emulated processor whose memory comes into being, filled from its address, wherever it is touched.
class Machine {
 public:
  explicit Machine(Mode mode) : mode_(mode) {
    EXPECT_EQ(uc_open(UC_ARCH_X86, mode == Mode::kX64 ? UC_MODE_64 : UC_MODE_32, &uc_), UC_ERR_OK);
    uc_context_alloc(uc_, &fresh_);
    uc_context_save(uc_, fresh_);
    uc_hook hook = 0;
    uc_hook_add(uc_, &hook, UC_HOOK_CODE, reinterpret_cast<void*>(OnCode), this, 1, 0);
    uc_hook_add(uc_, &hook, UC_HOOK_MEM_WRITE, reinterpret_cast<void*>(OnWrite), this, 1, 0);
    uc_hook_add(uc_, &hook, UC_HOOK_MEM_READ_UNMAPPED | UC_HOOK_MEM_WRITE_UNMAPPED,
                reinterpret_cast<void*>(OnUnmapped), this, 1, 0);
    uc_hook_add(uc_, &hook, UC_HOOK_MEM_FETCH_UNMAPPED, reinterpret_cast<void*>(OnFetch), this, 1, 0);
    const int x64[] = {UC_X86_REG_RAX, UC_X86_REG_RBX,   UC_X86_REG_RCX, UC_X86_REG_RDX, UC_X86_REG_RSI,
                       UC_X86_REG_RDI, UC_X86_REG_RBP,   UC_X86_REG_RSP, UC_X86_REG_R8,  UC_X86_REG_R9,
                       UC_X86_REG_R10, UC_X86_REG_R11,   UC_X86_REG_R12, UC_X86_REG_R13, UC_X86_REG_R14,
                       UC_X86_REG_R15, UC_X86_REG_EFLAGS};
    const int x86[] = {UC_X86_REG_EAX, UC_X86_REG_EBX, UC_X86_REG_ECX, UC_X86_REG_EDX,   UC_X86_REG_ESI,
                       UC_X86_REG_EDI, UC_X86_REG_EBP, UC_X86_REG_ESP, UC_X86_REG_EFLAGS};
    mode == Mode::kX64 ? names_.assign(std::begin(x64), std::end(x64))
                       : names_.assign(std::begin(x86), std::end(x86));
  }
  ~Machine() {
    uc_context_free(fresh_);
    uc_close(uc_);
  }
  Machine(const Machine&) = delete;
  Machine& operator=(const Machine&) = delete;

  // Runs the bytes at address from a state that the seed decides, until control leaves them.
  Outcome Run(std::span<const std::uint8_t> bytes, std::uint64_t address, std::uint64_t seed) {
    out_ = {};
    begin_ = address;
    end_ = address + bytes.size();
    Map(address & ~(kPage - 1), 2 * kPage, nullptr);
    uc_mem_write(uc_, address, bytes.data(), bytes.size());
    uc_ctl_remove_cache(uc_, address, end_ + kPage);  // what was translated from earlier bytes at this place
    SetRegisters(seed);
    const uc_err error = uc_emu_start(uc_, address, 0, 0, kMaxSteps);
    if (!out_.left) out_.error = error;
    for (const int name : names_) {
      std::uint64_t value = 0;
      uc_reg_read(uc_, name, &value);
      out_.registers.push_back(value);
    }
    for (const auto& [base, size] : mapped_) uc_mem_unmap(uc_, base, size);
    mapped_.clear();
    return out_;
  }

 private:
  void Map(std::uint64_t base, std::uint64_t size, const std::uint8_t* fill) {
    if (uc_mem_map(uc_, base, size, UC_PROT_ALL) != UC_ERR_OK) return;
    mapped_.emplace_back(base, size);
    if (fill) uc_mem_write(uc_, base, fill, size);
  }

  void SetRegisters(std::uint64_t seed) {
    uc_context_restore(uc_, fresh_);  // segments too
    std::mt19937_64 random(seed);
    for (const int name : names_) {
      // Small values, so that counters reach zero and addresses stay apart from the code.
      std::uint64_t value = random() % 8 == 0 ? random() % 3 : 0x3000'0000 + (random() & 0x0FFF'FFF8);
      if (name == UC_X86_REG_EFLAGS) value = 0x202 | (random() & 0x8D5);  // status flags
      if (name == UC_X86_REG_RSP || name == UC_X86_REG_ESP) value = kStack;
      uc_reg_write(uc_, name, &value);
    }
  }

  void Leave(std::uint64_t address) {
    if (!out_.left) out_.exit = address;
    out_.left = true;
    uc_emu_stop(uc_);
  }

  static void OnCode(uc_engine*, std::uint64_t address, std::uint32_t, void* self) {
    auto& machine = *static_cast<Machine*>(self);
    if (address < machine.begin_ || address >= machine.end_) machine.Leave(address);
  }

  static void OnWrite(uc_engine*, uc_mem_type, std::uint64_t address, int size, std::int64_t value,
                      void* self) {
    static_cast<Machine*>(self)->out_.writes.push_back({address, static_cast<std::uint64_t>(value), size});
  }

  static bool OnUnmapped(uc_engine*, uc_mem_type, std::uint64_t address, int size, std::int64_t, void* self) {
    auto& machine = *static_cast<Machine*>(self);
    std::array<std::uint8_t, kPage> fill;
    const std::uint64_t first = address & ~(kPage - 1);
    const std::uint64_t last = (address + static_cast<std::uint64_t>(size) - 1) & ~(kPage - 1);
    for (std::uint64_t page = first;; page += kPage) {
      for (std::size_t i = 0; i < kPage; ++i) fill[i] = static_cast<std::uint8_t>((page >> 12) * 7 + i * 13);
      machine.Map(page, kPage, fill.data());
      if (page == last) return true;
    }
  }

  static bool OnFetch(uc_engine*, uc_mem_type, std::uint64_t address, int, std::int64_t, void* self) {
    static_cast<Machine*>(self)->Leave(address);
    return false;
  }

  Mode mode_;
  uc_engine* uc_ = nullptr;
  uc_context* fresh_ = nullptr;
  std::vector<int> names_;
  std::vector<std::pair<std::uint64_t, std::uint64_t>> mapped_;
  std::uint64_t begin_ = 0;
  std::uint64_t end_ = 0;
  Outcome out_;
};

struct Tally {
  std::size_t compared = 0;
  std::size_t refused = 0;
  std::array<std::size_t, 16> by_flow{};
};

// A branch behind the replaced bytes but into the middle of a moved instruction: garbage that the emulator
// itself may stumble over.
bool RunsIntoAnInstruction(const Prologue& prologue) {
  std::array<bool, 32> begins{};
  std::int64_t at = 0;
  for (const auto& instruction : prologue.Instructions()) {
    begins[static_cast<std::size_t>(at)] = true;
    at += instruction.length;
  }
  at = 0;
  for (const auto& instruction : prologue.Instructions()) {
    at += instruction.length;
    const std::int64_t target = at + instruction.distance;
    const bool inside = instruction.IsRelativeFlow() && target >= 0 && target < prologue.size;
    if (inside && !begins[static_cast<std::size_t>(target)]) return true;
  }
  return false;
}

// Compares a function's prologue with its relocation. Only what both ran to its end is compared.
void Compare(Machine& machine, Mode mode, std::span<const std::uint8_t> code, std::uint64_t from,
             std::uint64_t to, std::uint64_t seed, Tally& tally) {
  const auto prologue = AnalyzePrologue(code, from, mode);
  if (!prologue) return void(++tally.refused);
  const auto moved = Relocate(*prologue, code, from, to, mode);
  if (!moved) return void(++tally.refused);
  if (RunsIntoAnInstruction(*prologue)) return;

  const Outcome original = machine.Run(code.first(prologue->size), from, seed);
  Outcome relocated = machine.Run(moved->Bytes(), to, seed);
  // A call of the function itself, which leads through the jump, and an endless loop.
  const bool back = relocated.left && relocated.exit == from;
  if (back || (original.error == UC_ERR_OK && !original.left)) return;
  EXPECT_EQ(relocated.error, original.error);
  if (original.error != UC_ERR_OK) return;  // refused by the processor, in both places

  // A call leaves the moved return address on the stack.
  const std::size_t last = prologue->count - 1u;
  const Instruction& ending = prologue->instructions[last];
  const bool called =
      ending.flow == Flow::kIndirectCall || (ending.flow == Flow::kCall && mode == Mode::kX64);
  if (called && !relocated.writes.empty() && relocated.writes.back().value - to < moved->size) {
    EXPECT_EQ(relocated.writes.back().value,
              to + moved->begins[last] + (ending.flow == Flow::kCall ? kJumpSize : ending.length));
    relocated.writes.back().value = from + prologue->size;
  }
  EXPECT_EQ(relocated.exit, original.exit);
  EXPECT_EQ(relocated.registers, original.registers);
  EXPECT_EQ(relocated.writes, original.writes);
  ++tally.compared;
  for (const auto& instruction : prologue->Instructions())
    ++tally.by_flow[static_cast<std::size_t>(instruction.flow)];
}

// ---- Generated functions ----

enum class Rm { kNone, kAny, kMemory };
enum class Tail { kNone, kByte, kLong, kShortBranch, kNearBranch };
struct Form {
  bool prefixes;                // may have an operand-size and a REX prefix
  std::uint8_t first;           // before the opcode; 0: nothing
  std::uint8_t opcode, spread;  // the opcode, or one of those that follow it
  Rm rm = Rm::kNone;
  int digit = -1;  // the ModRM byte's reg field; -1: any
  Tail tail = Tail::kNone;
};
constexpr Form kPlain[] = {
    {false, 0, 0x50, 4},  // push and pop, not of the stack pointer
    {false, 0, 0x58, 4},
    {false, 0, 0xB8, 8, Rm::kNone, -1, Tail::kLong},
    {true, 0, 0x8D, 1, Rm::kMemory},
    {true, 0, 0x83, 1, Rm::kAny, -1, Tail::kByte},
    {true, 0x0F, 0xB6, 2, Rm::kAny},
    {true, 0x0F, 0x40, 16, Rm::kAny},
    {false, 0, 0xF6, 1, Rm::kAny, 0, Tail::kByte},
    {false, 0x0F, 0x10, 2, Rm::kAny},
    {false, 0, 0xC7, 1, Rm::kAny, 0, Tail::kLong},
    {true, 0, 0x01, 3, Rm::kAny},
    {true, 0, 0x29, 3, Rm::kAny},
    {true, 0, 0x39, 3, Rm::kAny},
    {true, 0, 0x88, 4, Rm::kAny},
};
constexpr Form kBranches[] = {
    {false, 0, 0xEB, 1, Rm::kNone, -1, Tail::kShortBranch},
    {false, 0, 0xE9, 1, Rm::kNone, -1, Tail::kNearBranch},
    {false, 0, 0xE8, 1, Rm::kNone, -1, Tail::kNearBranch},
    {false, 0x0F, 0x80, 16, Rm::kNone, -1, Tail::kNearBranch},
    {false, 0, 0xE0, 4, Rm::kNone, -1, Tail::kShortBranch},
    {false, 0x67, 0xE0, 4, Rm::kNone, -1, Tail::kShortBranch},
    {false, 0, 0xFF, 1, Rm::kMemory, 2},
    {false, 0, 0xFF, 1, Rm::kMemory, 4},
    {false, 0, 0x70, 16, Rm::kNone, -1, Tail::kShortBranch},
};

// Functions made of the instructions that compilers begin functions with, and of every kind of branch.
class Generator {
 public:
  Generator(Mode mode, std::uint64_t seed) : x64_(mode == Mode::kX64), random_(seed) {}

  std::vector<std::uint8_t> Function() {
    code_.clear();
    while (code_.size() < 48) Below(5) < 2 ? Add(kBranches) : Add(kPlain);
    return code_;
  }

  std::uint64_t operator()() { return random_(); }

 private:
  std::uint8_t Below(unsigned limit) { return static_cast<std::uint8_t>(random_() % limit); }
  void Put(unsigned byte) { code_.push_back(static_cast<std::uint8_t>(byte)); }
  void Number(int size, std::uint32_t value) {
    for (int i = 0; i < size; ++i) Put(value >> (8 * i) & 0xFF);
  }

  // ModRM with what belongs to it; memory when it must be.
  void Operand(unsigned reg, bool memory) {
    const unsigned mod = Below(memory ? 3 : 4);
    const unsigned rm = Below(8);
    Put(mod << 6 | reg << 3 | rm);
    if (mod == 3) return;
    unsigned base = rm;
    if (rm == 4) {
      base = Below(8);
      Put(Below(4) << 6 | Below(8) << 3 | base);
    }
    if (mod == 1) Put(Below(256));
    // Around the code itself when it is RIP-relative: near enough, and not inside the code.
    if (mod == 2 || (mod == 0 && base == 5)) Number(4, 0x1'0000 + Below(256));
  }

  void Add(std::span<const Form> forms) {
    const Form& form = forms[Below(static_cast<unsigned>(forms.size()))];
    if (form.prefixes && Below(6) == 0) Put(0x66);
    if (form.prefixes && x64_ && Below(2) == 0) Put(0x40 + Below(16));
    if (form.first) Put(form.first);
    Put(form.opcode + Below(form.spread));
    if (form.rm != Rm::kNone)
      Operand(form.digit < 0 ? Below(8) : static_cast<unsigned>(form.digit), form.rm == Rm::kMemory);
    if (form.tail == Tail::kByte) Put(Below(256));
    if (form.tail == Tail::kLong) Number(4, static_cast<std::uint32_t>(random_()));
    if (form.tail == Tail::kShortBranch) Put(Below(24));
    if (form.tail == Tail::kNearBranch) Number(4, Below(4) == 0 ? 0 : Below(200));
  }

  bool x64_;
  std::mt19937_64 random_;
  std::vector<std::uint8_t> code_;
};

class Emulation : public testing::TestWithParam<Mode> {};
INSTANTIATE_TEST_SUITE_P(Modes, Emulation, testing::Values(Mode::kX64, Mode::kX86),
                         [](const auto& info) { return info.param == Mode::kX64 ? "X64" : "X86"; });

TEST_P(Emulation, GeneratedProloguesDoTheSameInATrampoline) {
  constexpr int kRounds = 6000;
  Generator generator(GetParam(), 11);
  Machine machine(GetParam());
  Tally tally;
  for (int i = 0; i < kRounds; ++i) {
    const auto code = generator.Function();
    Compare(machine, GetParam(), code, kFunction, kTrampoline, generator(), tally);
    ASSERT_FALSE(HasFailure()) << system_dlls::Hex(code);
  }
  EXPECT_GT(tally.compared * 2, static_cast<std::size_t>(kRounds));
  for (const Flow flow : {Flow::kJump, Flow::kConditional, Flow::kCounted, Flow::kCall}) {
    EXPECT_GT(tally.by_flow[static_cast<std::size_t>(flow)], 100u);
  }
}

TEST_P(Emulation, ExportsOfTheSystemDllsDoTheSameInATrampoline) {
  const auto files = system_dlls::Files(GetParam());
  if (files.empty()) GTEST_SKIP() << "no DLLs of this kind are installed (packages wine64, g++-mingw-w64)";
  constexpr std::array kNames = {"ntdll",       "kernelbase",     "kernel32",        "ws2_32",
                                 "dnsapi",      "user32",         "advapi32",        "msvcrt",
                                 "libstdc++-6", "libgcc_s_dw2-1", "libwinpthread-1", "zlib1"};
  std::mt19937_64 random(12);
  Machine machine(GetParam());
  Tally tally;
  for (const auto& file : files) {
    if (std::ranges::find(kNames, file.stem()) == kNames.end()) continue;
    const system_dlls::Dll dll(file);
    if (dll.mode() != GetParam()) continue;
    for (const auto& function : dll.exports()) {
      if (function.code.size() < 32) continue;
      const std::uint64_t to = (function.address & ~std::uint64_t{0xFFFF}) + 0x100'0000;
      Compare(machine, GetParam(), function.code.first(std::min(function.code.size(), kScanSize)),
              function.address, to, random(), tally);
      ASSERT_FALSE(HasFailure()) << file << ": " << system_dlls::Hex(function.code);
    }
  }
  EXPECT_GT(tally.compared, 500u);
  EXPECT_LT(tally.refused * 20, tally.compared);
}

}  // namespace
}  // namespace detours
