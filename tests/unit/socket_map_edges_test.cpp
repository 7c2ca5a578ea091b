// Records of sockets whose values are reused. At stake: what the relay says after a wait applies to
// the socket that asked, and to no other with the same value.
#include <gtest/gtest.h>

#include "sockets/socket_map.h"
#include "tests/unit/scripted_provider.h"

namespace moru_vyr::lsp {
namespace {

using test::Address;

constexpr SOCKET kKnown = 77;
constexpr u32 kToken = 9, kOlder = 8;

struct SocketMapEdges : testing::Test {
  SocketMapEdges() { map.Add(kKnown, 2, 17, kToken); }
  SocketRecord Snapshot() {
    const SocketRecord record = map.Get(kKnown);
    EXPECT_EQ(record.socket, kKnown);
    return record;
  }
  SocketMap map;
  const sockaddr_in relay = Address("127.0.0.1", 4000);
};

TEST_F(SocketMapEdges, AChangeForAnEarlierSocketIsRefused) {
  EXPECT_FALSE(map.SetRelayAddr(kKnown, &relay, nullptr, nullptr, kOlder));
  EXPECT_FALSE(map.SetRelayState(kKnown, kRelayRefused, kOlder));
  EXPECT_FALSE(map.SetUdpConnectMode(kKnown, true, kOlder));
  const SocketRecord record = Snapshot();
  EXPECT_EQ(record.relay_state, kRelayNotAsked);
  EXPECT_EQ(record.relay_addr.sin_port, 0);
  EXPECT_FALSE(record.udp_connect_mode);
}

TEST_F(SocketMapEdges, AChangeForThisSocketIsAccepted) {
  EXPECT_TRUE(map.SetRelayState(kKnown, kRelayRefused, kToken));
  EXPECT_EQ(Snapshot().relay_state, kRelayRefused);
  EXPECT_TRUE(map.SetRelayAddr(kKnown, &relay, nullptr, nullptr, kToken));
  EXPECT_EQ(Snapshot().relay_state, kRelayRunning);
  EXPECT_TRUE(map.SetUdpConnectMode(kKnown, true, kToken));
  EXPECT_TRUE(Snapshot().udp_connect_mode);
}

// Two threads may decide the same destination at once: both decisions are saved, and the first
// counts.
TEST_F(SocketMapEdges, ADestinationThatIsSavedTwiceHasTwoEntries) {
  const sockaddr_in server = Address("198.51.100.10", 1000);
  EXPECT_TRUE(map.SaveRelayRecord(kKnown, &server, true));
  EXPECT_TRUE(map.SaveRelayRecord(kKnown, &server, false));
  const SocketRecord record = Snapshot();
  EXPECT_EQ(record.relay_records[1].ip, static_cast<u32>(server.sin_addr.s_addr));
  EXPECT_FALSE(record.relay_records[1].relay);
  EXPECT_EQ(record.relay_records[2].ip, 0u);
  bool relayed = false;
  EXPECT_TRUE(SocketMap::FindRelayRecord(record, &server, &relayed, nullptr));
  EXPECT_TRUE(relayed);
}

TEST_F(SocketMapEdges, AHandledAddressChangesNothingElse) {
  map.SetUdpConnectMode(kKnown, true);
  map.SetRelayAddr(kKnown, &relay, nullptr, nullptr);
  map.SetHandledAddr(kKnown, test::Generic(relay), 16);
  EXPECT_TRUE(Snapshot().udp_connect_mode);
  EXPECT_EQ(Snapshot().relay_state, kRelayRunning);
}

}  // namespace
}  // namespace moru_vyr::lsp
