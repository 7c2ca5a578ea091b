#include "sockets/socket_map.h"

#include <gtest/gtest.h>

#include <vector>

#include "tests/unit/scripted_provider.h"

namespace moru_vyr::lsp {
namespace {

using test::Address;

constexpr SOCKET kSocket = 77;

struct SocketMapTest : testing::Test {
  SocketRecord Snapshot() {
    const SocketRecord record = map.Get(kSocket);
    EXPECT_EQ(record.socket, kSocket);
    return record;
  }
  SocketMap map;
};

TEST_F(SocketMapTest, AnEmptyRecordIsMinusOneAndZero) {
  const SocketRecord record;
  EXPECT_EQ(record.socket, INVALID_SOCKET);
  EXPECT_EQ(record.type, 0);
  EXPECT_EQ(record.protocol, 0);
  EXPECT_EQ(record.local_port, 0);
  EXPECT_EQ(record.token, 0u);
  EXPECT_EQ(record.next_proc_table, nullptr);
  EXPECT_EQ(record.relay_state, 0);
  EXPECT_EQ(record.handled_addr.sin_port, 0);
  EXPECT_EQ(record.handled_addr_len, 0);
  EXPECT_EQ(record.relay_addr.sin_port, 0);
  EXPECT_FALSE(record.handled || record.udp_connect_mode || record.relay_disabled);
  EXPECT_FALSE(record.of_worker || record.non_blocking);
}

TEST_F(SocketMapTest, AddMakesAFreshRecord) {
  EXPECT_TRUE(map.Add(kSocket, SOCK_STREAM, IPPROTO_TCP, 9));
  const SocketRecord record = Snapshot();
  EXPECT_EQ(record.socket, kSocket);
  EXPECT_EQ(record.type, SOCK_STREAM);
  EXPECT_EQ(record.protocol, IPPROTO_TCP);
  EXPECT_EQ(record.token, 9u);
  EXPECT_EQ(record.local_port, 0);
  EXPECT_EQ(record.next_proc_table, nullptr);
}

TEST_F(SocketMapTest, AddTwiceKeepsTheFirstRecord) {
  map.Add(kSocket, SOCK_STREAM, IPPROTO_TCP, 9);
  map.SetLocalPort(kSocket, 5);
  EXPECT_TRUE(map.Add(kSocket, SOCK_DGRAM, IPPROTO_UDP, 10));
  const SocketRecord record = Snapshot();
  EXPECT_EQ(record.type, SOCK_STREAM);
  EXPECT_EQ(record.protocol, IPPROTO_TCP);
  EXPECT_EQ(record.token, 9u);
  EXPECT_EQ(record.local_port, 5);
}

TEST_F(SocketMapTest, TheInvalidSocketNeverGetsARecord) {
  EXPECT_FALSE(map.Add(INVALID_SOCKET, SOCK_STREAM, IPPROTO_TCP, 9));
  EXPECT_FALSE(map.Remove(INVALID_SOCKET));
  WSPPROC_TABLE table{};
  EXPECT_FALSE(map.SetNextProcTable(INVALID_SOCKET, &table));
  EXPECT_EQ(map.Get(INVALID_SOCKET).next_proc_table, nullptr);
}

TEST_F(SocketMapTest, RemoveErasesTheRecordOnce) {
  map.Add(kSocket, SOCK_STREAM, IPPROTO_TCP, 9);
  EXPECT_TRUE(map.Remove(kSocket));
  EXPECT_FALSE(map.Remove(kSocket));
  EXPECT_EQ(map.Get(kSocket).socket, INVALID_SOCKET);
}

TEST_F(SocketMapTest, RemoveHandsOutTheLastState) {
  map.Add(kSocket, SOCK_STREAM, IPPROTO_TCP, 9);
  map.SetLocalPort(kSocket, 5);
  SocketRecord last;
  EXPECT_TRUE(map.Remove(kSocket, &last));
  EXPECT_EQ(last.socket, kSocket);
  EXPECT_EQ(last.token, 9u);
  EXPECT_EQ(last.local_port, 5);
}

TEST_F(SocketMapTest, AConnectThatFailedIsNoLongerAnsweredFor) {
  const sockaddr_in address = Address("198.51.100.1", 1);
  map.Add(kSocket, SOCK_STREAM, IPPROTO_TCP, 9);
  EXPECT_FALSE(map.ForgetHandledAddr(kSocket + 4));
  map.SetHandledAddr(kSocket, reinterpret_cast<const sockaddr*>(&address), sizeof address);
  EXPECT_TRUE(map.ForgetHandledAddr(kSocket));
  EXPECT_FALSE(Snapshot().handled);
}

TEST_F(SocketMapTest, OperationsOnAnUnknownSocketDoNothing) {
  WSPPROC_TABLE table{};
  const sockaddr_in address = Address("198.51.100.1", 1);
  u16 port = 3;
  int type = 4;
  int protocol = 5;
  EXPECT_FALSE(map.SetNextProcTable(kSocket, &table));
  EXPECT_EQ(map.GetNextProcTable(kSocket, &type, &protocol), nullptr);
  EXPECT_FALSE(map.GetLocalPort(kSocket, &port));
  EXPECT_FALSE(map.SetLocalPort(kSocket, 1));
  EXPECT_FALSE(map.SetRelayAddr(kSocket, &address, nullptr, nullptr));
  EXPECT_FALSE(map.SetRelayState(kSocket, 2));
  EXPECT_FALSE(map.SetUdpConnectMode(kSocket, true));
  EXPECT_FALSE(map.SetHandledAddr(kSocket, test::Generic(address), 16));
  EXPECT_FALSE(map.SaveRelayRecord(kSocket, &address, true));
  EXPECT_FALSE(map.SetRelayDisabled(kSocket, true));
  EXPECT_EQ(port, 3);
  EXPECT_EQ(type, 4);
  EXPECT_EQ(protocol, 5);
  EXPECT_EQ(map.Get(kSocket).socket, INVALID_SOCKET);
}

TEST_F(SocketMapTest, NextProcTableIsStoredAndNullIsRefused) {
  WSPPROC_TABLE table{};
  map.Add(kSocket, SOCK_DGRAM, IPPROTO_UDP, 9);
  EXPECT_TRUE(map.SetNextProcTable(kSocket, &table));
  EXPECT_FALSE(map.SetNextProcTable(kSocket, nullptr));
  int type = 0;
  int protocol = 0;
  EXPECT_EQ(map.GetNextProcTable(kSocket, &type, &protocol), &table);
  EXPECT_EQ(type, SOCK_DGRAM);
  EXPECT_EQ(protocol, IPPROTO_UDP);
  EXPECT_EQ(map.GetNextProcTable(kSocket, nullptr, nullptr), &table);
}

TEST_F(SocketMapTest, LocalPortIsReadBack) {
  map.Add(kSocket, SOCK_STREAM, IPPROTO_TCP, 9);
  u16 port = 9;
  EXPECT_TRUE(map.GetLocalPort(kSocket, &port));
  EXPECT_EQ(port, 0);
  EXPECT_TRUE(map.SetLocalPort(kSocket, 0x1234));
  EXPECT_TRUE(map.GetLocalPort(kSocket, &port));
  EXPECT_EQ(port, 0x1234);
}

TEST_F(SocketMapTest, RelayAddrSetsTheRunningState) {
  map.Add(kSocket, SOCK_DGRAM, IPPROTO_UDP, 9);
  const sockaddr_in address = Address("127.0.0.1", 4000);
  auto* const send_queue = reinterpret_cast<UdpPackageQueue*>(0x10);
  auto* const recv_queue = reinterpret_cast<UdpPackageQueue*>(0x20);
  EXPECT_TRUE(map.SetRelayAddr(kSocket, &address, send_queue, recv_queue));
  SocketRecord record = Snapshot();
  EXPECT_EQ(record.relay_state, kRelayRunning);
  EXPECT_EQ(record.relay_addr.sin_port, address.sin_port);
  EXPECT_EQ(record.send_queue, send_queue);
  EXPECT_EQ(record.recv_queue, recv_queue);
  EXPECT_TRUE(map.SetRelayState(kSocket, kRelayRefused));
  EXPECT_TRUE(map.SetRelayAddr(kSocket, nullptr, nullptr, nullptr));
  record = Snapshot();
  EXPECT_EQ(record.relay_state, kRelayRunning);
  EXPECT_EQ(record.relay_addr.sin_port, address.sin_port);  // a null address changes nothing
  EXPECT_EQ(record.send_queue, nullptr);
}

TEST_F(SocketMapTest, FlagsAreStored) {
  map.Add(kSocket, SOCK_DGRAM, IPPROTO_UDP, 9);
  EXPECT_TRUE(map.SetRelayState(kSocket, kRelayRefused));
  EXPECT_TRUE(map.SetUdpConnectMode(kSocket, true));
  EXPECT_TRUE(map.SetRelayDisabled(kSocket, true));
  const SocketRecord record = Snapshot();
  EXPECT_EQ(record.relay_state, kRelayRefused);
  EXPECT_TRUE(record.udp_connect_mode);
  EXPECT_TRUE(record.relay_disabled);
}

TEST_F(SocketMapTest, HandledAddrTakesTheGivenLength) {
  map.Add(kSocket, SOCK_STREAM, IPPROTO_TCP, 9);
  const sockaddr_in address = Address("198.51.100.7", 80);
  EXPECT_TRUE(map.SetHandledAddr(kSocket, test::Generic(address), 4));
  SocketRecord record = Snapshot();
  EXPECT_TRUE(record.handled);
  EXPECT_EQ(record.handled_addr_len, 4);
  EXPECT_EQ(record.handled_addr.sin_port, address.sin_port);
  EXPECT_EQ(record.handled_addr.sin_addr.s_addr, 0u);  // behind the four bytes
}

TEST_F(SocketMapTest, HandledAddrNeverPassesItsField) {
  map.Add(kSocket, SOCK_STREAM, IPPROTO_TCP, 9);
  const sockaddr_in addresses[2] = {Address("198.51.100.7", 80), Address("198.51.100.8", 81)};
  EXPECT_TRUE(map.SetHandledAddr(kSocket, test::Generic(addresses[0]), 28));
  EXPECT_EQ(Snapshot().handled_addr_len, 16);
  EXPECT_FALSE(Snapshot().udp_connect_mode);
  EXPECT_TRUE(map.SetHandledAddr(kSocket, test::Generic(addresses[0]), -1));
  EXPECT_EQ(Snapshot().handled_addr_len, 0);
}

TEST_F(SocketMapTest, ASnapshotDoesNotSeeLaterChanges) {
  map.Add(kSocket, SOCK_STREAM, IPPROTO_TCP, 9);
  const SocketRecord before = Snapshot();
  map.SetLocalPort(kSocket, 5);
  EXPECT_EQ(before.local_port, 0);
  EXPECT_EQ(Snapshot().local_port, 5);
}

struct RelayRecordsTest : SocketMapTest {
  RelayRecordsTest() { map.Add(kSocket, SOCK_DGRAM, IPPROTO_UDP, 9); }
  void Fill(int entries) {
    for (int i = 0; i < entries; ++i) {
      const sockaddr_in address = Destination(i);
      EXPECT_TRUE(map.SaveRelayRecord(kSocket, &address, i % 2 == 0));
    }
  }
  static sockaddr_in Destination(int i) {
    return Address(("198.51.100." + std::to_string(i + 1)).c_str(), 1000);
  }
};

TEST_F(RelayRecordsTest, AnEmptyTableHasRoom) {
  const sockaddr_in address = Destination(0);
  bool relay = true;
  bool has_free = false;
  EXPECT_FALSE(SocketMap::FindRelayRecord(Snapshot(), &address, &relay, &has_free));
  EXPECT_TRUE(has_free);
  EXPECT_TRUE(relay);  // untouched
}

TEST_F(RelayRecordsTest, EveryDestinationIsFoundByItsAddressOnly) {
  Fill(10);
  for (int i = 0; i < 10; ++i) {
    sockaddr_in address = Destination(i);
    address.sin_port = htons(2000);  // another port of the same host
    bool relay = i % 2 != 0;
    bool has_free = true;
    EXPECT_TRUE(SocketMap::FindRelayRecord(Snapshot(), &address, &relay, &has_free));
    EXPECT_EQ(relay, i % 2 == 0) << i;
    EXPECT_FALSE(has_free);
    EXPECT_TRUE(SocketMap::FindRelayRecord(Snapshot(), &address, nullptr, nullptr));
  }
}

TEST_F(RelayRecordsTest, AFullTableDoesNotChange) {
  Fill(11);
  const sockaddr_in eleventh = Destination(10);
  bool has_free = true;
  EXPECT_FALSE(SocketMap::FindRelayRecord(Snapshot(), &eleventh, nullptr, &has_free));
  EXPECT_FALSE(has_free);
  EXPECT_FALSE(SocketMap::FindRelayRecord(Snapshot(), &eleventh, nullptr, nullptr));
}

TEST_F(RelayRecordsTest, ANullAddressSavesNothing) {
  EXPECT_TRUE(map.SaveRelayRecord(kSocket, nullptr, true));
  EXPECT_EQ(Snapshot().relay_records[0].ip, 0u);
  EXPECT_FALSE(Snapshot().relay_records[0].relay);
}

// Handles are multiples of four, and the map spreads them over its parts.
TEST_F(SocketMapTest, WorkersSocketsComeInTheOrderOfTheirValues) {
  const std::vector<SOCKET> sockets = {400, 4, 72, 68, 136, 8};
  for (const SOCKET s : sockets) {
    map.Add(s, SOCK_STREAM, IPPROTO_TCP, static_cast<u32>(s));
    map.SetOfWorker(s, s != 72);
  }
  std::vector<SOCKET> found;
  for (SOCKET s = map.NextOfWorker(0); s != INVALID_SOCKET; s = map.NextOfWorker(s)) {
    found.push_back(s);
  }
  EXPECT_EQ(found, (std::vector<SOCKET>{4, 8, 68, 136, 400}));
}

TEST_F(SocketMapTest, TokenIsFoundWhateverItsSocket) {
  for (SOCKET s = 4; s <= 256; s += 4) map.Add(s, SOCK_STREAM, IPPROTO_TCP, static_cast<u32>(s));
  for (u32 token = 4; token <= 256; token += 4) EXPECT_TRUE(map.HasToken(token));
  EXPECT_FALSE(map.HasToken(260));
  map.Remove(132);
  EXPECT_FALSE(map.HasToken(132));
}

}  // namespace
}  // namespace moru_vyr::lsp
