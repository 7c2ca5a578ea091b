// A view of a mapping that another process may have made.
#pragma once
#include <windows.h>

#include "common/types.h"

namespace common {

// Maps the first `size` bytes; null if that fails. Guard: null also if any of them has no memory
// behind it. A mapping may be made of mere addresses, and the first look at one would end the
// process that looks. What is there cannot be taken away later.
u8* MapMemory(HANDLE mapping, DWORD access, u32 size) noexcept;

}  // namespace common
