// The codecs against the second reader, and against themselves: whatever the fields hold, and
// however the bytes are damaged, both readers see the same.
#include <gtest/gtest.h>
#include <winsock2.h>

#include <algorithm>
#include <cstring>
#include <random>
#include <span>

#include "protocol/nego_request.h"
#include "protocol/nego_response.h"
#include "protocol/speed_test_payload.h"
#include "protocol/udp_accl_header.h"
#include "tests/support/wire_bytes.h"
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

// A record of random bytes. Extreme values are frequent.
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

std::string GuidText(const SessionGuid& guid) {
  char text[SessionGuid::kTextSize];
  return guid.ToString(text, sizeof text);
}

void ExpectSame(const wire::PreviousNode& read, const LastNodeInfo& sent) {
  EXPECT_EQ(read.number, Value(sent.node_id));
  EXPECT_EQ(read.port, Value(sent.port));
  EXPECT_EQ(read.address, Value(sent.ip));
  EXPECT_EQ(read.token, Value(sent.accl_token));
}

// The codecs put the version that they read by into the record; the second reader leaves it.
u32 VersionRead(const wire::Opening& opening) {
  return NormaliseVersion(opening.version, kNegoVersion);
}

void ExpectSame(const wire::Opening& read, const NegoHeader& sent) {
  EXPECT_EQ(read.declared_length, Value(sent.pkg_len));
  EXPECT_EQ(VersionRead(read), Value(sent.version));
  EXPECT_EQ(read.reserved, Value(sent.reserved));
}

void ExpectSame(const wire::Request& read, const NegoRequest& sent) {
  ExpectSame(read.opening, sent.header);
  EXPECT_EQ(read.flags, Value(sent.body.flags));
  EXPECT_EQ(read.moves_a_flow, (sent.body.flags & kNegoFlagSwitch) != 0);
  EXPECT_EQ(read.retry, Value(sent.body.retry));
  EXPECT_EQ(read.user, Value(sent.body.uin));
  EXPECT_EQ(read.game_low, Value(sent.body.game_id_low));
  EXPECT_EQ(read.server_address, Value(sent.body.game_ip));
  EXPECT_EQ(read.server_port, Value(sent.body.game_port));
  EXPECT_EQ(read.guid, GuidText(sent.body.guid));
  if (VersionRead(read.opening) >= 2) {
    ExpectSame(read.previous, sent.body.last_node);
    EXPECT_EQ(read.data_centre, Value(sent.body.game_idc));
  }
  if (VersionRead(read.opening) >= 3) {
    EXPECT_EQ(read.game, Value(sent.body.game_id));
  }
}

void ExpectSame(const wire::Answer& read, const NegoResponse& sent) {
  ExpectSame(read.opening, sent.header);
  EXPECT_EQ(read.result, Value(sent.body.result));
  EXPECT_EQ(read.token, Value(sent.body.accl_token));
  EXPECT_EQ(read.provider, Value(sent.body.client_isp));
  EXPECT_EQ(read.client_address, Value(sent.body.client_ip));
  EXPECT_EQ(read.data_address, Value(sent.body.accl_data_ip));
  EXPECT_EQ(read.data_port, Value(sent.body.accl_data_port));
  if (VersionRead(read.opening) >= 2) ExpectSame(read.previous, sent.body.last_node);
}

void ExpectSame(const wire::Datagram& read, const UdpAcclHeader& sent) {
  EXPECT_EQ(read.version, Value(sent.version));
  EXPECT_EQ(read.payload_at, Value(sent.head_len));
  EXPECT_EQ(read.flags, Value(sent.flags));
  EXPECT_EQ(read.relay, Value(sent.relay_idx));
  EXPECT_EQ(read.number, Value(sent.seq));
  EXPECT_EQ(read.token, Value(sent.accl_token));
  EXPECT_EQ(read.peer_address, Value(sent.game_ip));
  EXPECT_EQ(read.peer_port, Value(sent.game_port));
  EXPECT_EQ(read.reserved, Value(sent.reserved));
  EXPECT_EQ(read.lost, Value(sent.lost));
}

