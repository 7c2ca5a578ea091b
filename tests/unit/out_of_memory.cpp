#include "tests/unit/out_of_memory.h"

#include <cstdlib>
#include <new>

#ifndef _WIN32
#include "port/shared/backend.h"
#endif

namespace {

struct State {
  int left = 0;  // allocations that still succeed, and one more; 0: all do
  std::size_t smallest_counted = 1;
  std::size_t largest_counted = SIZE_MAX;
  bool only_once = false;
  bool felt = false;
  long alive = 0;
};
constinit thread_local State state;
#ifndef _WIN32
[[maybe_unused]] const bool is_kept = (port::KeepForEachThread(&state, sizeof state), true);
#endif
void (*on_allocated)(void* memory, void* caller) noexcept = nullptr;
void (*on_freed)(void* memory) noexcept = nullptr;

void* Allocate(std::size_t size, void* caller) noexcept {
  if (state.left != 0 && size >= state.smallest_counted && size <= state.largest_counted) {
    if (state.left == 1) {
      state.felt = true;
      if (state.only_once) state.left = 0;
      return nullptr;
    }
    --state.left;
  }
  void* const memory = std::malloc(size != 0 ? size : 1);
  if (memory != nullptr) ++state.alive;
  if (memory != nullptr && on_allocated != nullptr) on_allocated(memory, caller);
  return memory;
}

void Free(void* memory) noexcept {
  if (memory != nullptr) --state.alive;
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
  state.felt = false;
  state.only_once = once;
  state.smallest_counted = smallest;
  state.largest_counted = largest;
  state.left = nth;
}
OutOfMemory::~OutOfMemory() { state.left = 0; }
bool OutOfMemory::WasFelt() { return state.felt; }

long AllocationsAlive() { return state.alive; }

void WatchAllocations(void (*allocated)(void* memory, void* caller) noexcept,
                      void (*freed)(void* memory) noexcept) {
  on_freed = freed;
  on_allocated = allocated;
}

}  // namespace test
