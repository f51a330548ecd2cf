#include "detours/patch.h"

#include <cstring>

namespace detours {
namespace {

constexpr std::uintptr_t kPageSize = 4096;
constexpr std::uintptr_t kCacheLine = 64;
constexpr std::uintptr_t kWord = 8;

// Exchanges count bytes at target inside one locked write of eight bytes. False when no eight bytes around
// them lie in one cache line, within which processors write and fetch as a whole.
bool ReplaceAtOnce(std::uint8_t* target, const std::uint8_t* bytes, std::size_t count) noexcept {
  const auto address = reinterpret_cast<std::uintptr_t>(target);
  const std::uintptr_t line = address & ~(kCacheLine - 1);
  if (address + count > line + kCacheLine) return false;
  std::uintptr_t window = address & ~(kWord - 1);
  if (address + count > window + kWord) window = address;
  if (window + kWord > line + kCacheLine) window = line + kCacheLine - kWord;

  auto* word = reinterpret_cast<volatile LONG64*>(window);
  LONG64 old = 0;
  LONG64 changed = 0;
  do {
    memcpy(&old, reinterpret_cast<const void*>(window), sizeof(old));
    changed = old;
    memcpy(reinterpret_cast<std::uint8_t*>(&changed) + (address - window), bytes, count);
  } while (InterlockedCompareExchange64(word, changed, old) != old);
  return true;
}

}  // namespace

bool CodeUnlock::Open(std::uint8_t* target) noexcept {
  const auto first = reinterpret_cast<std::uintptr_t>(target) & ~(kPageSize - 1);
  const auto last = (reinterpret_cast<std::uintptr_t>(target) + kJumpSize - 1) & ~(kPageSize - 1);
  for (std::uintptr_t page = first; page <= last; page += kPageSize) {
    DWORD old = 0;
    if (!VirtualProtect(reinterpret_cast<void*>(page), kPageSize, PAGE_EXECUTE_READWRITE, &old)) {
      const DWORD error = GetLastError();
      Close();
      SetLastError(error);
      return false;
    }
    pages_[count_++] = {reinterpret_cast<void*>(page), old};
  }
  return true;
}

void CodeUnlock::Close() noexcept {
  while (count_ != 0) {
    const Page& page = pages_[--count_];
    DWORD old = 0;
    VirtualProtect(page.address, kPageSize, page.protection, &old);
  }
}

void ReplaceCode(std::uint8_t* target, const JumpBytes& bytes) noexcept {
  constexpr std::size_t kHead = 2;
  constexpr std::uint8_t kJumpToItself[kHead] = {0xEB, 0xFE};
  if (!ReplaceAtOnce(target, bytes.data(), kJumpSize)) {
    if (ReplaceAtOnce(target, kJumpToItself, kHead)) {
      memcpy(target + kHead, bytes.data() + kHead, kJumpSize - kHead);
      (void)ReplaceAtOnce(target, bytes.data(), kHead);
    } else {  // one byte before the end of a cache line: no single write covers even two bytes
      memcpy(target, bytes.data(), kJumpSize);
    }
  }
  FlushInstructionCache(GetCurrentProcess(), target, kJumpSize);
}

}  // namespace detours
