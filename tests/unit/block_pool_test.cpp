#include "stream/block_pool.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>

#include "stream/block_buffer.h"

#ifndef _WIN32
#include "port/shared/faults.h"
#include "port/shared/objects.h"
#endif

namespace moru_vyr::lsp {
namespace {

constexpr u32 kPoolBlock = BlockBuffer::kBlockSize;

// A connection that sends so many bytes, and ends.
u8* Serve(BlockPool* pool, u32 bytes) {
  BlockBuffer buffer(pool);
  u8* place = nullptr;
  EXPECT_TRUE(buffer.Reserve(&place, bytes));
  std::memset(place, 'x', bytes);
  EXPECT_TRUE(buffer.Commit(bytes));
  return place;
}

TEST(BlockPool, TheNextConnectionGetsTheBlockOfAnEndedOne) {
  BlockPool pool;
  u8* const first = Serve(&pool, 100);
  EXPECT_EQ(Serve(&pool, BlockPool::kLittleUsed), first);
  EXPECT_EQ(Serve(&pool, 1), first);
}

TEST(BlockPool, AKeptBlockShowsNothingOfTheConnectionBefore) {
  BlockPool pool;
  for (const u32 bytes : {BlockPool::kLittleUsed, 100u}) {
    u8* const block = Serve(&pool, bytes);
    std::list<BufferBlock> taken;
    pool.Take(kPoolBlock, &taken);
    ASSERT_EQ(taken.back().data.get(), block);
    EXPECT_EQ(std::count(block, block + kPoolBlock, u8{0}),
              static_cast<std::ptrdiff_t>(kPoolBlock));
    pool.Put(&taken);
  }
}

// What was drained and written again counts once: the most that was in the block.
TEST(BlockPool, CountsWhatWasWrittenAndNotWhatIsLeft) {
  BlockPool pool;
  u8* block = nullptr;
  {
    BlockBuffer buffer(&pool);
    for (int i = 0; i < 100; ++i) {
      u8* place = nullptr;
      ASSERT_TRUE(buffer.Reserve(&place, BlockPool::kLittleUsed));
      std::memset(place, 'x', BlockPool::kLittleUsed);
      ASSERT_TRUE(buffer.Commit(BlockPool::kLittleUsed));
      ASSERT_TRUE(buffer.Consume(BlockPool::kLittleUsed));
      block = place;
    }
  }
  std::list<BufferBlock> taken;
  pool.Take(kPoolBlock, &taken);
  EXPECT_EQ(taken.back().data.get(), block);
  EXPECT_EQ(std::count(block, block + kPoolBlock, u8{0}), static_cast<std::ptrdiff_t>(kPoolBlock));
}

#ifndef _WIN32
TEST(BlockPool, ABlockOfWhichMuchWasUsedGoesBackToTheSystem) {
  const size_t before = port::OpenAllocations();
  BlockPool pool;
  Serve(&pool, BlockPool::kLittleUsed + 1);
  EXPECT_EQ(port::OpenAllocations(), before);
  Serve(&pool, BlockPool::kLittleUsed);
  EXPECT_EQ(port::OpenAllocations(), before + 1);
}

TEST(BlockPool, KeepsSoManyBlocksAndNotOneMore) {
  const size_t before = port::OpenAllocations();
  {
    BlockPool pool;
    {
      std::list<BlockBuffer> buffers;
      for (size_t i = 0; i < BlockPool::kKeptBlocks + 5; ++i) {
        u8* place = nullptr;
        ASSERT_TRUE(buffers.emplace_back(&pool).Reserve(&place, 1));
      }
    }
    EXPECT_EQ(port::OpenAllocations(), before + BlockPool::kKeptBlocks);
  }
  EXPECT_EQ(port::OpenAllocations(), before);
}

TEST(BlockPool, WithoutMemoryKeptBlocksStillServe) {
  BlockPool pool;
  u8* const kept = Serve(&pool, 100);
  port::FailCall("VirtualAlloc", 0, ERROR_NOT_ENOUGH_MEMORY);
  EXPECT_EQ(Serve(&pool, 100), kept);
  BlockBuffer first(&pool);
  BlockBuffer second(&pool);
  u8* place = nullptr;
  EXPECT_TRUE(first.Reserve(&place, 1));
  EXPECT_FALSE(second.Reserve(&place, 1));
  port::ClearFaults();
}
#endif

}  // namespace
}  // namespace moru_vyr::lsp