// Packs the record and reads it back; a second decoder reads the same bytes.
template <class Message, class Read>
void RoundTrips(Random* random) {
  for (int i = 0; i < 3000; ++i) {
    Message sent = RandomRecord<Message>(random);
    sent.header.magic = kNegoMagic;
    const u32 version = (*random)() % 5;
    Bytes bytes(sizeof sent);
    const int size = sent.Pack(bytes, version);
    ASSERT_GT(size, 0);
    bytes.resize(static_cast<std::size_t>(size));
    Message read;
    ASSERT_EQ(read.Unpack(bytes), size);
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
  RoundTrips<NegoResponse, wire::Answer>(&random);
}

TEST(ProtocolDecoder, DatagramHeadersRoundTripAndReadTheSame) {
  Random random(3);
  for (int i = 0; i < 3000; ++i) {
    auto sent = RandomRecord<UdpAcclHeader>(&random);
    Bytes bytes(sizeof sent);
    ASSERT_EQ(sent.Pack(bytes), 20);
    wire::Datagram other;
    ASSERT_EQ(wire::Decode(bytes, &other), 0);
    ExpectSame(other, sent);
    UdpAcclHeader read;
    ASSERT_EQ(read.Unpack(bytes), 20);
    ASSERT_EQ(ToHex(&read, sizeof read), ToHex(&sent, sizeof sent));
    if (testing::Test::HasFailure()) return;
  }
}

template <class Record>
void PartRoundTrips(Random* random) {
  const auto sent = RandomRecord<Record>(random);
  Bytes bytes(sizeof sent);
  Record read;
  EXPECT_EQ(sent.Pack(bytes), static_cast<int>(sizeof sent));
  EXPECT_EQ(read.Unpack(bytes), static_cast<int>(sizeof sent));
  EXPECT_EQ(ToHex(&read, sizeof read), ToHex(&sent, sizeof sent));
}

TEST(ProtocolDecoder, PartsOfRecordsRoundTrip) {
  Random random(4);
  for (int i = 0; i < 1000; ++i) {
    PartRoundTrips<SessionGuid>(&random);
    PartRoundTrips<LastNodeInfo>(&random);
  }
}

// --- what anyone may send -------------------------------------------------------------------

Bytes Damaged(Bytes bytes, Random* random) {
  for (u32 changes = (*random)() % 4; changes > 0; --changes) {
    // Half of the changes hit lengths and versions, and half of the values are valid there.
    const std::size_t reach = random->Coin() ? 10 : bytes.size();
    bytes[(*random)() % reach] = static_cast<u8>(random->Coin() ? (*random)() % 80 : (*random)());
  }
  if (random->Coin()) bytes.resize((*random)() % (bytes.size() + 20));
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
    bytes.resize(static_cast<std::size_t>(sent.Pack(bytes, (*random)() % 4)));
    bytes = Damaged(bytes, random);
    Message read;
    Read other;
    const int result = read.Unpack(bytes);
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
  ReadersAgree<NegoResponse, wire::Answer>(&random);
}

// Every record of every version, cut after every byte: both refuse each cut with the same result.
template <class Message, class Read>
void BothRefuseEveryTruncation(u32 version) {
  Message sent;
  Bytes bytes(sizeof sent);
  const int size = sent.Pack(bytes, version);
  for (int length = 0; length < size; ++length) {
    const std::span<const u8> cut(bytes.data(), static_cast<std::size_t>(length));
    Message read;
    Read other;
    const int result = read.Unpack(cut);
    EXPECT_LT(result, 0) << "version " << version << ", " << length << " bytes";
    EXPECT_EQ(wire::Decode(cut, &other), result) << length << " bytes";
  }
}

TEST(ProtocolDecoder, BothReadersRefuseEveryTruncation) {
  for (u32 version = 1; version <= kNegoVersion; ++version) {
    BothRefuseEveryTruncation<NegoRequest, wire::Request>(version);
    BothRefuseEveryTruncation<NegoResponse, wire::Answer>(version);
  }
  UdpAcclHeader sent;
  Bytes bytes(sizeof sent);
  ASSERT_EQ(sent.Pack(bytes), 20);
  for (u32 length = 0; length < bytes.size(); ++length) {
    UdpAcclHeader read;
    wire::Datagram other;
    const std::span<const u8> cut(bytes.data(), length);
    EXPECT_EQ(read.Unpack(cut), kUnpackTooShort) << length << " bytes";
    EXPECT_EQ(wire::Decode(cut, &other), kUnpackTooShort);
  }
}

// Over a stream a short record is one with fewer fields, down to the result alone, whatever its
// version says.
TEST(ProtocolDecoder, StreamAnswersAreReadAsFarAsTheyGo) {
  Random random(8);
  NegoResponse sent = RandomRecord<NegoResponse>(&random);
  sent.header.magic = kNegoMagic;
  Bytes bytes(sizeof sent);
  ASSERT_EQ(sent.Pack(bytes, 3), 41);
  wire::Answer read;
  for (u8 version = 0; version < 5; ++version) {
    for (u8 length = 0; length < 50; ++length) {
      bytes[5] = length;
      bytes[7] = version;
      const bool in_range = length >= 11 && length <= 41;
      ASSERT_EQ(wire::DecodeStreamAnswer(bytes, &read),
                in_range ? wire::kFine : wire::kWrongLength);
      if (!in_range) continue;
      NegoResponseBody body;
      u8 padded[31] = {};
      std::copy_n(bytes.data() + 10, length - 10, padded);
      ASSERT_EQ(body.Unpack(padded, 2), 31);
      EXPECT_EQ(read.token, Value(body.accl_token)) << length << " bytes";
      EXPECT_EQ(read.data_port, Value(body.accl_data_port)) << length << " bytes";
      ExpectSame(read.previous, body.last_node);
      const std::span<const u8> cut(bytes.data(), length - 1u);
      EXPECT_EQ(wire::DecodeStreamAnswer(cut, &read), wire::kTooShort);
    }
  }
}

TEST(ProtocolDecoder, BothReadersJudgeDamagedDatagramsTheSame) {
  Random random(7);
  int replies = 0;
  for (int i = 0; i < 30000; ++i) {
    SpeedTestPackage probe;
    probe.header = RandomRecord<UdpAcclHeader>(&random);
    if (random.Coin()) probe.header.flags |= kUdpAcclSpeedTest;
    probe.payload.send_time = random();
    Bytes bytes(sizeof probe);
    ASSERT_EQ(probe.Pack(bytes), 36);
    bytes = Damaged(bytes, &random);

    wire::Datagram other;
    const int verdict = wire::Decode(bytes, &other);
    const bool is_reply = verdict == 0 && other.kind == wire::Kind::kProbe;
    UdpAcclHeader header;
    SpeedTestPayload payload;
    ASSERT_EQ(ReadSpeedTestReply(bytes, &header, &payload), is_reply) << ToHex(bytes);
    const int result = header.Unpack(bytes);
    ASSERT_EQ(std::min(result, 0), verdict) << ToHex(bytes);
    if (result > 0) ExpectSame(other, header);
    if (is_reply) {
      ++replies;
      EXPECT_EQ(other.probe.number, Value(payload.seq));
      EXPECT_EQ(other.probe.sent_at, Value(payload.send_time));
    }
    if (testing::Test::HasFailure()) FAIL() << ToHex(bytes);
  }
  EXPECT_GT(replies, 1000);
}

}  // namespace
}  // namespace moru_vyr::lsp
