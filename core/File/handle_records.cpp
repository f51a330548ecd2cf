#include "File/handle_records.h"

#include <new>
#include <utility>

#include "File/scratch_path.h"

namespace VornCore {
namespace {

// The system ignores the two lowest bits of a handle.
std::uint64_t KeyOf(HANDLE handle) { return reinterpret_cast<std::uintptr_t>(handle) >> 2; }
std::uint64_t HashOf(HANDLE handle) { return HashWord(KeyOf(handle)); }

// Blocks that nobody needs, chained by their first words.
std::atomic<void*> retired;

void FreeRetired() {
  void* block = retired.load(std::memory_order_relaxed) ? retired.exchange(nullptr) : nullptr;
  while (block) {
    void* const next = *static_cast<void**>(block);
    free(block);
    block = next;
  }
}

}  // namespace

HandleRecordPtr MakeHandleRecord(const HandleFacts& facts, std::wstring_view path) noexcept {
  FreeRetired();
  void* block = malloc(sizeof(FileHandleRecord) + (path.size() + 1) * sizeof(wchar_t));
  if (!block) return nullptr;
  auto* record = new (block) FileHandleRecord{{}, facts, {}};
  record->path = TerminatedCopy(reinterpret_cast<wchar_t*>(record + 1), path);
  return HandleRecordPtr(record);
}

void Retire(HandleRecordPtr record) noexcept {
  if (!record) return;
  void* const block = record.release();
  void* next = retired.load(std::memory_order_relaxed);
  do {
    *static_cast<void**>(block) = next;
  } while (!retired.compare_exchange_weak(next, block));
}

FileHandleRecord* HandleRecords::Shard::Lookup(HANDLE handle) const noexcept {
  return index.Find(HashOf(handle),
                    [&](const FileHandleRecord& record) { return KeyOf(record.handle) == KeyOf(handle); });
}

HandleRecords::Shard& HandleRecords::ShardOf(HANDLE handle) noexcept {
  return shards_[KeyOf(handle) % kShards];
}

std::atomic<std::uint32_t>& HandleRecords::CountOf(HANDLE handle) noexcept {
  return counts_[KeyOf(handle) % kCounts];
}

template <class Use>
auto HandleRecords::With(HANDLE handle, Use&& use) noexcept {
  if (CountOf(handle) == 0) return use(static_cast<FileHandleRecord*>(nullptr));
  Shard& shard = ShardOf(handle);
  platform::LockGuard guard(shard.lock);
  return use(shard.Lookup(handle));
}

HandleRecords::~HandleRecords() {
  for (Shard& shard : shards_) shard.index.Drain([](FileHandleRecord* record) { free(record); });
}

void HandleRecords::Add(HandleRecordPtr record) noexcept {
  if (!record) return;
  HANDLE handle = record->handle;
  Shard& shard = ShardOf(handle);
  platform::LockGuard guard(shard.lock);
  shard.index.Insert(record.release(), HashOf(handle));
  ++CountOf(handle);
}

void HandleRecords::AddNew(HandleRecordPtr record) noexcept {
  if (!record) return;
  while (Take(record->handle)) continue;
  Add(std::move(record));
}

HandleRecordPtr HandleRecords::Find(HANDLE handle) noexcept {
  HandleRecordPtr copy;
  With(handle, [&](const FileHandleRecord* record) {
    if (record) copy = MakeHandleRecord(*record, record->path);
  });
  return copy;
}

HandleRecordPtr HandleRecords::Take(HANDLE handle) noexcept {
  return With(handle, [&](FileHandleRecord* record) {
    if (record) {
      ShardOf(handle).index.Remove(record);
      --CountOf(handle);
    }
    return HandleRecordPtr(record);
  });
}

bool HandleRecords::Has(HANDLE handle) noexcept {
  return With(handle, [](const FileHandleRecord* record) { return record != nullptr; });
}

bool HandleRecords::ReadsWithout(ACCESS_MASK right, HANDLE handle) noexcept {
  return With(handle, [right](const FileHandleRecord* record) {
    return record && record->file.access == FileACL::kRead && !(record->desired_access & right);
  });
}

void HandleRecords::SetDeleteDisposition(HANDLE handle, bool remove, bool on_close) noexcept {
  With(handle, [&](FileHandleRecord* record) {
    if (!record || !(record->desired_access & DELETE)) return;
    if (remove)
      record->delete_flags |= kDeleteDisposition;
    else
      record->delete_flags &= ~kDeleteDisposition;
    if (on_close) record->delete_flags &= ~kDeleteOnClose;
  });
}

void HandleRecords::SetKept(HANDLE handle, std::uint32_t kept, bool called_off) noexcept {
  With(handle, [&](FileHandleRecord* record) {
    if (!record) return;
    record->kept = kept;
    record->kept_called_off = called_off;
  });
}

std::int32_t HandleRecords::count() noexcept {
  std::size_t count = 0;
  for (Shard& shard : shards_) {
    platform::LockGuard guard(shard.lock);
    count += shard.index.size();
  }
  return static_cast<std::int32_t>(count);
}

}  // namespace VornCore
