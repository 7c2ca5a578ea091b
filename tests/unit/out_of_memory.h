// A thread without memory. While one of these lives, its thread's allocations of at least
// `smallest` bytes fail from the n-th on; other threads are not affected, and neither is malloc.
#pragma once
#include <cstddef>

namespace test {

class OutOfMemory {
 public:
  // More than the simulated platform ever allocates for itself, in locks and waits of the product
  // that must not fail.
  static constexpr std::size_t kOfTheProduct = 128;

  explicit OutOfMemory(int nth = 1, std::size_t smallest = 1);
  ~OutOfMemory();
  OutOfMemory(const OutOfMemory&) = delete;
  OutOfMemory& operator=(const OutOfMemory&) = delete;

  // Whether some allocation has failed for the latest one.
  static bool WasFelt();
};

// How many allocations of this thread's are still there, less those of others that it has freed.
long AllocationsAlive();

}  // namespace test
