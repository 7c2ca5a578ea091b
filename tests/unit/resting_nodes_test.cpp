// The nodes that lately failed. At stake: none is passed over for longer than its rest, whatever
// the tick counter does, and however many fail.
#include "relay/resting_nodes.h"

#include <gtest/gtest.h>

#include "relay/node_choice.h"
#include "tests/support/end_worker.h"
#include "tests/support/mended.h"

namespace moru_vyr::lsp {
namespace {

constexpr u32 kRest = 30'000;

sockaddr_in Node(u32 number, u16 port = 7001) {
  sockaddr_in node = {};
  node.sin_family = AF_INET;
  node.sin_addr.s_addr = htonl(0xC6336400 + number);
  node.sin_port = htons(port);
  return node;
}

TEST(RestingNodes, ANodeRestsForItsTime) {
  RestingNodes nodes;
  EXPECT_FALSE(nodes.Has(Node(1), SOCK_STREAM, 1000));
  nodes.Add(Node(1), SOCK_STREAM, 1000, kRest);
  EXPECT_TRUE(nodes.Has(Node(1), SOCK_STREAM, 1000));
  EXPECT_TRUE(nodes.Has(Node(1), SOCK_STREAM, 1000 + kRest - 1));
  EXPECT_FALSE(nodes.Has(Node(1), SOCK_STREAM, 1000 + kRest));
  EXPECT_FALSE(nodes.Has(Node(1), SOCK_STREAM, 1000)) << "forgotten, should the counter come round";
}

TEST(RestingNodes, AnotherFailureBeginsTheRestAnew) {
  RestingNodes nodes;
  nodes.Add(Node(1), SOCK_STREAM, 1000, kRest);
  nodes.Add(Node(1), SOCK_STREAM, 2000, kRest);
  EXPECT_TRUE(nodes.Has(Node(1), SOCK_STREAM, 1000 + kRest));
  EXPECT_FALSE(nodes.Has(Node(1), SOCK_STREAM, 2000 + kRest));
}

TEST(RestingNodes, TheTickCounterMayWrapMeanwhile) {
  RestingNodes nodes;
  nodes.Add(Node(1), SOCK_STREAM, 0xffffff00, kRest);
  EXPECT_TRUE(nodes.Has(Node(1), SOCK_STREAM, kRest - 0x101));
  EXPECT_FALSE(nodes.Has(Node(1), SOCK_STREAM, kRest - 0x100));
}

TEST(RestingNodes, AddressPortAndTypeAreOfOneNode) {
  RestingNodes nodes;
  nodes.Add(Node(1), SOCK_STREAM, 1000, kRest);
  EXPECT_FALSE(nodes.Has(Node(2), SOCK_STREAM, 1000));
  EXPECT_FALSE(nodes.Has(Node(1, 7002), SOCK_STREAM, 1000));
  EXPECT_FALSE(nodes.Has(Node(1), SOCK_DGRAM, 1000));
  nodes.Remove(Node(1), SOCK_DGRAM);
  EXPECT_TRUE(nodes.Has(Node(1), SOCK_STREAM, 1000));
  nodes.Remove(Node(1), SOCK_STREAM);
  EXPECT_FALSE(nodes.Has(Node(1), SOCK_STREAM, 1000));
}

TEST(RestingNodes, WhereThereIsNoRoomTheOldestIsForgotten) {
  RestingNodes nodes;
  for (u32 i = 0; i <= RestingNodes::kMost; ++i) {
    nodes.Add(Node(i), SOCK_STREAM, 0xfffffff8 + i, kRest);
  }
  EXPECT_FALSE(nodes.Has(Node(0), SOCK_STREAM, 100));
  for (u32 i = 1; i <= RestingNodes::kMost; ++i) {
    EXPECT_TRUE(nodes.Has(Node(i), SOCK_STREAM, 100)) << i;
  }
}

TEST(RestingNodes, TheOldestIsForgottenWhereverItStands) {
  RestingNodes nodes;
  for (u32 i = 0; i < RestingNodes::kMost; ++i) nodes.Add(Node(i), SOCK_STREAM, 1000 + i, kRest);
  nodes.Add(Node(0), SOCK_STREAM, 2000, kRest);
  nodes.Add(Node(99), SOCK_STREAM, 2000, kRest);
  EXPECT_TRUE(nodes.Has(Node(0), SOCK_STREAM, 2000));
  EXPECT_FALSE(nodes.Has(Node(1), SOCK_STREAM, 2000));
  EXPECT_TRUE(nodes.Has(Node(2), SOCK_STREAM, 2000));
}

TEST(RestingNodes, AFreePlaceIsUsedBeforeOneIsForgottenAlsoWhereTheCounterHasWrapped) {
  RestingNodes nodes;
  for (u32 i = 0; i + 1 < RestingNodes::kMost; ++i) {
    nodes.Add(Node(i), SOCK_DGRAM, 0xffffff00 + i, kRest);
  }
  nodes.Add(Node(99), SOCK_DGRAM, 5, kRest);
  for (u32 i = 0; i + 1 < RestingNodes::kMost; ++i) {
    EXPECT_TRUE(nodes.Has(Node(i), SOCK_DGRAM, 5)) << i;
  }
  EXPECT_TRUE(nodes.Has(Node(99), SOCK_DGRAM, 5));
}

class NodeChoice : public testing::Test {
 protected:
  NodeChoice() {
    test::EndWorker();
    for (u32 i = 0; i < kTopRefs; ++i) decision.top_proxy[i] = Proxy(i + 1);
    decision.selected_proxy = Proxy(1);
  }
  ~NodeChoice() override {
    for (u32 i = 1; i <= kTopRefs; ++i) {
      decision.selected_proxy = Proxy(i);
      NoteNodeServes(SOCK_STREAM, decision);
    }
  }
  static RouteProxyInfo Proxy(u32 idc) {
    RouteProxyInfo proxy;
    const std::string address = "198.51.100.2" + std::to_string(idc);
    address.copy(proxy.proxy_addr, sizeof proxy.proxy_addr);
    proxy.proxy_port = 7001;
    proxy.proxy_idc = idc;
    return proxy;
  }
  // The number of the selected proxy, 0 for none.
  u32 Awake() {
    return SelectAwakeProxy(SOCK_STREAM, &decision) ? u32{decision.selected_proxy.proxy_idc} : 0;
  }
  u32 Other() {
    return SelectOtherProxy(SOCK_STREAM, &decision) ? u32{decision.selected_proxy.proxy_idc} : 0;
  }
  void Fails() { NoteNodeFailed(SOCK_STREAM, decision); }

