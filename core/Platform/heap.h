// Owners of heap blocks. The library's malloc and free work on the process heap.
#pragma once

#include <cstdlib>
#include <memory>

namespace VornCore::platform {

struct HeapFree {
  void operator()(void* p) const noexcept { free(p); }
};

// A block that operations documented as "new heap block, the caller frees" return.
template <class T>
using HeapPtr = std::unique_ptr<T, HeapFree>;
using HeapString = HeapPtr<wchar_t>;
using HeapText = HeapPtr<char>;

}  // namespace VornCore::platform
