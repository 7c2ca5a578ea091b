// How much memory the datagram queues keep. At stake: a game that sends for days, and is refused
// now and then, uses no more memory than at its busiest moment.
#include <vector>

#include "common/log.h"
#include "port/sim/scenario.h"
#include "udp/udp_package_queue.h"

extern "C" size_t __sanitizer_get_current_allocated_bytes() __attribute__((weak));

namespace {

using moru_vyr::lsp::PackageBlockPool;
using moru_vyr::lsp::UdpPackageQueue;

class UdpMemory : public sim::ScenarioTest {
 protected:
  void SetUp() override {
    if (__sanitizer_get_current_allocated_bytes == nullptr) GTEST_SKIP() << "nobody counts bytes";
    common::SetLogThreshold(9);  // lines would be counted too
  }
  static size_t Allocated() { return __sanitizer_get_current_allocated_bytes(); }
};

SCENARIO_F(UdpMemory, APoolGrowsByDoublingUpToSixteenBlocksAtATime) {
  constexpr common::u32 kBlockSize = 1 << 16;  // beside which its lists do not show
  PackageBlockPool pool(kBlockSize);
  const size_t before = Allocated();
  std::vector<size_t> held;
  for (int i = 0; i < 49; ++i) {
    ASSERT_NE(pool.Get(), nullptr);
    const size_t blocks = (Allocated() - before) / kBlockSize;
    if (held.empty() || held.back() != blocks) held.push_back(blocks);
  }
  EXPECT_EQ(held, (std::vector<size_t>{4, 8, 16, 32, 48, 64}));
}

SCENARIO_F(UdpMemory, AQueueKeepsNoBlockOfADatagramThatItRefused) {
  UdpPackageQueue queue;
  const std::vector<char> longest(2049);
  sockaddr_in address = {};
  EXPECT_FALSE(queue.Push(longest.data(), 2049, &address));
  const size_t before = Allocated();
  for (int i = 0; i < 50; ++i) EXPECT_FALSE(queue.Push(longest.data(), 2049, &address));
  EXPECT_EQ(Allocated(), before);
}

SCENARIO_F(UdpMemory, AQueueReusesTheMemoryOfDatagrams) {
  UdpPackageQueue queue;
  const std::vector<char> bytes(2048);
  sockaddr_in address = {};
  const auto in_and_out = [&] {
    for (int i = 0; i < 4; ++i) ASSERT_TRUE(queue.Push(bytes.data(), 2048, &address));
    for (int i = 0; i < 4; ++i) ASSERT_TRUE(queue.FindAddrThenRemove(bytes.data(), 2048, &address));
  };
  in_and_out();
  const size_t before = Allocated();
  for (int i = 0; i < 50; ++i) in_and_out();
  EXPECT_EQ(Allocated(), before);
}

}  // namespace
