#include "tests/unit/out_of_memory.h"

#include <cstdlib>
#include <new>

namespace {

thread_local int left = 0;  // allocations that still succeed, and one more; 0: all do
thread_local std::size_t smallest_counted = 1;
thread_local std::size_t largest_counted = SIZE_MAX;
thread_local bool only_once = false;
thread_local bool felt = false;
thread_local long alive = 0;
void (*on_allocated)(void* memory, void* caller) noexcept = nullptr;
void (*on_freed)(void* memory) noexcept = nullptr;

void* Allocate(std::size_t size, void* caller) noexcept {
  if (left != 0 && size >= smallest_counted && size <= largest_counted) {
    if (left == 1) {
      felt = true;
      if (only_once) left = 0;
      return nullptr;
    }
    --left;
  }
  void* const memory = std::malloc(size != 0 ? size : 1);
  if (memory != nullptr) ++alive;
  if (memory != nullptr && on_allocated != nullptr) on_allocated(memory, caller);
  return memory;
}

void Free(void* memory) noexcept {
  if (memory != nullptr) --alive;
  if (memory != nullptr && on_freed != nullptr) on_freed(memory);
  std::free(memory);
}

void* AllocateOrThrow(std::size_t size, void* caller) {
  void* const memory = Allocate(size, caller);
  if (memory == nullptr) throw std::bad_alloc();
  return memory;
}

}  // namespace

void* operator new(std::size_t size) { return AllocateOrThrow(size, __builtin_return_address(0)); }
void* operator new[](std::size_t size) {
  return AllocateOrThrow(size, __builtin_return_address(0));
}
void* operator new(std::size_t size, const std::nothrow_t&) noexcept {
  return Allocate(size, __builtin_return_address(0));
}
void* operator new[](std::size_t size, const std::nothrow_t&) noexcept {
  return Allocate(size, __builtin_return_address(0));
}
void operator delete(void* memory) noexcept { Free(memory); }
void operator delete[](void* memory) noexcept { Free(memory); }
void operator delete[](void* memory, std::size_t) noexcept { Free(memory); }
void operator delete[](void* memory, const std::nothrow_t&) noexcept { Free(memory); }
void operator delete(void* memory, std::size_t) noexcept { Free(memory); }
void operator delete(void* memory, const std::nothrow_t&) noexcept { Free(memory); }

namespace test {

OutOfMemory::OutOfMemory(int nth, std::size_t smallest, std::size_t largest, bool once) {
  felt = false;
  only_once = once;
  smallest_counted = smallest;
  largest_counted = largest;
  left = nth;
}
OutOfMemory::~OutOfMemory() { left = 0; }
bool OutOfMemory::WasFelt() { return felt; }

long AllocationsAlive() { return alive; }

void WatchAllocations(void (*allocated)(void* memory, void* caller) noexcept,
                      void (*freed)(void* memory) noexcept) {
  on_freed = freed;
  on_allocated = allocated;
}

}  // namespace test
