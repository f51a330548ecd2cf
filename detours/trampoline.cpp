#include "detours/trampoline.h"

#include <windows.h>

#include <algorithm>

namespace detours {
namespace {

constexpr std::size_t kRegionSize = 0x10000;  // the granularity of address space
constexpr std::size_t kPageSize = 4096;
constexpr std::size_t kCodePages = 14;
constexpr std::size_t kTrampolineSize = 64;
constexpr std::size_t kPerPage = kPageSize / kTrampolineSize;
constexpr std::size_t kPerRegion = kCodePages * kPerPage;
constexpr std::size_t kSlotsOffset = kCodePages * kPageSize;
static_assert(kSlotsOffset + kPerRegion * sizeof(void*) <= kRegionSize);
static_assert(kMaxRelocatedSize + kRelaySize <= kTrampolineSize);

// How far apart rel32 may stand, less room for the operands' own sizes.
constexpr std::uint64_t kReach = 0x7FFF0000;

std::uint64_t AddressOf(const void* p) noexcept { return reinterpret_cast<std::uintptr_t>(p); }

std::uint8_t* TryReserve(std::uint64_t base) noexcept {
  return static_cast<std::uint8_t*>(
      VirtualAlloc(reinterpret_cast<void*>(base), kRegionSize, MEM_RESERVE | MEM_COMMIT, PAGE_READWRITE));
}

// The free place nearest below `from` and not below low.
std::uint8_t* ReserveBelow(std::uint64_t from, std::uint64_t low) noexcept {
  std::uint64_t base = (from & ~(kRegionSize - 1));
  while (base >= low + kRegionSize) {
    base -= kRegionSize;
    MEMORY_BASIC_INFORMATION info;
    if (!VirtualQuery(reinterpret_cast<void*>(base), &info, sizeof(info))) return nullptr;
    if (info.State != MEM_FREE) {
      base = AddressOf(info.AllocationBase) & ~(kRegionSize - 1);
    } else if (AddressOf(info.BaseAddress) + info.RegionSize >= base + kRegionSize) {
      if (auto* region = TryReserve(base)) return region;
    }
  }
  return nullptr;
}

// The free place nearest above `from` that ends below high.
std::uint8_t* ReserveAbove(std::uint64_t from, std::uint64_t high) noexcept {
  std::uint64_t base = (from + kRegionSize - 1) & ~(kRegionSize - 1);
  while (base + kRegionSize <= high) {
    MEMORY_BASIC_INFORMATION info;
    if (!VirtualQuery(reinterpret_cast<void*>(base), &info, sizeof(info))) return nullptr;
    const std::uint64_t end = AddressOf(info.BaseAddress) + info.RegionSize;
    if (info.State == MEM_FREE && end >= base + kRegionSize) {
      if (auto* region = TryReserve(base)) return region;
      base += kRegionSize;
    } else {
      base = (std::max(end, base + 1) + kRegionSize - 1) & ~(kRegionSize - 1);
    }
  }
  return nullptr;
}

std::uint8_t* Reserve(std::uint64_t lowest, std::uint64_t highest) noexcept {
  if constexpr (kNativeMode == Mode::kX86) return TryReserve(0);  // rel32 reaches everything
  SYSTEM_INFO system;
  GetSystemInfo(&system);
  const std::uint64_t first = AddressOf(system.lpMinimumApplicationAddress);
  const std::uint64_t last = AddressOf(system.lpMaximumApplicationAddress);
  const std::uint64_t low = std::max(first, highest > kReach ? highest - kReach : 0);
  const std::uint64_t high = std::min(last, lowest + kReach);
  if (auto* region = ReserveBelow(lowest, low)) return region;
  return ReserveAbove(highest, high);
}

}  // namespace

class TrampolineRegion {
 public:
  TrampolineRegion* next = nullptr;

  // In zeroed memory of its own.
  void Init(std::uint8_t* base) noexcept { base_ = base; }

  [[nodiscard]] bool Reaches(std::uint64_t lowest, std::uint64_t highest) const noexcept {
    if constexpr (kNativeMode == Mode::kX86) return true;
    const std::uint64_t begin = AddressOf(base_);
    return begin + kReach >= highest && begin + kRegionSize <= lowest + kReach;
  }

  Trampoline* Allocate() noexcept {
    if (used_ == kPerRegion || sealed_pages_ != 0) return nullptr;
    Trampoline& record = records_[used_];
    record = {};
    record.code = base_ + used_ * kTrampolineSize;
    record.slot = reinterpret_cast<void**>(base_ + kSlotsOffset) + used_;
    record.state = TrampolineState::kPending;
    ++used_;
    return &record;
  }

  bool Owns(const Trampoline& record) const noexcept {
    return &record >= records_ && &record < records_ + kPerRegion;
  }

  bool OpenSlots() noexcept {
    if (slots_open_) return true;
    slots_open_ = ProtectSlots(PAGE_READWRITE);
    return slots_open_;
  }

