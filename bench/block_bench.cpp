// The cost of allocating and freeing the blocks of a stream's buffer. A connection with little
// traffic uses one for each direction, and a page or two of each. The library's buffer is compared
// with two blocks of the same size from the heap: one that is not cleared, and one from calloc,
// which has to write zeros if the block was used before.
//
//   build/posix/bench/block_bench
//
// The argument is the number of bytes of a block that are written.
#include <benchmark/benchmark.h>

#include <cstdlib>
#include <cstring>

#include "stream/block_buffer.h"

namespace moru_vyr::lsp {
namespace {

constexpr u32 kPage = 4096;

// Allocates and frees blocks of this size, which the heap then keeps and reuses.
void AgeTheHeap() {
  void* blocks[8];
  for (void*& block : blocks) std::memset(block = std::malloc(BlockBuffer::kBlockSize), 1, kPage);
  for (void* const block : blocks) std::free(block);
}

void Touch(u8* bytes, u32 size) {
  for (u32 at = 0; at < size; at += kPage) bytes[at] = 1;
}

void ServeOneConnection(BlockPool* pool, u32 size, benchmark::State* state) {
  BlockBuffer buffer(pool);
  u8* place = nullptr;
  if (!buffer.Reserve(&place, size)) return state->SkipWithError("no memory");
  Touch(place, size);
  buffer.Commit(size);
}

void Buffer(benchmark::State& state) {
  AgeTheHeap();
  for (auto _ : state) ServeOneConnection(nullptr, static_cast<u32>(state.range(0)), &state);
}

// As the relay has it: the blocks of one connection serve the next, if little of them was used.
void PooledBuffer(benchmark::State& state) {
  AgeTheHeap();
  BlockPool pool;
  for (auto _ : state) ServeOneConnection(&pool, static_cast<u32>(state.range(0)), &state);
}

void HeapCleared(benchmark::State& state) {
  AgeTheHeap();
  const u32 size = static_cast<u32>(state.range(0));
  for (auto _ : state) {
    u8* const bytes = static_cast<u8*>(std::calloc(BlockBuffer::kBlockSize, 1));
    benchmark::DoNotOptimize(bytes);
    Touch(bytes, size);
    benchmark::ClobberMemory();
    std::free(bytes);
  }
}

void HeapUncleared(benchmark::State& state) {
  AgeTheHeap();
  const u32 size = static_cast<u32>(state.range(0));
  for (auto _ : state) {
    u8* const bytes = static_cast<u8*>(std::malloc(BlockBuffer::kBlockSize));
    benchmark::DoNotOptimize(bytes);
    Touch(bytes, size);
    benchmark::ClobberMemory();
    std::free(bytes);
  }
}

BENCHMARK(Buffer)->Arg(100)->Arg(8192)->Arg(65536)->Arg(BlockBuffer::kBlockSize);
BENCHMARK(PooledBuffer)->Arg(100)->Arg(8192)->Arg(65536)->Arg(BlockBuffer::kBlockSize);
BENCHMARK(HeapCleared)->Arg(8192)->Arg(65536)->Arg(BlockBuffer::kBlockSize);
BENCHMARK(HeapUncleared)->Arg(8192)->Arg(65536)->Arg(BlockBuffer::kBlockSize);

}  // namespace
}  // namespace moru_vyr::lsp
