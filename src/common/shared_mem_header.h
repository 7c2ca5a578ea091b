// The twelve bytes that every record in shared memory begins with. Both sides check them, so that a
// client of another version appears to have written nothing.
#pragma once
#include <cstddef>

#include "common/types.h"

namespace common {

inline constexpr u32 kSharedMemMajorVersion = 1;
inline constexpr u32 kSharedMemMinorVersion = 36;

#pragma pack(push, 1)
struct SharedMemHeader {
  u32 shared_mem_size = 0;  // of the whole record, this header included
  u32 major_ver = 0;
  u32 minor_ver = 0;
};
#pragma pack(pop)
static_assert(sizeof(SharedMemHeader) == 12);
static_assert(offsetof(SharedMemHeader, shared_mem_size) == 0);
static_assert(offsetof(SharedMemHeader, major_ver) == 4);
static_assert(offsetof(SharedMemHeader, minor_ver) == 8);

}  // namespace common
