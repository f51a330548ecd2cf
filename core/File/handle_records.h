// What the library remembers of the file handles that were opened under a decision.
//
//   list_   ► record ⇄ record ⇄ record      in the order in which they were added
//   index_  ► by handle                      so that closing one of many costs no walk
//
// A record is one heap block: the structure with the path's text behind it. The model hands out copies or
// takes records out; nobody else holds a pointer into the list. Any thread; one lock.
#pragma once

#include <cstdint>
#include <memory>
#include <string_view>

#include "Platform/heap.h"
#include "Platform/lock.h"
#include "Policy/file_decision.h"
#include "VornCore/Base/hash_index.h"
#include "VornCore/Base/list.h"
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
struct FileHandleRecord : ListNode, HashNode<ByHandle>, HandleFacts {
  std::wstring_view path;  // canonical, terminated
};

using HandleRecordPtr = platform::HeapPtr<FileHandleRecord>;

// A record that is in no list; null when memory is short.
HandleRecordPtr MakeHandleRecord(const HandleFacts& facts, std::wstring_view path) noexcept;

class HandleRecords {
 public:
  HandleRecords() = default;
  ~HandleRecords();

  // Appends record; nothing for null.
  void Add(HandleRecordPtr record) noexcept;
  // The same for a handle that has just been made: what is known of an older one of that value, which was
  // closed without passing here, is forgotten.
  void AddNew(HandleRecordPtr record) noexcept;
  // The oldest record of handle: a copy, or the record itself, taken out. Null when there is none.
  HandleRecordPtr Find(HANDLE handle) noexcept;
  HandleRecordPtr Take(HANDLE handle) noexcept;
  bool Has(HANDLE handle) noexcept;
  // Only for a handle with DELETE access: remembers or forgets a later request to delete; on_close also
  // forgets the one made at open.
  void SetDeleteDisposition(HANDLE handle, bool remove, bool on_close) noexcept;

  // Notes that the file is kept under this number, or that its deletion was called off.
  void SetKept(HANDLE handle, std::uint32_t kept, bool called_off = false) noexcept;

  std::int32_t count() noexcept;

 private:
  FileHandleRecord* Lookup(HANDLE handle) const noexcept;

  platform::CriticalSection lock_;
  ListHead list_;
  HashIndex<FileHandleRecord, ByHandle> index_;
};

}  // namespace VornCore
