// What the codecs refuse, with which number, and what they leave unchanged. The bytes are
// untrusted: every length of every record is tried.
#include <gtest/gtest.h>

#include <cstring>
#include <span>

#include "protocol/nego_request.h"
#include "protocol/nego_response.h"
#include "protocol/session_guid.h"
#include "protocol/speed_test_payload.h"
#include "protocol/udp_accl_header.h"
#include "tests/support/wire_bytes.h"

namespace moru_vyr::lsp {
namespace {

using test::Bytes;
using test::Hex;
using test::ToHex;
using test::Value;

constexpr u32 kBigEnough = 200;

template <class Record>
std::string BytesIn(const Record& record) {
  return ToHex(&record, sizeof record);
}

// --- lengths --------------------------------------------------------------------------------

// A buffer that is exactly as long as it says, so that the sanitizers see a byte too many.
template <class Record>
int PackInto(u32 length, Record record = {}) {
  Bytes buffer(length, 0xEE);
  const int result = record.Pack(buffer);
  if (result < 0) {
    EXPECT_EQ(buffer, Bytes(length, 0xEE)) << "touched with " << length << " bytes";
  }
  return result;
}
template <class Record>
int PackInto(u32 length, u32 version, Record record = {}) {
  Bytes buffer(length, 0xEE);
  const int result = record.Pack(buffer, version);
  if (result < 0) {
    EXPECT_EQ(buffer, Bytes(length, 0xEE)) << "touched with " << length << " bytes";
  }
  return result;
}

template <class Record>
void ExpectExactLength(u32 size) {
  for (u32 length = 1; length <= size + 3; ++length) {
    SCOPED_TRACE(length);
    EXPECT_EQ(PackInto<Record>(length), length < size ? -2 : static_cast<int>(size));
    const Bytes bytes(length, 0x11);
    Record record;
    const std::string before = BytesIn(record);
    const int result = record.Unpack(bytes);
    if (length < size) {
      EXPECT_EQ(result, -3);
      EXPECT_EQ(BytesIn(record), before);
    } else {
      EXPECT_EQ(result, static_cast<int>(size));
    }
  }
}

TEST(ProtocolLength, SessionGuidNeeds16) { ExpectExactLength<SessionGuid>(16); }
TEST(ProtocolLength, LastNodeInfoNeeds12) { ExpectExactLength<LastNodeInfo>(12); }

TEST(ProtocolLength, NegoHeaderNeeds10) {
  const Bytes good = Hex("78 db 39 64 00 49 00 03 00 00");
  for (u32 length = 1; length <= 10; ++length) {
    EXPECT_EQ(PackInto<NegoHeader>(length), length < 10 ? -2 : 10);
    const Bytes bytes(good.begin(), good.begin() + length);
    NegoHeader header;
    EXPECT_EQ(header.Unpack(bytes), length < 10 ? -3 : 10);
  }
}

template <class Body>
void ExpectBodyLength(u32 version, u32 size) {
  for (u32 length = 1; length <= size + 3; ++length) {
    SCOPED_TRACE(length);
    EXPECT_EQ(PackInto<Body>(length, version), length < size ? -2 : static_cast<int>(size));
    const Bytes bytes(length, 0x11);
    Body body;
    EXPECT_EQ(body.Unpack(bytes, version), length < size ? -3 : static_cast<int>(size));
  }
}

TEST(ProtocolLength, RequestBodyNeedsItsVersion) {
  ExpectBodyLength<NegoRequestBody>(1, 39);
  ExpectBodyLength<NegoRequestBody>(2, 55);
  ExpectBodyLength<NegoRequestBody>(3, 63);
  ExpectBodyLength<NegoRequestBody>(0, 63);
  ExpectBodyLength<NegoRequestBody>(4, 63);
}

TEST(ProtocolLength, ResponseBodyNeedsItsVersion) {
  ExpectBodyLength<NegoResponseBody>(1, 19);
  ExpectBodyLength<NegoResponseBody>(2, 31);
  ExpectBodyLength<NegoResponseBody>(3, 31);
  ExpectBodyLength<NegoResponseBody>(0, 31);
  ExpectBodyLength<NegoResponseBody>(0xFFFFFFFF, 31);
}

// Also where a shorter form would fit.
TEST(ProtocolLength, PackingARequestTakesRoomForTheLongestForm) {
  for (const u32 version : {0u, 1u, 2u, 3u}) {
    EXPECT_EQ(PackInto<NegoRequest>(72, version), -2) << version;
    EXPECT_GT(PackInto<NegoRequest>(73, version), 0) << version;
    EXPECT_EQ(PackInto<NegoResponse>(40, version), -2) << version;
    EXPECT_GT(PackInto<NegoResponse>(41, version), 0) << version;
  }
}

TEST(ProtocolLength, TheHeaderOfADatagramNeeds20) {
  for (u32 length = 1; length <= 22; ++length) {
    EXPECT_EQ(PackInto<UdpAcclHeader>(length, 1), length < 20 ? -2 : 20);
    Bytes bytes(length, 0);
    if (length > 1) bytes[1] = 20;
    UdpAcclHeader header;
    const std::string before = BytesIn(header);
    EXPECT_EQ(header.Unpack(bytes), length < 20 ? -3 : 20) << length;
    if (length < 20) {
      EXPECT_EQ(BytesIn(header), before);
    }
  }
}

// --- whole messages, cut short --------------------------------------------------------------

// Each form in which a message reaches a reader: every shorter length must be refused, with the
// number that says why.
template <class Message>
void ExpectEveryTruncationRefused(u32 version, u32 size) {
  Message message;
  Bytes whole(sizeof message);
  ASSERT_EQ(message.Pack(whole, version), static_cast<int>(size));
  for (u32 length = 1; length < size; ++length) {
    const Bytes bytes(whole.begin(), whole.begin() + length);
    Message read;
    EXPECT_EQ(read.Unpack(bytes), length < 10 ? -3 : -5) << length;
  }
  Message read;
  EXPECT_EQ(read.Unpack(std::span(whole).first(size)), static_cast<int>(size));
  EXPECT_EQ(read.Unpack(whole), static_cast<int>(size)) << "bytes behind";
}

TEST(ProtocolTruncation, EveryCutRequestIsRefused) {
  ExpectEveryTruncationRefused<NegoRequest>(1, 49);
  ExpectEveryTruncationRefused<NegoRequest>(2, 65);
  ExpectEveryTruncationRefused<NegoRequest>(3, 73);
}

TEST(ProtocolTruncation, EveryCutResponseIsRefused) {
  ExpectEveryTruncationRefused<NegoResponse>(1, 29);
  ExpectEveryTruncationRefused<NegoResponse>(2, 41);
  ExpectEveryTruncationRefused<NegoResponse>(3, 41);
}

// A message that lies about its length: more than there is, or so little that the cut is not seen
// by the header and must be seen by the body.
template <class Message>
void ExpectEveryClaimedLength(u32 version, u32 size) {
  Message message;
  Bytes bytes(sizeof message);
  message.Pack(bytes, version);
  for (u32 given = 10; given <= size; ++given) {
    for (u32 claimed = 0; claimed <= 0xFFFF; claimed += claimed < 80 ? 1 : 4093) {
      bytes[4] = static_cast<u8>(claimed >> 8);
      bytes[5] = static_cast<u8>(claimed);
      const Bytes cut(bytes.begin(), bytes.begin() + given);
      const int expected = claimed > given ? -5 : given < size ? -3 : static_cast<int>(size);
      Message read;
      ASSERT_EQ(read.Unpack(cut), expected) << given << " given, claims " << claimed;
    }
  }
}

TEST(ProtocolTruncation, AWrongLengthIsRefusedOrHarmless) {
  ExpectEveryClaimedLength<NegoRequest>(1, 49);
  ExpectEveryClaimedLength<NegoRequest>(2, 65);
  ExpectEveryClaimedLength<NegoRequest>(3, 73);
  ExpectEveryClaimedLength<NegoResponse>(1, 29);
  ExpectEveryClaimedLength<NegoResponse>(2, 41);
}

// Only a response forgets the high bits of its own length; the bytes are there all the same.
TEST(ProtocolTruncation, OnlyTheLowHalfOfAResponsesLengthIsCompared) {
  Bytes bytes(0x10000 + 41);
  NegoResponse response;
  response.Pack(bytes);
  EXPECT_EQ(response.Unpack(std::span(bytes).first(0x10000 + 40)), -5);
  EXPECT_EQ(response.Unpack(std::span(bytes).first(0x10000 + 41)), 41);
  NegoRequest request;
  request.Pack(bytes);
  EXPECT_EQ(request.Unpack(std::span(bytes).first(0x10000 + 40)), 73);
}

// --- magic ----------------------------------------------------------------------------------

TEST(ProtocolMagic, AWrongOneIsRefusedButTheFieldsAreRead) {
  const Bytes bytes = Hex("78 db 39 65 01 02 00 02 00 07");
  NegoHeader header;
  EXPECT_EQ(header.Unpack(bytes), -6);
  EXPECT_EQ(Value(header.magic), 0x78DB3965u);
  EXPECT_EQ(Value(header.pkg_len), 0x0102);
  EXPECT_EQ(Value(header.version), 2);
  EXPECT_EQ(Value(header.reserved), 7);
}

// The number says what was wrong with these bytes, not what an earlier message left in the record.
TEST(ProtocolMagic, AShortHeaderIsShortWhateverTheRecordHolds) {
  NegoHeader header;
  header.magic = 0;
  EXPECT_EQ(header.Unpack(Bytes(9, 0)), -3);
}

TEST(ProtocolMagic, EveryFlippedBitOfItRefusesTheMessage) {
  Bytes bytes(73);
  NegoRequest().Pack(bytes);
  for (unsigned bit = 0; bit < 32; ++bit) {
    Bytes flipped = bytes;
    flipped[bit / 8] = static_cast<u8>(flipped[bit / 8] ^ (1u << bit % 8));
    EXPECT_EQ(NegoRequest().Unpack(flipped), -6);
    EXPECT_EQ(NegoResponse().Unpack(flipped), -6);
  }
}

// --- versions -------------------------------------------------------------------------------

struct VersionCase {
  u32 argument;
  u16 header;
  int request_size;
  int response_size;
  u16 packed;
};

TEST(ProtocolVersion, TheArgumentDecidesAndElseTheHeader) {
  const VersionCase cases[] = {
      {1, 3, 49, 29, 1}, {2, 3, 65, 41, 2}, {3, 1, 73, 41, 3},          {0, 1, 49, 29, 1},
      {0, 2, 65, 41, 2}, {0, 3, 73, 41, 3}, {0, 0, 73, 41, 3},          {0, 9, 73, 41, 3},
      {9, 1, 73, 41, 3}, {4, 2, 73, 41, 3}, {0xFFFFFFFF, 1, 73, 41, 3},
  };
  for (const VersionCase& c : cases) {
    SCOPED_TRACE(testing::Message() << "argument " << c.argument << ", header " << c.header);
    u8 bytes[kBigEnough];
    NegoRequest request;
    request.header.version = c.header;
    EXPECT_EQ(request.Pack(bytes, c.argument), c.request_size);
    EXPECT_EQ(Value(request.header.version), c.packed);
    EXPECT_EQ(Value(request.header.pkg_len), c.request_size);
    EXPECT_EQ(bytes[5], c.request_size);
    EXPECT_EQ(bytes[7], c.packed);
    NegoResponse response;
    response.header.version = c.header;
    EXPECT_EQ(response.Pack(bytes, c.argument), c.response_size);
    EXPECT_EQ(Value(response.header.version), c.packed);
    EXPECT_EQ(Value(response.header.pkg_len), c.response_size);
  }
}

TEST(ProtocolVersion, AnUnknownOneIsReadAndRecordedAsTheNewest) {
  for (const u16 version : {u16{0}, u16{4}, u16{9}, u16{0xFFFF}}) {
    u8 bytes[73];
    NegoRequest().Pack(bytes);
    bytes[6] = static_cast<u8>(version >> 8);
    bytes[7] = static_cast<u8>(version);
    NegoRequest request;
    EXPECT_EQ(request.Unpack(bytes), 73);
    EXPECT_EQ(Value(request.header.version), 3);
    EXPECT_EQ(bytes[7], static_cast<u8>(version)) << "the packet stays as it came";
  }
}

TEST(ProtocolVersion, FieldsThatAVersionLacksAreNotChanged) {
  NegoResponse sent;
  sent.body.last_node = {9, 9, 9, 9};
  u8 bytes[kBigEnough];
  std::memset(bytes, 0xEE, sizeof bytes);
  ASSERT_EQ(sent.Pack(bytes, 1), 29);
  EXPECT_EQ(ToHex(bytes + 29, 4), "ee ee ee ee");
  NegoResponse read;
  read.body.last_node = {1, 2, 3, 4};
  ASSERT_EQ(read.Unpack(std::span(bytes).first(29)), 29);
  EXPECT_EQ(Value(read.body.last_node.node_id), 1);
  EXPECT_EQ(Value(read.body.last_node.accl_token), 4u);
}

TEST(ProtocolVersion, InitGivesTheFieldsOfTheVersionTheirFirstValues) {
  NegoRequest request;
  std::memset(static_cast<void*>(&request), 0xEE, sizeof request);
  request.Init(1);
  EXPECT_EQ(Value(request.header.magic), 0x78DB3964u);
  EXPECT_EQ(Value(request.header.pkg_len), 0);
  EXPECT_EQ(Value(request.header.version), 1);
  EXPECT_EQ(Value(request.header.reserved), 0);
  EXPECT_EQ(ToHex(&request.body, 39), ToHex(Bytes(39, 0)));
  EXPECT_EQ(Value(request.body.game_idc), 0xEEEEEEEEu);
  request.Init(0);
  EXPECT_EQ(BytesIn(request), BytesIn(NegoRequest{}));

  NegoResponse response;
  std::memset(static_cast<void*>(&response), 0xEE, sizeof response);
  response.Init(1);
  EXPECT_EQ(Value(response.body.accl_data_port), 0);
  EXPECT_EQ(Value(response.body.last_node.node_id), 0xEEEE);
  response.Init(3);
  EXPECT_EQ(BytesIn(response), BytesIn(NegoResponse{}));
}

TEST(ProtocolVersion, TheFirstValuesOfAHeader) {
  const NegoHeader header;
  EXPECT_EQ(Value(header.magic), 2027632996u);
  EXPECT_EQ(Value(header.pkg_len), 0);
  EXPECT_EQ(Value(header.version), 3);
  EXPECT_EQ(Value(header.reserved), 0);
  const UdpAcclHeader datagram;
  EXPECT_EQ(Value(datagram.version), 1);
  EXPECT_EQ(ToHex(reinterpret_cast<const u8*>(&datagram) + 1, 19), ToHex(Bytes(19, 0)));
  EXPECT_EQ(kSpeedTestMagic, 624606607u);
}

TEST(ProtocolVersion, TheFirstValuesOfABodyAreZeros) {
  EXPECT_EQ(BytesIn(NegoRequestBody{}), ToHex(Bytes(63, 0)));
  EXPECT_EQ(BytesIn(NegoResponseBody{}), ToHex(Bytes(31, 0)));
  EXPECT_EQ(BytesIn(LastNodeInfo{}), ToHex(Bytes(12, 0)));
  EXPECT_EQ(BytesIn(SessionGuid{}), ToHex(Bytes(16, 0)));
  const SpeedTestPayload probe;
  EXPECT_EQ(Value(probe.magic), kSpeedTestMagic);
  EXPECT_EQ(ToHex(reinterpret_cast<const u8*>(&probe) + 4, 12), ToHex(Bytes(12, 0)));
}

// --- the header of a datagram ---------------------------------------------------------------

TEST(UdpAcclHeader, PackSetsItsVersionAndLengthInTheRecord) {
  for (const u32 version : {0u, 1u, 2u, 77u}) {
    UdpAcclHeader header;
    header.version = 7;
    header.head_len = 99;
    u8 bytes[20];
    EXPECT_EQ(header.Pack(bytes, version), 20);
    EXPECT_EQ(Value(header.version), 1);
    EXPECT_EQ(Value(header.head_len), 20);
    EXPECT_EQ(bytes[0], 1);
    EXPECT_EQ(bytes[1], 20);
  }
}

TEST(UdpAcclHeader, AnUnknownVersionIsReadAndRecordedAsTheNewest) {
  for (const u8 version : {u8{0}, u8{2}, u8{9}, u8{255}}) {
    Bytes bytes(20, 0x33);
    bytes[0] = version;
    bytes[1] = 20;
    UdpAcclHeader header;
    EXPECT_EQ(header.Unpack(bytes), 20);
    EXPECT_EQ(Value(header.version), 1);
    EXPECT_EQ(Value(header.seq), 0x33333333u);
  }
}

TEST(UdpAcclHeader, TheResultIsTheHeadLengthOfThePacket) {
  Bytes bytes(20, 0);
  for (int head_len = 0; head_len <= 255; ++head_len) {
    bytes[1] = static_cast<u8>(head_len);
    UdpAcclHeader header;
    EXPECT_EQ(header.Unpack(bytes), head_len < 20 ? -5 : head_len);
  }
}

TEST(UdpAcclHeader, OfTwoErrorsTheFirstIsReported) {
  UdpAcclHeader header;
  Bytes bytes = Hex("01 13 00 00 00 00 00 00 00 00");
  EXPECT_EQ(header.Unpack(std::span(bytes).first(3)), -3);
  EXPECT_EQ(header.Unpack(bytes), -5);
  bytes[1] = 20;
  EXPECT_EQ(header.Unpack(bytes), -3);
}

// --- probes ---------------------------------------------------------------------------------

struct ReplyCase {
  const char* what;
  std::size_t size;      // of the datagram
  std::size_t position;  // of the byte that is changed, if it is below the size
  u8 value;
  bool is_reply;
};

TEST(SpeedTest, AReplyHasTheFlagTheLengthAndTheMagic) {
  const ReplyCase cases[] = {
      {"whole", 36, 99, 0, true},
      {"with more flags", 36, 2, 0x0C, true},
      {"from any relay", 36, 3, 9, true},
      {"of an unknown version", 36, 0, 9, true},
      {"without the flag", 36, 2, 4, false},
      {"with a wrong magic", 36, 20, 0x8E, false},
      {"one byte short", 35, 99, 0, false},
      {"one byte long", 37, 99, 0, false},
      {"with a header said to be longer", 36, 1, 21, false},
      {"with a header too short", 36, 1, 19, false},
      {"cut within the header", 19, 99, 0, false},
      {"a bare header", 20, 99, 0, false},
      {"nothing", 0, 99, 0, false},
  };
  for (const ReplyCase& c : cases) {
    SpeedTestPackage probe;
    probe.header.flags = kUdpAcclSpeedTest;
    Bytes bytes(sizeof probe);
    ASSERT_EQ(probe.Pack(bytes), 36);
    bytes.resize(c.size);
    if (c.position < c.size) bytes[c.position] = c.value;
    UdpAcclHeader header;
    SpeedTestPayload payload;
    EXPECT_EQ(ReadSpeedTestReply(bytes, &header, &payload), c.is_reply) << c.what;
  }
}

// A reader uses its record again and again: the flag of the last reply is no flag of these bytes,
// and the number of an error no place of a payload, although one would be found there.
TEST(SpeedTest, ADatagramThatCannotBeReadIsNoReplyAfterAReplyEither) {
  UdpAcclHeader header;
  header.flags = kUdpAcclSpeedTest;
  SpeedTestPayload payload;
  const Bytes too_short = Hex("8f bd 3a 25 14 00 00 00 00 00 00 00 00 00 00 00");
  EXPECT_FALSE(ReadSpeedTestReply(std::span(too_short).subspan(3), &header, &payload));
  const Bytes bad_length = Hex("8f bd 3a 25 00 01 13 00 00 00 00 00 00 00 00 00");
  EXPECT_FALSE(ReadSpeedTestReply(std::span(bad_length).subspan(5), &header, &payload));
}

TEST(SpeedTest, ThePayloadOfAReplyFollowsItsWholeHeader) {
  const Bytes bytes =
      Hex("01 16 08 01 00 00 00 05 01 02 03 04 cb 00 71 09 69 87 00 00 aa bb"
          "8f bd 3a 25 05 00 00 00 7b 68 e5 cf 8b 01 00 00");
  UdpAcclHeader header;
  SpeedTestPayload payload;
  ASSERT_TRUE(ReadSpeedTestReply(bytes, &header, &payload));
  EXPECT_EQ(Value(payload.seq), 5u);
  EXPECT_EQ(Value(payload.send_time), 1'700'000'000'123u);
}

TEST(SpeedTest, TheDelayIsAtLeastOneAndAtMost9999) {
  struct {
    u64 now, sent;
    u32 delay;
  } const cases[] = {
      {1000, 1000, 1},       {1000, 999, 1},      {1000, 998, 2},
      {1000, 1001, 1},       {10999, 1000, 9999}, {11000, 1000, 9999},
      {10998, 1000, 9998},   {0, ~0ull, 1},       {1'700'000'000'000, 0, 9999},
      {1000, 1ull << 63, 1}, {0, 5, 1},           {5, 0, 5},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(SpeedTestDelay(c.now, c.sent), c.delay) << c.now << " - " << c.sent;
  }
}

}  // namespace
}  // namespace moru_vyr::lsp
