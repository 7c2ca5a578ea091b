// The codecs against the second reader, and against themselves: whatever the fields hold, and
// whatever a stranger does to the bytes, both readers see the same.
#include <gtest/gtest.h>
#include <winsock2.h>

#include <algorithm>
#include <cstring>
#include <random>

#include "common/net_text.h"
#include "protocol/nego_request.h"
#include "protocol/nego_response.h"
#include "protocol/speed_test_payload.h"
#include "protocol/udp_accl_header.h"
#include "tests/unit/wire_bytes.h"
#include "tests/unit/wire_decoder.h"

namespace moru_vyr::lsp {
namespace {

using test::Bytes;
using test::ToHex;
using test::Value;

class Random {
 public:
  explicit Random(u32 seed) : engine_(seed) {}
  u32 operator()() { return static_cast<u32>(engine_()); }
  bool Coin() { return (*this)() % 2 == 0; }

 private:
  std::mt19937 engine_;
};

// A record whose every byte is chance. Extreme values come often.
template <class Record>
Record RandomRecord(Random* random) {
  Bytes bytes(sizeof(Record));
  const u32 mood = (*random)() % 4;
  for (u8& byte : bytes) {
    byte = mood == 0 ? u8{0xFF} : mood == 1 ? u8{0} : static_cast<u8>((*random)());
  }
  Record record;
  std::memcpy(static_cast<void*>(&record), bytes.data(), sizeof record);
  return record;
}

std::string IpText(u32 host_order) { return common::IpToString(htonl(host_order)); }

std::string GuidText(const SessionGuid& guid) {
  char text[SessionGuid::kTextSize];
  return guid.ToString(text, sizeof text);
}

void ExpectSame(const wire::LastNode& read, const LastNodeInfo& sent) {
  EXPECT_EQ(read.node_id, Value(sent.node_id));
  EXPECT_EQ(read.port, Value(sent.port));
  EXPECT_EQ(read.ip, IpText(sent.ip));
  EXPECT_EQ(read.token, Value(sent.accl_token));
}

void ExpectSame(const wire::Request& read, const NegoRequest& sent) {
  EXPECT_EQ(read.length, Value(sent.header.pkg_len));
  EXPECT_EQ(read.version, Value(sent.header.version));
  EXPECT_EQ(read.moves_flow, (sent.body.flags & kNegoFlagSwitch) != 0);
  EXPECT_EQ(read.retry, Value(sent.body.retry));
  EXPECT_EQ(read.user, Value(sent.body.uin));
  EXPECT_EQ(read.game_low, Value(sent.body.game_id_low));
  EXPECT_EQ(read.game_ip, IpText(sent.body.game_ip));
  EXPECT_EQ(read.game_port, Value(sent.body.game_port));
  EXPECT_EQ(read.guid, GuidText(sent.body.guid));
  if (read.version >= 2) {
    ExpectSame(read.last_node, sent.body.last_node);
    EXPECT_EQ(read.game_idc, Value(sent.body.game_idc));
  }
  if (read.version >= 3) {
    EXPECT_EQ(read.game, Value(sent.body.game_id));
  }
}

void ExpectSame(const wire::Response& read, const NegoResponse& sent) {
  EXPECT_EQ(read.length, Value(sent.header.pkg_len));
  EXPECT_EQ(read.version, Value(sent.header.version));
  EXPECT_EQ(read.result, Value(sent.body.result));
  EXPECT_EQ(read.token, Value(sent.body.accl_token));
  EXPECT_EQ(read.client_isp, Value(sent.body.client_isp));
  EXPECT_EQ(read.client_ip, IpText(sent.body.client_ip));
  EXPECT_EQ(read.data_ip, IpText(sent.body.accl_data_ip));
  EXPECT_EQ(read.data_port, Value(sent.body.accl_data_port));
  if (read.version >= 2) ExpectSame(read.last_node, sent.body.last_node);
}

void ExpectSame(const wire::Wrapped& read, const UdpAcclHeader& sent) {
  EXPECT_EQ(read.version, Value(sent.version));
  EXPECT_EQ(read.payload_at, Value(sent.head_len));
  EXPECT_EQ(read.flags, Value(sent.flags));
  EXPECT_EQ(read.relay, Value(sent.relay_idx));
  EXPECT_EQ(read.seq, Value(sent.seq));
  EXPECT_EQ(read.token, Value(sent.accl_token));
  EXPECT_EQ(read.game_ip, IpText(sent.game_ip));
  EXPECT_EQ(read.game_port, Value(sent.game_port));
  EXPECT_EQ(read.lost, Value(sent.lost));
}

// Packs through a buffer, in place, and back both ways; the second reader reads what was packed.
template <class Message, class Read>
void RoundTrips(Random* random) {
  for (int i = 0; i < 3000; ++i) {
    Message sent = RandomRecord<Message>(random);
    sent.header.magic = kNegoMagic;
    const u32 version = (*random)() % 5;
    Bytes bytes(sizeof sent);
    Message in_place = sent;
    const int size = sent.Pack(bytes.data(), sizeof sent, version);
    ASSERT_GT(size, 0);
    ASSERT_EQ(in_place.Pack(nullptr, 0, version), size);
    bytes.resize(static_cast<std::size_t>(size));
    ASSERT_EQ(ToHex(&in_place, bytes.size()), ToHex(bytes));
    ASSERT_EQ(in_place.Unpack(nullptr, 0), size);
    ASSERT_EQ(ToHex(&in_place, sizeof sent), ToHex(&sent, sizeof sent));
    Message read;
    ASSERT_EQ(read.Unpack(bytes.data(), static_cast<u32>(bytes.size())), size);
    ASSERT_EQ(ToHex(&read, bytes.size()), ToHex(&sent, bytes.size()));
    Read other;
    ASSERT_EQ(wire::Decode(bytes, &other), 0);
    ExpectSame(other, sent);
    if (testing::Test::HasFailure()) return;
  }
}

TEST(ProtocolDecoder, RequestsRoundTripAndReadTheSame) {
  Random random(1);
  RoundTrips<NegoRequest, wire::Request>(&random);
}

TEST(ProtocolDecoder, ResponsesRoundTripAndReadTheSame) {
  Random random(2);
  RoundTrips<NegoResponse, wire::Response>(&random);
}

TEST(ProtocolDecoder, DatagramHeadersRoundTripAndReadTheSame) {
  Random random(3);
  for (int i = 0; i < 3000; ++i) {
    auto sent = RandomRecord<UdpAcclHeader>(&random);
    UdpAcclHeader in_place = sent;
    Bytes bytes(sizeof sent);
    ASSERT_EQ(sent.Pack(bytes.data(), sizeof sent, 0), 20);
    ASSERT_EQ(in_place.Pack(nullptr, 0, 0), 20);
    ASSERT_EQ(ToHex(&in_place, sizeof in_place), ToHex(bytes));
    wire::Wrapped other;
    ASSERT_EQ(wire::Decode(bytes, &other), 0);
    ExpectSame(other, sent);
    ASSERT_EQ(in_place.Unpack(nullptr, 0), 20);
    ASSERT_EQ(ToHex(&in_place, sizeof in_place), ToHex(&sent, sizeof sent));
    if (testing::Test::HasFailure()) return;
  }
}

TEST(ProtocolDecoder, PartsOfRecordsRoundTripInPlace) {
  Random random(4);
  for (int i = 0; i < 1000; ++i) {
    auto guid = RandomRecord<SessionGuid>(&random);
    const std::string guid_before = ToHex(&guid, sizeof guid);
    EXPECT_EQ(guid.Pack(nullptr, 0), 16);
    EXPECT_EQ(guid.Unpack(nullptr, 0), 16);
    EXPECT_EQ(ToHex(&guid, sizeof guid), guid_before);
    auto node = RandomRecord<LastNodeInfo>(&random);
    const std::string node_before = ToHex(&node, sizeof node);
    EXPECT_EQ(node.Pack(nullptr, 0), 12);
    EXPECT_EQ(node.Unpack(nullptr, 0), 12);
    EXPECT_EQ(ToHex(&node, sizeof node), node_before);
  }
}

// --- what a stranger may send ---------------------------------------------------------------

Bytes Damaged(Bytes bytes, Random* random) {
  for (u32 changes = (*random)() % 4; changes > 0; --changes) {
    // Half of them where the lengths and versions are, and half to values that make sense there.
    const std::size_t reach = random->Coin() ? 10 : bytes.size();
    bytes[(*random)() % reach] = static_cast<u8>(random->Coin() ? (*random)() % 80 : (*random)());
  }
  if (random->Coin()) bytes.resize((*random)() % (bytes.size() + 20));
  bytes.reserve(1);  // an address even where there are no bytes
  return bytes;
}

template <class Message, class Read>
void ReadersAgree(Random* random) {
  int accepted = 0;
  int refused = 0;
  for (int i = 0; i < 30000; ++i) {
    Message sent = RandomRecord<Message>(random);
    sent.header.magic = kNegoMagic;
    Bytes bytes(sizeof sent);
    bytes.resize(static_cast<std::size_t>(sent.Pack(bytes.data(), sizeof sent, (*random)() % 4)));
    bytes = Damaged(bytes, random);
    Message read;
    Read other;
    const int result = read.Unpack(bytes.data(), static_cast<u32>(bytes.size()));
    ASSERT_EQ(std::min(result, 0), wire::Decode(bytes, &other)) << ToHex(bytes);
    ++(result < 0 ? refused : accepted);
    if (result < 0) continue;
    ExpectSame(other, read);
    if (testing::Test::HasFailure()) FAIL() << ToHex(bytes);
  }
  EXPECT_GT(accepted, 1000);
  EXPECT_GT(refused, 1000);
}

TEST(ProtocolDecoder, BothReadersJudgeDamagedRequestsTheSame) {
  Random random(5);
  ReadersAgree<NegoRequest, wire::Request>(&random);
}

TEST(ProtocolDecoder, BothReadersJudgeDamagedResponsesTheSame) {
  Random random(6);
  ReadersAgree<NegoResponse, wire::Response>(&random);
}

TEST(ProtocolDecoder, BothReadersJudgeDamagedDatagramsTheSame) {
  Random random(7);
  int replies = 0;
  for (int i = 0; i < 30000; ++i) {
    SpeedTestPackage probe;
    probe.header = RandomRecord<UdpAcclHeader>(&random);
    if (random.Coin()) probe.header.flags |= kUdpAcclSpeedTest;
    probe.header.Pack(nullptr, 0, 0);
    probe.payload.send_time = random();
    Bytes bytes(sizeof probe);
    std::memcpy(bytes.data(), &probe, sizeof probe);
    bytes = Damaged(bytes, &random);

    wire::Wrapped other;
    wire::Probe other_probe;
    const int verdict = wire::Decode(bytes, &other);
    const bool is_reply = wire::Decode(bytes, &other, &other_probe);
    UdpAcclHeader header;
    SpeedTestPayload payload;
    const u32 size = static_cast<u32>(bytes.size());
    ASSERT_EQ(ReadSpeedTestReply(bytes.data(), size, &header, &payload), is_reply) << ToHex(bytes);
    const int result = header.Unpack(bytes.data(), size);
    ASSERT_EQ(std::min(result, 0), verdict) << ToHex(bytes);
    if (result > 0) ExpectSame(other, header);
    if (is_reply) {
      ++replies;
      EXPECT_EQ(other_probe.seq, Value(payload.seq));
      EXPECT_EQ(other_probe.sent_ms, Value(payload.send_time));
    }
    if (testing::Test::HasFailure()) FAIL() << ToHex(bytes);
  }
  EXPECT_GT(replies, 1000);
}

}  // namespace
}  // namespace moru_vyr::lsp
