// What it costs to allocate and to free the blocks of a stream's buffer. A connection of little
// traffic takes one for each direction and touches a page or two of it. The library's buffer is
// compared with two blocks of the same size from the heap: one that is not cleared, and one that
// the heap's own call clears, which has to write zeros if the block was used before.
//
//   build/posix/bench/block_bench
//
// The argument is how many bytes of a block are written.
#include <benchmark/benchmark.h>

#include <cstdlib>
#include <cstring>

#include "stream/block_buffer.h"

namespace moru_vyr::lsp {
namespace {

constexpr u32 kPage = 4096;

// A heap that has handed out blocks of this size before: it keeps what is freed and reuses it.
void AgeTheHeap() {
  void* blocks[8];
  for (void*& block : blocks) std::memset(block = std::malloc(BlockBuffer::kBlockSize), 1, kPage);
  for (void* const block : blocks) std::free(block);
}

void Touch(u8* bytes, u32 size) {
  for (u32 at = 0; at < size; at += kPage) bytes[at] = 1;
}

void Buffer(benchmark::State& state) {
  AgeTheHeap();
  const u32 size = static_cast<u32>(state.range(0));
  for (auto _ : state) {
    BlockBuffer buffer;
    u8* place = nullptr;
    if (!buffer.Reserve(&place, size)) return state.SkipWithError("no memory");
    Touch(place, size);
    buffer.Commit(size);
    buffer.Clear();
  }
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

BENCHMARK(Buffer)->Arg(8192)->Arg(65536)->Arg(BlockBuffer::kBlockSize);
BENCHMARK(HeapCleared)->Arg(8192)->Arg(65536)->Arg(BlockBuffer::kBlockSize);
BENCHMARK(HeapUncleared)->Arg(8192)->Arg(65536)->Arg(BlockBuffer::kBlockSize);

}  // namespace
}  // namespace moru_vyr::lsp
