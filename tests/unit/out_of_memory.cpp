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

void* Allocate(std::size_t size) noexcept {
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
  return memory;
}

void Free(void* memory) noexcept {
  if (memory != nullptr) --alive;
  std::free(memory);
}

}  // namespace

void* operator new(std::size_t size) {
  void* const memory = Allocate(size);
  if (memory == nullptr) throw std::bad_alloc();
  return memory;
}
void* operator new(std::size_t size, const std::nothrow_t&) noexcept { return Allocate(size); }
void* operator new[](std::size_t size) { return operator new(size); }
void* operator new[](std::size_t size, const std::nothrow_t&) noexcept { return Allocate(size); }
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

}  // namespace test