  // Code written since the last transaction becomes executable.
  bool Seal() noexcept {
    const std::size_t pages = PagesInUse();
    if (pages != 0 && !ProtectCode(pages, PAGE_EXECUTE_READ)) return false;
    sealed_pages_ = pages;
    if (pages != 0)
      FlushInstructionCache(GetCurrentProcess(), base_ + kept_ * kTrampolineSize, pages * kPageSize);
    CloseSlots();
    return true;
  }

  void Unseal() noexcept {
    if (sealed_pages_ != 0 && ProtectCode(sealed_pages_, PAGE_READWRITE)) sealed_pages_ = 0;
  }

  void Drop() noexcept {
    Unseal();
    CloseSlots();
    if (sealed_pages_ == 0) used_ = kept_;
    Keep();
  }

  // Pages that were sealed are full for good; what nobody attached in the end is retired.
  void Keep() noexcept {
    for (Trampoline& record : Records()) {
      if (record.state == TrampolineState::kPending) record.state = TrampolineState::kRetired;
    }
    kept_ += sealed_pages_ * kPerPage;
    used_ = kept_;
    sealed_pages_ = 0;
  }

  [[nodiscard]] std::span<Trampoline> Records() noexcept { return {records_, used_}; }

 private:
  [[nodiscard]] std::size_t PagesInUse() const noexcept { return (used_ - kept_ + kPerPage - 1) / kPerPage; }

  bool ProtectCode(std::size_t pages, DWORD protection) noexcept {
    DWORD old = 0;
    return VirtualProtect(base_ + kept_ * kTrampolineSize, pages * kPageSize, protection, &old) != FALSE;
  }

  bool ProtectSlots(DWORD protection) noexcept {
    DWORD old = 0;
    return VirtualProtect(base_ + kSlotsOffset, kRegionSize - kSlotsOffset, protection, &old) != FALSE;
  }

  void CloseSlots() noexcept {
    if (slots_open_ && ProtectSlots(PAGE_READONLY)) slots_open_ = false;
  }

  std::uint8_t* base_ = nullptr;
  std::size_t kept_ = 0;          // trampolines of earlier transactions, whole pages
  std::size_t used_ = 0;          // and of this one
  std::size_t sealed_pages_ = 0;  // pages of this transaction that are executable already
  bool slots_open_ = true;
  Trampoline records_[kPerRegion];
};

TrampolineRegion* TrampolinePool::NewRegion(std::uint64_t lowest, std::uint64_t highest) noexcept {
  auto* region = static_cast<TrampolineRegion*>(
      VirtualAlloc(nullptr, sizeof(TrampolineRegion), MEM_RESERVE | MEM_COMMIT, PAGE_READWRITE));
  if (!region) return nullptr;
  auto* base = Reserve(lowest, highest);
  if (!base) {
    VirtualFree(region, 0, MEM_RELEASE);
    return nullptr;
  }
  region->Init(base);
  region->next = regions_;
  return regions_ = region;
}

Trampoline* TrampolinePool::Allocate(std::uint64_t lowest, std::uint64_t highest) noexcept {
  for (auto* region = regions_; region; region = region->next) {
    if (!region->Reaches(lowest, highest)) continue;
    if (auto* trampoline = region->Allocate()) return trampoline;
  }
  auto* region = NewRegion(lowest, highest);
  return region ? region->Allocate() : nullptr;
}

bool TrampolinePool::SetSlot(Trampoline& trampoline, void* destination) noexcept {
  for (auto* region = regions_; region; region = region->next) {
    if (!region->Owns(trampoline)) continue;
    if (!region->OpenSlots()) return false;
    *static_cast<void* volatile*>(trampoline.slot) = destination;
    return true;
  }
  return false;
}

template <class Match>
Trampoline* TrampolinePool::Find(Match match) noexcept {
  for (auto* region = regions_; region; region = region->next) {
    for (Trampoline& record : region->Records()) {
      if (match(record)) return &record;
    }
  }
  return nullptr;
}

Trampoline* TrampolinePool::FindByCode(const void* code) noexcept {
  return Find([=](const Trampoline& t) { return t.code == code && t.state == TrampolineState::kAttached; });
}

Trampoline* TrampolinePool::FindRetired(const std::uint8_t* target,
                                        std::span<const std::uint8_t> original) noexcept {
  return Find([=](const Trampoline& t) {
    return t.state == TrampolineState::kRetired && t.target == target &&
           std::ranges::equal(t.Original(), original);
  });
}

Trampoline* TrampolinePool::FindAttached(const std::uint8_t* target) noexcept {
  return Find(
      [=](const Trampoline& t) { return t.state == TrampolineState::kAttached && t.target == target; });
}

bool TrampolinePool::Seal() noexcept {
  for (auto* region = regions_; region; region = region->next) {
    if (region->Seal()) continue;
    for (auto* sealed = regions_; sealed != region; sealed = sealed->next) sealed->Unseal();
    return false;
  }
  return true;
}

void TrampolinePool::Drop(bool keep) noexcept {
  for (auto* region = regions_; region; region = region->next) keep ? region->Keep() : region->Drop();
}

void TrampolinePool::Keep() noexcept {
  for (auto* region = regions_; region; region = region->next) region->Keep();
}

}  // namespace detours
