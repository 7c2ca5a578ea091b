#include "bench/allocations.h"

#include <atomic>
#include <cstddef>

// The C library's allocator, under the names that it exports for wrappers.
extern "C" {
void* __libc_malloc(std::size_t size) noexcept;
void* __libc_calloc(std::size_t count, std::size_t size) noexcept;
void* __libc_realloc(void* block, std::size_t size) noexcept;
void* __libc_memalign(std::size_t alignment, std::size_t size) noexcept;
}

namespace {

constinit std::atomic<std::uint64_t> allocations{0};

template <class Allocate>
void* Count(Allocate allocate) noexcept {
  allocations.fetch_add(1, std::memory_order_relaxed);
  return allocate();
}

}  // namespace

extern "C" {
void* malloc(std::size_t size) noexcept {
  return Count([=] { return __libc_malloc(size); });
}
void* calloc(std::size_t count, std::size_t size) noexcept {
  return Count([=] { return __libc_calloc(count, size); });
}
void* realloc(void* block, std::size_t size) noexcept {
  return Count([=] { return __libc_realloc(block, size); });
}
void* aligned_alloc(std::size_t alignment, std::size_t size) noexcept {
  return Count([=] { return __libc_memalign(alignment, size); });
}
}

namespace bench {

std::uint64_t Allocations() { return allocations.load(std::memory_order_relaxed); }

}  // namespace bench
