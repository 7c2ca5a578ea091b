#include "stream/block_buffer.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <deque>
#include <random>
#include <string>
#include <vector>

#ifndef _WIN32
#include "port/shared/faults.h"
#include "port/shared/objects.h"
#endif

namespace moru_vyr::lsp {
namespace {

constexpr u32 kBlock = BlockBuffer::kBlockSize;
constexpr u32 kRead = 8192;  // what a session asks for at a time

// As a session does it: a place, bytes into it, their count.
bool Write(BlockBuffer* buffer, const std::string& bytes) {
  u8* place = nullptr;
  const u32 size = static_cast<u32>(bytes.size());
  if (!buffer->Reserve(&place, size)) return false;
  std::memcpy(place, bytes.data(), size);
  return buffer->Commit(size);
}

std::string Front(BlockBuffer* buffer) {
  u8* bytes = nullptr;
  u32 size = 0;
  if (!buffer->Peek(&bytes, &size)) return "";
  return std::string(reinterpret_cast<const char*>(bytes), size);
}

void FillBlock(BlockBuffer* buffer) {
  for (u32 i = 0; i < kBlock / kRead; ++i) ASSERT_TRUE(Write(buffer, std::string(kRead, 'x')));
}

TEST(BlockBuffer, IsEmptyAtFirst) {
  BlockBuffer buffer;
  u8* bytes = nullptr;
  u32 size = 7;
  EXPECT_TRUE(buffer.IsEmpty());
  EXPECT_FALSE(buffer.Peek(&bytes, &size));
  EXPECT_EQ(size, 7u) << "untouched without a block";
  EXPECT_FALSE(buffer.Commit(0));
  EXPECT_FALSE(buffer.Consume(0));
  buffer.Clear();
  EXPECT_TRUE(buffer.IsEmpty());
}

TEST(BlockBuffer, BytesComeOutAsTheyWentIn) {
  BlockBuffer buffer;
  EXPECT_TRUE(Write(&buffer, "hello "));
  EXPECT_TRUE(Write(&buffer, "world"));
  EXPECT_EQ(Front(&buffer), "hello world");
  EXPECT_TRUE(buffer.Consume(6));
  EXPECT_EQ(Front(&buffer), "world");
  EXPECT_TRUE(buffer.Consume(5));
  EXPECT_TRUE(buffer.IsEmpty());
}

TEST(BlockBuffer, AReservationWithoutACommitAddsNoData) {
  BlockBuffer buffer;
  u8* place = nullptr;
  u8* bytes = reinterpret_cast<u8*>(&place);
  u32 size = 7;
  ASSERT_TRUE(buffer.Reserve(&place, kRead));
  EXPECT_TRUE(buffer.IsEmpty());
  EXPECT_FALSE(buffer.Peek(&bytes, &size));
  EXPECT_EQ(bytes, nullptr);
  EXPECT_EQ(size, 0u);
  u8* again = nullptr;
  ASSERT_TRUE(buffer.Reserve(&again, kRead));
  EXPECT_EQ(again, place);
}

TEST(BlockBuffer, ANewBlockIsZero) {
  BlockBuffer buffer;
  u8* place = nullptr;
  ASSERT_TRUE(buffer.Reserve(&place, kBlock));
  EXPECT_EQ(std::count(place, place + kBlock, u8{0}), static_cast<std::ptrdiff_t>(kBlock));
}

TEST(BlockBuffer, RefusesNullPointersAndNoBytes) {
  BlockBuffer buffer;
  u8 mark = 0;
  u8* place = &mark;
  u32 size = 0;
  EXPECT_FALSE(buffer.Reserve(nullptr, kRead));
  EXPECT_FALSE(buffer.Reserve(&place, 0));
  EXPECT_EQ(place, &mark);
  ASSERT_TRUE(Write(&buffer, "x"));
  EXPECT_FALSE(buffer.Peek(nullptr, &size));
  EXPECT_FALSE(buffer.Peek(&place, nullptr));
}

TEST(BlockBuffer, HoldsFourBlocksAndNotAByteMore) {
  BlockBuffer buffer;
  for (int i = 0; i < 4; ++i) FillBlock(&buffer);
  u8 mark = 0;
  u8* place = &mark;
  EXPECT_FALSE(buffer.Reserve(&place, kRead));
  EXPECT_EQ(place, nullptr);
  EXPECT_FALSE(buffer.Reserve(&place, 1));
  // A drained block makes room for another one.
  ASSERT_TRUE(buffer.Consume(kBlock));
  EXPECT_TRUE(buffer.Reserve(&place, kRead));
  EXPECT_NE(place, nullptr);
}

TEST(BlockBuffer, MoreThanABlockCannotBeReserved) {
  BlockBuffer buffer;
  u8 mark = 0;
  u8* place = &mark;
  EXPECT_FALSE(buffer.Reserve(&place, kBlock + 1));
  EXPECT_EQ(place, nullptr);
  EXPECT_FALSE(buffer.Reserve(&place, 0xFFFFFFFF));
  EXPECT_EQ(place, nullptr);
}

TEST(BlockBuffer, TheRestOfABlockStaysUnusedWhenTheNextPieceDoesNotFit) {
  BlockBuffer buffer;
  u8* first = nullptr;
  ASSERT_TRUE(buffer.Reserve(&first, kBlock));
  ASSERT_TRUE(buffer.Commit(kBlock - 100));
  u8* second = nullptr;
  ASSERT_TRUE(buffer.Reserve(&second, 101));
  EXPECT_TRUE(second < first || second >= first + kBlock) << "in another block";
  ASSERT_TRUE(buffer.Commit(101));
  EXPECT_EQ(Front(&buffer).size(), kBlock - 100);
  ASSERT_TRUE(buffer.Consume(kBlock - 100));
  EXPECT_EQ(Front(&buffer).size(), 101u);
}

TEST(BlockBuffer, CommitOfMoreThanFitsIsRefused) {
  BlockBuffer buffer;
  u8* place = nullptr;
  ASSERT_TRUE(buffer.Reserve(&place, kRead));
  EXPECT_FALSE(buffer.Commit(kBlock + 1));
  EXPECT_FALSE(buffer.Commit(0xFFFFFFFF));
  EXPECT_TRUE(buffer.IsEmpty());
  EXPECT_TRUE(buffer.Commit(kBlock));
  EXPECT_FALSE(buffer.Commit(1));
  EXPECT_EQ(Front(&buffer).size(), kBlock);
}

TEST(BlockBuffer, ConsumeOfMoreThanTheFrontBlockHoldsChangesNothing) {
  BlockBuffer buffer;
  FillBlock(&buffer);
  ASSERT_TRUE(Write(&buffer, "later"));
  EXPECT_FALSE(buffer.Consume(kBlock + 1)) << "although the next block has it";
  EXPECT_EQ(Front(&buffer).size(), kBlock);
  EXPECT_TRUE(buffer.Consume(kBlock));
  EXPECT_EQ(Front(&buffer), "later");
  EXPECT_FALSE(buffer.Consume(6));
  EXPECT_EQ(Front(&buffer), "later");
}

TEST(BlockBuffer, ConsumeOfACountThatDoesNotFitAnIntIsRefused) {
  BlockBuffer buffer;
  ASSERT_TRUE(Write(&buffer, "abc"));
  EXPECT_FALSE(buffer.Consume(0x80000000));
  EXPECT_FALSE(buffer.Consume(0xFFFFFFFF));
  EXPECT_EQ(Front(&buffer), "abc");
}

TEST(BlockBuffer, ADrainedBlockIsUsedAgain) {
  BlockBuffer buffer;
  u8* first = nullptr;
  ASSERT_TRUE(buffer.Reserve(&first, 5));
  for (int i = 0; i < 1000; ++i) {
    u8* place = nullptr;
    ASSERT_TRUE(buffer.Reserve(&place, kRead));
    ASSERT_EQ(place, first) << "round " << i;
    ASSERT_TRUE(buffer.Commit(kRead));
    ASSERT_TRUE(buffer.Consume(kRead));
  }
}

// Read bytes count as free, but their room is at the front of the block: space at its end must not
// run past it.
TEST(BlockBuffer, AReservationStaysWithinItsBlock) {
  BlockBuffer buffer;
  u8* first = nullptr;
  ASSERT_TRUE(buffer.Reserve(&first, kBlock));
  ASSERT_TRUE(buffer.Commit(kBlock - 10));
  ASSERT_TRUE(buffer.Consume(kBlock - 20));
  u8* place = nullptr;
  ASSERT_TRUE(buffer.Reserve(&place, 10));
  EXPECT_EQ(place, first + kBlock - 10) << "what fits stays";
  EXPECT_FALSE(buffer.Commit(11)) << "free by the books, but not there";
  ASSERT_TRUE(buffer.Reserve(&place, kRead));
  EXPECT_TRUE(place < first || place >= first + kBlock);
  std::memset(place, 'y', kRead);  // the sanitizers watch
  ASSERT_TRUE(buffer.Commit(kRead));
  EXPECT_EQ(Front(&buffer).size(), 10u);
}

// Drained blocks are freed too: the next one is all zeros, without old bytes.
TEST(BlockBuffer, ClearFreesDrainedBlocks) {
  BlockBuffer buffer;
  FillBlock(&buffer);
  ASSERT_TRUE(buffer.Consume(kBlock));
  buffer.Clear();
  u8* place = nullptr;
  ASSERT_TRUE(buffer.Reserve(&place, kBlock));
  EXPECT_EQ(std::count(place, place + kBlock, u8{0}), static_cast<std::ptrdiff_t>(kBlock));
}

#ifndef _WIN32
TEST(BlockBuffer, ClearAndDestructionFreeEveryBlock) {
  const size_t before = port::OpenAllocations();
  {
    BlockBuffer buffer;
    for (int i = 0; i < 3; ++i) FillBlock(&buffer);
    ASSERT_TRUE(buffer.Consume(kBlock));
    EXPECT_EQ(port::OpenAllocations(), before + 3);
    buffer.Clear();
    EXPECT_EQ(port::OpenAllocations(), before);
    FillBlock(&buffer);
    FillBlock(&buffer);
    ASSERT_TRUE(buffer.Consume(kBlock));
  }
  EXPECT_EQ(port::OpenAllocations(), before);
}

TEST(BlockBuffer, WithoutMemoryThereIsNoRoomAndNothingIsLost) {
  BlockBuffer buffer;
  u8 mark = 0;
  u8* place = &mark;
  port::FailCall("VirtualAlloc", 0, ERROR_NOT_ENOUGH_MEMORY);
  EXPECT_FALSE(buffer.Reserve(&place, kRead));
  EXPECT_EQ(place, &mark);
  port::ClearFaults();
  FillBlock(&buffer);
  port::FailCall("VirtualAlloc", 0, ERROR_NOT_ENOUGH_MEMORY);
  EXPECT_FALSE(buffer.Reserve(&place, kRead));
  EXPECT_EQ(Front(&buffer).size(), kBlock);
  port::ClearFaults();
  EXPECT_TRUE(Write(&buffer, "more"));
  ASSERT_TRUE(buffer.Consume(kBlock));
  EXPECT_EQ(Front(&buffer), "more");
}
#endif

TEST(BlockBuffer, ClearDiscardsEverything) {
  BlockBuffer buffer;
  FillBlock(&buffer);
  ASSERT_TRUE(Write(&buffer, "rest"));
  ASSERT_TRUE(buffer.Consume(kBlock));
  buffer.Clear();
  EXPECT_TRUE(buffer.IsEmpty());
  EXPECT_FALSE(buffer.Consume(0));
  EXPECT_TRUE(Write(&buffer, "new"));
  EXPECT_EQ(Front(&buffer), "new");
}

// --- against a model ------------------------------------------------------------------------

class Model {
 public:
  // `largest`: of the pieces that the writer asks for.
  Model(u32 seed, u32 largest) : random_(seed), largest_(largest) {}

