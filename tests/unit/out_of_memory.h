// Makes a thread run out of memory. While one of these exists, its thread's allocations of at least
// `smallest` bytes, and at most `largest`, fail from the n-th on, or the n-th alone. Other threads
// and malloc are not affected.
#pragma once
#include <cstddef>
#include <cstdint>

namespace test {

class OutOfMemory {
 public:
  // More than the simulated platform ever allocates for itself, in locks and waits of the product
  // that must not fail.
  static constexpr std::size_t kOfTheProduct = 128;

  explicit OutOfMemory(int nth = 1, std::size_t smallest = 1, std::size_t largest = SIZE_MAX,
                       bool once = false);
  ~OutOfMemory();
  OutOfMemory(const OutOfMemory&) = delete;
  OutOfMemory& operator=(const OutOfMemory&) = delete;

  // Whether some allocation has failed for the latest one.
  static bool WasFelt();
};

// How many allocations of this thread have not been freed, minus those of other threads that it has
// freed.
long AllocationsAlive();

// From now on these are called for each block, with the address that operator new returns to. Any
// thread calls them.
void WatchAllocations(void (*allocated)(void* memory, void* caller) noexcept,
                      void (*freed)(void* memory) noexcept);

}  // namespace test
