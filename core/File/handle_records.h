// What the library remembers of the file handles that were opened under a decision.
//
//   shards_ ► index by handle ► record ⇄ record    in the order in which they were added
//   counts_ ► how many records a few handles have  a handle that has none takes no lock
//
// A record is one heap block: the structure with the path's text behind it. The model hands out copies or
// takes records out; nobody else holds a pointer into an index.
//
// Any thread. Garbage collectors and debuggers suspend threads wherever they are, and close handles then: so
// no lock is held across a system call, a close without a record takes none, one with a record takes only
// that of its shard, and gives its block back without the heap.
#pragma once

#include <array>
#include <atomic>
#include <cstdint>
#include <memory>
#include <string_view>

#include "Platform/heap.h"
#include "Platform/lock.h"
#include "Policy/file_decision.h"
#include "VornCore/Base/hash_index.h"
#include "windows/nt.h"

namespace VornCore {

using vorn::policy::FileACL;
using vorn::policy::FileVerdict;

inline constexpr std::uint32_t kDeleteOnClose = 1;      // the open asked for it
inline constexpr std::uint32_t kDeleteDisposition = 2;  // set later on the handle

struct HandleFacts {
  HANDLE handle = nullptr;
  std::uint32_t delete_flags = 0;  // kept only with DELETE access
  FileVerdict file = {};           // the decision at open
  FileVerdict named = {};          // before the file's other names lowered it
  ACCESS_MASK desired_access = 0;  // asked of the system at open
  std::uint32_t kept = 0;          // the file is deleted with this handle, and kept under this number
  bool kept_called_off = false;    // the deletion was
  bool at_final_path = false;      // the path leads through no link
};

struct ByHandle;
struct FileHandleRecord : HashNode<ByHandle>, HandleFacts {
  std::wstring_view path;  // canonical, terminated
};

using HandleRecordPtr = platform::HeapPtr<FileHandleRecord>;

// A record that is in no list; null when memory is short.
HandleRecordPtr MakeHandleRecord(const HandleFacts& facts, std::wstring_view path) noexcept;
// Frees record when the next one is made: without the heap, whose lock a suspended thread may hold.
void Retire(HandleRecordPtr record) noexcept;

class HandleRecords {
 public:
  HandleRecords() = default;
  ~HandleRecords();
  HandleRecords(const HandleRecords&) = delete;
  HandleRecords& operator=(const HandleRecords&) = delete;

  // Appends record; nothing for null.
  void Add(HandleRecordPtr record) noexcept;
  // The same for a handle that has just been made: what is known of an older one of that value, which was
  // closed without passing here, is forgotten.
  void AddNew(HandleRecordPtr record) noexcept;
  // The oldest record of handle: a copy, or the record itself, taken out. Null when there is none.
  HandleRecordPtr Find(HANDLE handle) noexcept;
  HandleRecordPtr Take(HANDLE handle) noexcept;
  bool Has(HANDLE handle) noexcept;
  // Whether handle is open on a file that may only be read, without this right.
  bool ReadsWithout(ACCESS_MASK right, HANDLE handle) noexcept;
  // Only for a handle with DELETE access: remembers or forgets a later request to delete; on_close also
  // forgets the one made at open.
  void SetDeleteDisposition(HANDLE handle, bool remove, bool on_close) noexcept;

  // Notes that the file is kept under this number, or that its deletion was called off.
  void SetKept(HANDLE handle, std::uint32_t kept, bool called_off = false) noexcept;

  std::int32_t count() noexcept;

 private:
  static constexpr std::size_t kShards = 16, kCounts = 1024;
  struct Shard {
    platform::CriticalSection lock;
    HashIndex<FileHandleRecord, ByHandle> index;

    FileHandleRecord* Lookup(HANDLE handle) const noexcept;
  };

  Shard& ShardOf(HANDLE handle) noexcept;
  std::atomic<std::uint32_t>& CountOf(HANDLE handle) noexcept;
  // What use makes of the oldest record of handle, under its lock; what it makes of null when there is none.
  template <class Use>
  auto With(HANDLE handle, Use&& use) noexcept;

  std::array<Shard, kShards> shards_;
  std::array<std::atomic<std::uint32_t>, kCounts> counts_ = {};
};

}  // namespace VornCore
