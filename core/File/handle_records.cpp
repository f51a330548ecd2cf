#include "File/handle_records.h"

#include <new>
#include <utility>

#include "File/scratch_path.h"

namespace VornCore {
namespace {

// The system ignores the two lowest bits of a handle.
std::uint64_t KeyOf(HANDLE handle) { return reinterpret_cast<std::uintptr_t>(handle) >> 2; }
std::uint64_t HashOf(HANDLE handle) { return HashWord(KeyOf(handle)); }

}  // namespace

HandleRecordPtr MakeHandleRecord(const HandleFacts& facts, std::wstring_view path) noexcept {
  void* block = malloc(sizeof(FileHandleRecord) + (path.size() + 1) * sizeof(wchar_t));
  if (!block) return nullptr;
  auto* record = new (block) FileHandleRecord{{}, {}, facts, {}};
  record->path = TerminatedCopy(reinterpret_cast<wchar_t*>(record + 1), path);
  return HandleRecordPtr(record);
}

HandleRecords::~HandleRecords() {
  platform::LockGuard guard(lock_);
  for (ListNode *node = FirstNode(list_), *next; node; node = next) {
    next = NextNode(node);
    free(static_cast<FileHandleRecord*>(node));
  }
}

void HandleRecords::Add(HandleRecordPtr record) noexcept {
  if (!record) return;
  platform::LockGuard guard(lock_);
  index_.Insert(record.get(), HashOf(record->handle));
  Append(list_, record.release());
}

void HandleRecords::AddNew(HandleRecordPtr record) noexcept {
  if (!record) return;
  while (Take(record->handle)) continue;
  Add(std::move(record));
}

HandleRecordPtr HandleRecords::Find(HANDLE handle) noexcept {
  platform::LockGuard guard(lock_);
  const FileHandleRecord* record = Lookup(handle);
  return record ? MakeHandleRecord(*record, record->path) : nullptr;
}

HandleRecordPtr HandleRecords::Take(HANDLE handle) noexcept {
  platform::LockGuard guard(lock_);
  FileHandleRecord* record = Lookup(handle);
  if (!record) return nullptr;
  Remove(list_, record);
  index_.Remove(record);
  return HandleRecordPtr(record);
}

bool HandleRecords::Has(HANDLE handle) noexcept {
  platform::LockGuard guard(lock_);
  return Lookup(handle) != nullptr;
}

void HandleRecords::SetDeleteDisposition(HANDLE handle, bool remove, bool on_close) noexcept {
  platform::LockGuard guard(lock_);
  FileHandleRecord* record = Lookup(handle);
  if (!record || !(record->desired_access & DELETE)) return;
  if (remove)
    record->delete_flags |= kDeleteDisposition;
  else
    record->delete_flags &= ~kDeleteDisposition;
  if (on_close) record->delete_flags &= ~kDeleteOnClose;
}

void HandleRecords::SetKept(HANDLE handle, std::uint32_t kept, bool called_off) noexcept {
  platform::LockGuard guard(lock_);
  FileHandleRecord* record = Lookup(handle);
  if (!record) return;
  record->kept = kept;
  record->kept_called_off = called_off;
}

std::int32_t HandleRecords::count() noexcept {
  platform::LockGuard guard(lock_);
  return list_.count;
}

FileHandleRecord* HandleRecords::Lookup(HANDLE handle) const noexcept {
  return index_.Find(HashOf(handle),
                     [&](const FileHandleRecord& record) { return KeyOf(record.handle) == KeyOf(handle); });
}

}  // namespace VornCore
