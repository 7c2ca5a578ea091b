// Which loopback port stands for which address.
#include "udp/peer_ports.h"

#include <gtest/gtest.h>

#include <cstring>
#include <memory>

#include "common/handle.h"
#include "tests/support/threads.h"
#include "udp/live_queues.h"

namespace moru_vyr::lsp {
namespace {

sockaddr_in Peer(const char* ip, u16 port) {
  sockaddr_in address = {};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = static_cast<u32>(inet_addr(ip));
  address.sin_port = htons(port);
  return address;
}

TEST(PeerPorts, TellTwoPortsOfOneHostApart) {
  PeerPorts ports;
  const sockaddr_in a = Peer("198.51.100.10", 1), b = Peer("198.51.100.10", 2);
  EXPECT_FALSE(ports.IsUsed());
  EXPECT_TRUE(ports.Add(a, htons(4001)));
  EXPECT_TRUE(ports.Add(b, htons(4002)));
  EXPECT_TRUE(ports.IsUsed());
  u16 port = 0;
  EXPECT_TRUE(ports.FindPort(b, &port));
  EXPECT_EQ(port, htons(4002));
  sockaddr_in peer;
  std::memset(&peer, 0x55, sizeof peer);  // as a game's own memory may be
  EXPECT_TRUE(ports.FindPeer(htons(4001), &peer));
  EXPECT_EQ(std::memcmp(&peer, &a, sizeof a), 0);
}

TEST(PeerPorts, AnAddressKeepsTheFirstPortThatItGets) {
  PeerPorts ports;
  const sockaddr_in a = Peer("198.51.100.10", 1);
  EXPECT_TRUE(ports.Add(a, 0));
  EXPECT_FALSE(ports.Add(a, htons(4001)));
  u16 port = 7;
  EXPECT_TRUE(ports.FindPort(a, &port));
  EXPECT_EQ(port, 0);
}

TEST(PeerPorts, WhatIsNotKnownIsLeftAlone) {
  PeerPorts ports;
  EXPECT_TRUE(ports.Add(Peer("198.51.100.10", 1), 0));  // directly: no port stands for it
  u16 port = 7;
  EXPECT_FALSE(ports.FindPort(Peer("198.51.100.10", 2), &port));
  EXPECT_EQ(port, 7);
  sockaddr_in peer = Peer("127.0.0.1", 4001);
  EXPECT_FALSE(ports.FindPeer(0, &peer));
  EXPECT_FALSE(ports.FindPeer(htons(4001), &peer));
  EXPECT_EQ(peer.sin_port, htons(4001));
}

TEST(PeerPorts, HaveSoManyPlaces) {
  PeerPorts ports;
  for (u16 i = 1; i <= PeerPorts::kPlaces; ++i) {
    EXPECT_FALSE(ports.IsFull());
    EXPECT_TRUE(ports.Add(Peer("198.51.100.10", i), htons(static_cast<u16>(4000 + i))));
  }
  EXPECT_TRUE(ports.IsFull());
  EXPECT_FALSE(ports.Add(Peer("198.51.100.11", 1), htons(5000)));
}

TEST(PeerPorts, OfASessionAreUsedFromTheFirstAddressToItsEnd) {
  LiveQueues live;
  const auto queues = std::make_shared<UdpQueues>();
  live.Add(7, queues);
  EXPECT_EQ(live.UsePorts(7), nullptr);
  queues->peer_ports.Add(Peer("198.51.100.10", 1), htons(4001));
  EXPECT_EQ(live.UsePorts(8), nullptr);
  EXPECT_EQ(live.UsePorts(7).get(), &queues->peer_ports);
  live.Remove(7);
  EXPECT_EQ(live.UsePorts(7), nullptr);
}

// That may take its time, and a thread of the game that looks for its own must not wait for it.
TEST(LiveQueues, OfASessionThatEndsAreReleasedBesideTheLock) {
  LiveQueues live;
  const common::UniqueHandle ending{CreateEventA(nullptr, FALSE, FALSE, nullptr)};
  const common::UniqueHandle looked{CreateEventA(nullptr, FALSE, FALSE, nullptr)};
  bool was_free = false;
  live.Add(7, std::shared_ptr<UdpQueues>(new UdpQueues, [&](UdpQueues* queues) {
             SetEvent(ending.get());
             was_free = WaitForSingleObject(looked.get(), 5000) == WAIT_OBJECT_0;
             delete queues;
           }));
  test::RunThreads(2, [&](int index) {
    if (index == 0) {
      live.Remove(7);
    } else {
      WaitForSingleObject(ending.get(), INFINITE);
      EXPECT_EQ(live.UsePorts(8), nullptr);
      SetEvent(looked.get());
    }
  });
  EXPECT_TRUE(was_free);
}

}  // namespace
}  // namespace moru_vyr::lsp
