// The environment of a child process: it names the configuration section.
#pragma once

#include "windows/nt.h"

namespace VornCore {

// The block to create the child with. The given one when it names the section already (in any letter case;
// where rules hold their place, this process's section and no other), when this process's own environment
// does not name it, or when the block does not end within its size or cannot be read; otherwise a new heap
// block, which the caller frees, with its size in *size (bytes).
wchar_t* GetExtraEnvironment(wchar_t* block, SIZE_T* size) noexcept;

}  // namespace VornCore