  void Step() {
    // In turns the writer, neither and the reader is faster.
    if (steps_++ % 500 == 0) receives_percent_ = 5 + 45 * Below(3);
    switch (Below(500)) {
      case 0:
        buffer_.Clear();
        bytes_.clear();
        break;
      case 1:
        EXPECT_FALSE(buffer_.Consume(0x80000000u + Below(1000)));
        break;
      default:
        Below(100) < receives_percent_ ? Receive() : Send();
    }
    CheckFront();
  }

  int refusals() const { return refusals_; }

 private:
  u32 Below(u32 bound) { return static_cast<u32>(random_() % bound); }

  void Receive() {
    const u32 size = Below(8) == 0 ? 1 + Below(largest_) : kRead;
    u8* place = nullptr;
    if (!buffer_.Reserve(&place, size)) {
      ++refusals_;
      EXPECT_EQ(place, nullptr);
      // Only when it is full: four blocks, each too short for a piece at its end.
      EXPECT_GT(bytes_.size() + read_of_front_ + 4 * largest_, 4u * kBlock);
      return;
    }
    const u32 received = Below(4) != 0 ? size : Below(size + 1);
    for (u32 i = 0; i < received; ++i) {
      place[i] = next_;
      bytes_.push_back(next_);
      next_ = static_cast<u8>(next_ * 5 + 1);
    }
    ASSERT_TRUE(buffer_.Commit(received));
  }

