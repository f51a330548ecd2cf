// Writing over code that other threads may be executing.
#pragma once

#include <windows.h>

#include <array>
#include <cstdint>

#include "detours/trampoline.h"

namespace detours {

// Makes the pages under the first bytes of a function writable as well as executable, and gives them their
// old protection back. Guards over the same page are closed in the reverse order.
class CodeUnlock {
 public:
  // False (with GetLastError) when a page stays locked; nothing is changed then.
  [[nodiscard]] bool Open(std::uint8_t* target) noexcept;
  void Close() noexcept;

 private:
  struct Page {
    void* address;
    DWORD protection;
  };
  std::array<Page, 2> pages_{};
  std::size_t count_ = 0;
};

// Replaces the first bytes of a function so that a thread that enters meets the old or the new ones, never a
// mix. Where they do not lie in one word that processors write and fetch as a whole, entering threads are
// held at the entry by a jump to itself while the rest is exchanged.
void ReplaceCode(std::uint8_t* target, const JumpBytes& bytes) noexcept;

}  // namespace detours
