#include "udp/udp_package_queue.h"

#include <gtest/gtest.h>

#include <cstring>
#include <set>
#include <string>
#include <vector>

#include "tests/support/log_capture.h"
#include "tests/support/log_texts.h"
#include "udp/live_queues.h"

namespace moru_vyr::lsp {
namespace {

sockaddr_in Address(u16 port) {
  sockaddr_in address = {};
  address.sin_family = AF_INET;
  address.sin_port = htons(port);
  address.sin_addr.s_addr = static_cast<u32>(inet_addr("198.51.100.10"));
  return address;
}

// The texts as the buffers of one call.
class Buffers {
 public:
  Buffers(std::initializer_list<std::string> parts) : parts_(parts) {
    for (std::string& part : parts_) {
      WSABUF buffer = {};
      buffer.len = static_cast<ULONG>(part.size());
      buffer.buf = part.data();
      buffers_.push_back(buffer);
      total_ += static_cast<u32>(part.size());
    }
  }
  const WSABUF* data() const { return buffers_.data(); }
  u32 count() const { return static_cast<u32>(buffers_.size()); }
  u32 total() const { return total_; }

 private:
  std::vector<std::string> parts_;
  std::vector<WSABUF> buffers_;
  u32 total_ = 0;
};

bool Push(UdpPackageQueue* queue, const std::string& text, u16 port) {
  const sockaddr_in address = Address(port);
  return queue->Push(text.data(), static_cast<u32>(text.size()), &address);
}

// The port of the address that is found; -1 for none.
int Find(UdpPackageQueue* queue, const std::string& text) {
  sockaddr_in address = {};
  if (!queue->FindAddrThenRemove(text.data(), static_cast<u32>(text.size()), &address)) return -1;
  EXPECT_EQ(address.sin_addr.s_addr, static_cast<u32>(inet_addr("198.51.100.10")));
  EXPECT_EQ(address.sin_family, AF_INET);
  return ntohs(address.sin_port);
}

TEST(UdpPackageQueue, FindsNothingWhileEmpty) {
  test::LogCapture log;
  UdpPackageQueue queue;
  EXPECT_EQ(Find(&queue, "any"), -1);
  EXPECT_TRUE(log.Contains(test::kQueueEmpty));
}

TEST(UdpPackageQueue, LoneEntryMatchesWhateverIsAskedFor) {
  UdpPackageQueue queue;
  ASSERT_TRUE(Push(&queue, "hello", 1));
  EXPECT_EQ(Find(&queue, "something else, and longer"), 1);
  EXPECT_EQ(Find(&queue, "hello"), -1) << "it is gone";
}

TEST(UdpPackageQueue, LoneEntryOfALengthMatchesWithoutItsBytes) {
  UdpPackageQueue queue;
  for (const auto& [text, port] : {std::pair("a", 1), std::pair("bb", 2), std::pair("ccc", 3)}) {
    ASSERT_TRUE(Push(&queue, text, static_cast<u16>(port)));
  }
  EXPECT_EQ(Find(&queue, "xx"), 2);
  EXPECT_EQ(Find(&queue, "four"), -1) << "two are left, and none has that length";
}

TEST(UdpPackageQueue, BytesDecideBetweenEntriesOfOneLength) {
  UdpPackageQueue queue;
  ASSERT_TRUE(Push(&queue, "first", 1));
  ASSERT_TRUE(Push(&queue, "other", 2));
  ASSERT_TRUE(Push(&queue, "third", 3));
  EXPECT_EQ(Find(&queue, "third"), 3);
  EXPECT_EQ(Find(&queue, "wrong"), -1);
  EXPECT_EQ(Find(&queue, "other"), 2);
  EXPECT_EQ(Find(&queue, "first"), 1);
}

TEST(UdpPackageQueue, OldestOfEqualEntriesComesFirst) {
  UdpPackageQueue queue;
  for (u16 port = 1; port <= 3; ++port) ASSERT_TRUE(Push(&queue, "same", port));
  EXPECT_EQ(Find(&queue, "same"), 1);
  EXPECT_EQ(Find(&queue, "same"), 2);
  EXPECT_EQ(Find(&queue, "same"), 3);
}

// Entries are kept apart by their lengths, and some lengths are kept together.
TEST(UdpPackageQueue, EveryLengthIsFoundAmongAllOthers) {
  UdpPackageQueue queue;
  const auto text = [](u16 size) { return std::string(size, static_cast<char>('a' + size % 7)); };
  for (u16 size = 1; size <= 200; ++size) ASSERT_TRUE(Push(&queue, text(size), size));
  EXPECT_EQ(Find(&queue, std::string(201, 'x')), -1);
  for (u16 size = 200; size >= 1; --size) {
    const bool lone_of_its_length = size % 2 == 0;
    EXPECT_EQ(Find(&queue, lone_of_its_length ? std::string(size, '?') : text(size)), size);
  }
  ASSERT_TRUE(Push(&queue, text(200), 1));
  EXPECT_EQ(Find(&queue, "of another length, but the only one"), 1);
  EXPECT_EQ(Find(&queue, text(200)), -1);
}

// By its number, since the bytes of a datagram that is still being sent may be gone.
TEST(UdpPackageQueue, TakesBackExactlyThatEntry) {
  test::LogCapture log;
  UdpPackageQueue queue;
  const Buffers same{"same"};
  u64 numbers[3] = {};
  for (u16 i = 0; i < 3; ++i) {
    const sockaddr_in address = Address(static_cast<u16>(i + 1));
    ASSERT_TRUE(queue.Push(same.data(), same.count(), &address, &numbers[i]));
    EXPECT_NE(numbers[i], 0u);
  }
  EXPECT_TRUE(queue.Remove(numbers[1]));
  EXPECT_TRUE(log.Contains("UdpPackageQueue::FindAddrThenRemove remove queue, current size=2"));
  EXPECT_FALSE(queue.Remove(numbers[1])) << "it is gone";
  EXPECT_FALSE(queue.Remove(0)) << "the number of none";
  EXPECT_TRUE(log.Contains("[UDP] WARNING: UdpPackageQueue::FindAddrThenRemove Not Found"));
  EXPECT_EQ(Find(&queue, "same"), 1);
  EXPECT_EQ(Find(&queue, "same"), 3);
  EXPECT_FALSE(queue.Remove(numbers[0]));
  EXPECT_TRUE(log.Contains(test::kQueueEmpty));
}

// The memory of a removed entry is reused for the next one; its number is not.
TEST(UdpPackageQueue, ANumberIsNeverUsedAgain) {
  UdpPackageQueue queue;
  const Buffers one{"one"};
  const sockaddr_in address = Address(1);
  u64 first = 0, second = 0, refused = 7;
  ASSERT_TRUE(queue.Push(one.data(), one.count(), &address, &first));
  EXPECT_EQ(Find(&queue, "one"), 1);
  ASSERT_TRUE(queue.Push(one.data(), one.count(), &address, &second));
  EXPECT_FALSE(queue.Remove(first));
  EXPECT_TRUE(queue.Remove(second));
  const Buffers too_long{std::string(2049, 'x')};
  EXPECT_FALSE(queue.Push(too_long.data(), too_long.count(), &address, &refused));
  EXPECT_EQ(refused, 7u);
}

TEST(UdpPackageQueue, ComparesOverTheBoundariesOfBuffers) {
  UdpPackageQueue queue;
  const sockaddr_in first = Address(1), second = Address(2);
  const Buffers sent{"he", "", "llo"}, other{"hel", "LO"};
  ASSERT_TRUE(queue.Push(sent.data(), sent.count(), &first));
  ASSERT_TRUE(queue.Push(other.data(), other.count(), &second));
  const Buffers received{"hell", "o", "room that was not used"};
  sockaddr_in found = {};
  ASSERT_TRUE(queue.FindAddrThenRemove(received.data(), received.count(), 5, &found));
  EXPECT_EQ(found.sin_port, first.sin_port);
}

TEST(UdpPackageQueue, AcceptsADatagramOfAtMostOneBlock) {
  test::LogCapture log;
  UdpPackageQueue queue;
  EXPECT_TRUE(Push(&queue, std::string(2048, 'x'), 1));
  EXPECT_FALSE(Push(&queue, std::string(2049, 'y'), 2));
  EXPECT_TRUE(log.Contains(test::kCopyTooLong));
  EXPECT_TRUE(log.Contains("WARNING: clone failed"));
  EXPECT_EQ(Find(&queue, std::string(2048, 'x')), 1) << "and the queue still works";
}

// Lengths come from a game: their sum may be beyond 32 bits, and a buffer may not be there.
TEST(UdpPackageQueue, RefusesBuffersThatCannotBe) {
  UdpPackageQueue queue;
  const sockaddr_in address = Address(1);
  char bytes[16] = {};
  WSABUF huge[2] = {};
  huge[0].len = 0xFFFFFFFF;
  huge[0].buf = bytes;
  huge[1].len = 2;
  huge[1].buf = bytes;
  EXPECT_FALSE(queue.Push(huge, 2, &address));
  WSABUF missing = {};
  missing.len = 4;
  EXPECT_FALSE(queue.Push(&missing, 1, &address));
  EXPECT_FALSE(queue.Push(huge, 0, &address));
  EXPECT_FALSE(queue.Push(static_cast<const WSABUF*>(nullptr), 1, &address));
  EXPECT_FALSE(queue.Push(huge, 1, nullptr));
  EXPECT_FALSE(queue.Push(bytes, 0, &address));
  EXPECT_FALSE(queue.Push(bytes, 1, nullptr));
  EXPECT_FALSE(queue.Push(static_cast<const void*>(nullptr), 1, &address));
  sockaddr_in found = {};
  EXPECT_FALSE(queue.FindAddrThenRemove(static_cast<const WSABUF*>(nullptr), 1, 1, &found));
  EXPECT_FALSE(queue.FindAddrThenRemove(huge, 1, 1, nullptr));
  EXPECT_EQ(Find(&queue, "x"), -1) << "nothing of all that is in the queue";
}

TEST(UdpPackageQueue, HoldsADatagramOfNoBytesThatCameInBuffers) {
  UdpPackageQueue queue;
  const sockaddr_in address = Address(7);
  WSABUF empty = {};
  ASSERT_TRUE(queue.Push(&empty, 1, &address));
  ASSERT_TRUE(Push(&queue, "x", 8));
  EXPECT_EQ(Find(&queue, ""), 7);
}

TEST(UdpPackageQueue, DoesNotCompareAMissingBuffer) {
  WSABUF missing = {};
  missing.len = 3;
  EXPECT_FALSE(CompareToWsaBuffers("abc", 3, &missing, 1, 3));
  EXPECT_FALSE(CompareToWsaBuffers(nullptr, 3, &missing, 1, 3));
  EXPECT_FALSE(CompareToWsaBuffers("abc", 3, nullptr, 1, 3));
  EXPECT_FALSE(CompareToWsaBuffers("abc", 3, &missing, 1, 4));
  EXPECT_TRUE(CompareToWsaBuffers("abc", 3, &missing, 0, 3)) << "kept: nothing differs";
}

TEST(PackageBlockPool, GivesEachBlockToOneUserAtATime) {
  PackageBlockPool pool(1);
  EXPECT_EQ(pool.block_size(), 128u) << "smaller blocks are not made";
  std::set<void*> used;
  for (int i = 0; i < 49; ++i) {
    void* const block = pool.Get();
    ASSERT_NE(block, nullptr);
    std::memset(block, 1, pool.block_size());
    EXPECT_TRUE(used.insert(block).second);
  }
}

TEST(PackageBlockPool, ReusesTheLastReturnedBlockFirst) {
  PackageBlockPool pool(2048);
  void* const a = pool.Get();
  void* const b = pool.Get();
  EXPECT_NE(a, b);
  pool.Put(a);
  EXPECT_EQ(pool.Get(), a);
}

TEST(LiveQueues, AreThoseOfTheTokensSessionAndNoOther) {
  LiveQueues live;
  const auto mine = std::make_shared<UdpQueues>();
  const auto other = std::make_shared<UdpQueues>();
  live.Add(1, mine);
  live.Add(2, other);
  EXPECT_EQ(live.Use(&mine->send_queue, 1).get(), &mine->send_queue);
  EXPECT_EQ(live.Use(&mine->recv_queue, 1).get(), &mine->recv_queue);
  EXPECT_EQ(live.Use(&other->send_queue, 1), nullptr) << "a queue of another session";
  EXPECT_EQ(live.Use(&mine->send_queue, 3), nullptr) << "a token of no session";
  EXPECT_EQ(live.Use(nullptr, 1), nullptr);
}

TEST(LiveQueues, LastForAsLongAsACallHoldsThem) {
  LiveQueues live;
  auto queues = std::make_shared<UdpQueues>();
  UdpPackageQueue* const send_queue = &queues->send_queue;
  live.Add(1, std::move(queues));
  const auto held = live.Use(send_queue, 1);
  live.Remove(1);
  EXPECT_EQ(live.Use(send_queue, 1), nullptr) << "the session is gone";
  EXPECT_TRUE(Push(held.get(), "still there", 1)) << "but this call has not ended";
  live.Remove(1);  // nothing, a second time
}

}  // namespace
}  // namespace moru_vyr::lsp
