#include "detours/code/jump_chain.h"

#include <algorithm>
#include <array>

namespace detours {
namespace {

struct Filler {
  std::array<std::uint8_t, 8> bytes;
  std::uint8_t size;
  bool x64;
  bool x86;
};

// clang-format off
constexpr std::array kFillers = {
    Filler{{0x90}, 1, true, true},                                              // nop
    Filler{{0x66, 0x90}, 2, true, true},                                        // xchg ax, ax
    Filler{{0x8B, 0xFF}, 2, false, true},                                       // mov edi, edi
    Filler{{0xF3, 0x0F, 0x1E, 0xFA}, 4, true, false},                           // endbr64
    Filler{{0xF3, 0x0F, 0x1E, 0xFB}, 4, false, true},                           // endbr32
    Filler{{0x48, 0x8D, 0xA4, 0x24, 0x00, 0x00, 0x00, 0x00}, 8, true, false},   // lea rsp, [rsp+0]
    Filler{{0x8D, 0xA4, 0x24, 0x00, 0x00, 0x00, 0x00}, 7, false, true},         // lea esp, [esp+0]
    Filler{{0x55, 0x8B, 0xEC, 0x5D}, 4, false, true},                           // push ebp; mov ebp, esp; pop ebp
    Filler{{0x55, 0x89, 0xE5, 0x5D}, 4, false, true},                           // the same from other compilers
};
// clang-format on

std::size_t FillerSize(std::span<const std::uint8_t> code, Mode mode) noexcept {
  for (const Filler& filler : kFillers) {
    if (!(mode == Mode::kX64 ? filler.x64 : filler.x86) || code.size() < filler.size) continue;
    if (std::equal(code.begin(), code.begin() + filler.size, filler.bytes.begin())) return filler.size;
  }
  return 0;
}

}  // namespace

std::optional<Link> LeadingJump(std::span<const std::uint8_t> code, std::uint64_t address,
                                Mode mode) noexcept {
  std::size_t at = 0;
  while (const std::size_t size = FillerSize(code.subspan(at), mode)) at += size;

  const auto decoded = Decode(code.subspan(at), mode);
  if (!decoded) return std::nullopt;
  const std::uint64_t end = Advance(address, static_cast<std::int64_t>(at) + decoded->length, mode);
  if (decoded->flow == Flow::kJump) return Link{Link::Kind::kDirect, Advance(end, decoded->distance, mode)};
  if (decoded->flow != Flow::kIndirectJump || decoded->address_size || decoded->segment) return std::nullopt;
  if (decoded->rip_relative) return Link{Link::Kind::kSlot, Advance(end, decoded->displacement, mode)};
  if (decoded->absolute) return Link{Link::Kind::kSlot, static_cast<std::uint32_t>(decoded->displacement)};
  return std::nullopt;
}

}  // namespace detours
