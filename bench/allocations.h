// Counts the allocations of this process: those by new, by malloc and inside libraries. Linking the
// source file puts a counter in front of the C library's allocator.
#pragma once
#include <cstdint>

namespace bench {

// The number of allocations by all threads since the process began.
std::uint64_t Allocations();

}  // namespace bench