  AccDecisionInfo decision;
};

TEST_F(NodeChoice, AskedForNothingNoNodeRests) {
  EXPECT_EQ(FastFallback(), nullptr);
  Fails();
  EXPECT_EQ(Awake(), 1u);
  EXPECT_EQ(Other(), 2u);
  EXPECT_EQ(Other(), 1u);
}

TEST_F(NodeChoice, NodesThatFailedArePassedOverUntilNoneIsLeft) {
  const test::Mended mended(kMendFallback);
  Fails();
  EXPECT_EQ(Awake(), 2u);
  EXPECT_EQ(Other(), 3u);
  EXPECT_EQ(Other(), 2u);
  Fails();
  EXPECT_EQ(Awake(), 3u);
  EXPECT_EQ(Other(), 0u);
  Fails();
  EXPECT_EQ(Awake(), 0u);
  NoteNodeServes(SOCK_STREAM, decision);
  EXPECT_EQ(Awake(), 3u);
}

TEST_F(NodeChoice, AnotherCandidateOfASwitchIsDecidedOnAsTheFirstWas) {
  const test::Mended mended(kMendFallback);
  constexpr u32 kLeft = 3, kLastNode = 9;
  SwitchProxyInfo candidates;
  candidates.last_node = kLastNode;
  candidates.proxies[0] = Proxy(kLeft);
  candidates.proxies[1] = Proxy(2);
  candidates.proxies[1].decision = 77;
  decision.selected_proxy.decision = 5;
  EXPECT_TRUE(SelectAwakeCandidate(candidates, kLeft, kLastNode, &decision));
  EXPECT_EQ(decision.selected_proxy.proxy_idc, 1u);
  NoteNodeFailed(SOCK_DGRAM, decision);
  AccDecisionInfo first = decision;
  EXPECT_TRUE(SelectAwakeCandidate(candidates, kLeft, kLastNode, &decision));
  EXPECT_EQ(decision.selected_proxy.proxy_idc, 2u);
  EXPECT_EQ(decision.selected_proxy.decision, 5u);
  decision = first;
  EXPECT_FALSE(SelectAwakeCandidate(candidates, kLeft, kLastNode + 1, &decision));
  NoteNodeServes(SOCK_DGRAM, first);
}

// One machine may run several nodes, each on a port of its own.
TEST_F(NodeChoice, ANodeIsKnownByItsPortToo) {
  const test::Mended mended(kMendFallback);
  decision.top_proxy[1] = Proxy(1);
  decision.top_proxy[1].proxy_idc = 2;
  decision.top_proxy[1].proxy_port = 7002;
  Fails();
  EXPECT_EQ(Awake(), 2u);
}

TEST_F(NodeChoice, TimesAreTheRecordsOrTheDefaults) {
  test::ClientRegion<MendingRegion> region(kMendingRegionName);
  region->games[0].mended = kMendFallback;
  region->games[1] = region->games[0];
  region->games[1].next_node_ms = 1;
  region->games[1].direct_ms = 2;
  region->games[1].node_rest_ms = 3;
  ReadMending(0);
  ASSERT_NE(FastFallback(), nullptr);
  EXPECT_EQ(FastFallback()->next_node_ms, 1000u);
  EXPECT_EQ(FastFallback()->direct_ms, 1000u);
  EXPECT_EQ(FastFallback()->node_rest_ms, 30'000u);
  ReadMending(1);
  ASSERT_NE(FastFallback(), nullptr);
  EXPECT_EQ(FastFallback()->next_node_ms, 1u);
  EXPECT_EQ(FastFallback()->direct_ms, 2u);
  EXPECT_EQ(FastFallback()->node_rest_ms, 3u);
  ReadMending(kMaxGames);
  EXPECT_EQ(FastFallback(), nullptr);
}

}  // namespace
}  // namespace moru_vyr::lsp
