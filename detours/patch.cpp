#include "detours/patch.h"

#include <cstring>

namespace detours {
namespace {

constexpr std::uintptr_t kPageSize = 4096;
constexpr std::uintptr_t kWord = 8;        // what processors write and fetch as a whole, when aligned
constexpr std::uintptr_t kCacheLine = 64;  // within which a locked write is one

bool LieIn(const std::uint8_t* target, std::size_t count, std::uintptr_t unit) noexcept {
  const auto address = reinterpret_cast<std::uintptr_t>(target);
  return address / unit == (address + count - 1) / unit;
}

// Exchanges count bytes in one locked write of the eight bytes around them. They lie in one cache line.
void ReplaceAtOnce(std::uint8_t* target, const std::uint8_t* bytes, std::size_t count) noexcept {
  const auto address = reinterpret_cast<std::uintptr_t>(target);
  std::uintptr_t window = address & ~(kWord - 1);
  if (!LieIn(target, count, kWord)) window += kWord / 2;
  auto* word = reinterpret_cast<volatile LONG64*>(window);
  LONG64 old = 0;
  LONG64 changed = 0;
  do {
    memcpy(&old, reinterpret_cast<const void*>(window), sizeof(old));
    changed = old;
    memcpy(reinterpret_cast<std::uint8_t*>(&changed) + (address - window), bytes, count);
  } while (InterlockedCompareExchange64(word, changed, old) != old);
}

// Until no processor works on instruction bytes that it fetched before. The call interrupts every processor
// that runs a thread of the process; the pause outlasts a pipeline where the system does not implement it.
void Settle() noexcept {
  constexpr int kPauses = 500;
  FlushProcessWriteBuffers();
  for (int i = 0; i < kPauses; ++i) YieldProcessor();
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
  if (LieIn(target, kJumpSize, kWord)) {
    ReplaceAtOnce(target, bytes.data(), kJumpSize);
  } else if (LieIn(target, kHead, kCacheLine)) {
    ReplaceAtOnce(target, kJumpToItself, kHead);
    Settle();
    memcpy(target + kHead, bytes.data() + kHead, kJumpSize - kHead);
    Settle();
    ReplaceAtOnce(target, bytes.data(), kHead);
  } else {  // an entry at the last byte of a cache line: no single write covers even two bytes
    memcpy(target, bytes.data(), kJumpSize);
  }
  FlushInstructionCache(GetCurrentProcess(), target, kJumpSize);
}

}  // namespace detours
