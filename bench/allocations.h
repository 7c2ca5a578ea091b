// Counts what this process allocates, by new, malloc or in a library: linking the source file puts
// a counter in front of the C library's allocator.
#pragma once
#include <cstdint>

namespace bench {

// By all threads, since the process began.
std::uint64_t Allocations();

}  // namespace bench