  void Send() {
    u8* place = nullptr;
    u32 size = 0;
    if (!buffer_.Peek(&place, &size)) return;
    const u32 sent = Below(16) == 0 ? size : Below(std::min(size, 4 * kRead) + 1);
    ASSERT_FALSE(buffer_.Consume(size + 1));
    ASSERT_TRUE(buffer_.Consume(sent));
    read_of_front_ = sent == size ? 0 : read_of_front_ + sent;
    bytes_.erase(bytes_.begin(), bytes_.begin() + sent);
  }

  void CheckFront() {
    u8* place = nullptr;
    u32 size = 0;
    const bool any = buffer_.Peek(&place, &size);
    ASSERT_EQ(any, !bytes_.empty());
    ASSERT_EQ(buffer_.IsEmpty(), bytes_.empty());
    if (!any) {
      read_of_front_ = 0;
      return;
    }
    ASSERT_LE(size, bytes_.size());
    ASSERT_LE(size, kBlock);
    const u32 looked_at = std::min<u32>(size, 64);
    ASSERT_TRUE(std::equal(place, place + looked_at, bytes_.begin()));
    ASSERT_TRUE(
        std::equal(place + size - looked_at, place + size, bytes_.begin() + (size - looked_at)));
  }

  std::mt19937 random_;
  const u32 largest_;
  BlockBuffer buffer_;
  std::deque<u8> bytes_;
  u32 read_of_front_ = 0;  // the room that these take does not come back yet
  u8 next_ = 1;
  u32 steps_ = 0;
  u32 receives_percent_ = 50;
  int refusals_ = 0;
};

void ExpectAQueueOfBytes(u32 largest) {
  int refusals = 0;
  for (u32 seed = 1; seed <= 4; ++seed) {
    SCOPED_TRACE(seed);
    Model model(seed, largest);
    for (int i = 0; i < 1500; ++i) {
      model.Step();
      if (testing::Test::HasFailure()) return;
    }
    refusals += model.refusals();
  }
  EXPECT_GT(refusals, 0) << "no run was ever full";
}

TEST(BlockBuffer, BehavesAsAQueueOfBytesForPiecesOfOneSize) { ExpectAQueueOfBytes(kRead); }
TEST(BlockBuffer, BehavesAsAQueueOfBytesForPiecesUpToABlock) { ExpectAQueueOfBytes(kBlock); }

}  // namespace
}  // namespace moru_vyr::lsp
