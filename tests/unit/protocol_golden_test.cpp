// Every record in every version against bytes that were written by hand: those of docs/wire.md,
// section 7. Other implementations of nodes read them, so a byte that moves breaks everyone.
#include <gtest/gtest.h>

#include <cstring>

#include "protocol/nego_request.h"
#include "protocol/nego_response.h"
#include "protocol/speed_test_payload.h"
#include "protocol/udp_accl_header.h"
#include "tests/support/wire_bytes.h"

namespace moru_vyr::lsp {
namespace {

using test::Bytes;
using test::Hex;
using test::ToHex;
using test::Value;

constexpr char kRequest1[] =
    "78 db 39 64 00 31 00 01 00 00 00 00 00 00 01 00"
    "00 00 00 00 00 27 11 00 00 00 07 cb 00 71 09 69"
    "87 00 11 22 33 44 55 66 77 88 99 aa bb cc dd ee"
    "ff";
constexpr char kRequest2[] =
    "78 db 39 64 00 41 00 02 00 00 00 00 00 00 01 00"
    "00 00 00 00 00 27 11 00 00 00 07 cb 00 71 09 69"
    "87 00 11 22 33 44 55 66 77 88 99 aa bb cc dd ee"
    "ff 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00"
    "2a";
constexpr char kRequest3[] =
    "78 db 39 64 00 49 00 03 00 00 00 00 00 00 01 00"
    "00 00 00 00 00 27 11 00 00 00 07 cb 00 71 09 69"
    "87 00 11 22 33 44 55 66 77 88 99 aa bb cc dd ee"
    "ff 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00"
    "2a 00 00 00 05 00 00 00 07";
constexpr char kSwitchRequest[] =
    "78 db 39 64 00 49 00 03 00 00 00 00 00 02 00 00"
    "00 00 00 00 00 27 11 00 00 00 07 cb 00 71 09 69"
    "87 00 11 22 33 44 55 66 77 88 99 aa bb cc dd ee"
    "ff 0b b9 23 8c c6 33 64 15 a1 b2 c3 d4 00 00 00"
    "2a 00 00 00 05 00 00 00 07";
constexpr char kResponse1[] =
    "78 db 39 64 00 1d 00 01 00 00 00 01 02 03 04 00"
    "00 00 04 c0 00 02 4d c6 33 64 14 23 f0";
constexpr char kResponse2[] =
    "78 db 39 64 00 29 00 02 00 00 00 01 02 03 04 00"
    "00 00 04 c0 00 02 4d c6 33 64 14 23 f0 0b b9 23"
    "8c c6 33 64 15 a1 b2 c3 d4";
constexpr char kResponse3[] =
    "78 db 39 64 00 29 00 03 00 00 00 01 02 03 04 00"
    "00 00 04 c0 00 02 4d c6 33 64 14 23 f0 0b b9 23"
    "8c c6 33 64 15 a1 b2 c3 d4";
constexpr char kRefusal[] =
    "78 db 39 64 00 1d 00 01 00 00 09 01 02 03 04 00"
    "00 00 04 c0 00 02 4d c6 33 64 14 23 f0";

constexpr u8 kGuidBytes[16] = {0x00, 0x11, 0x22, 0x33, 0x44, 0x55, 0x66, 0x77,
                               0x88, 0x99, 0xaa, 0xbb, 0xcc, 0xdd, 0xee, 0xff};

LastNodeInfo LastNode() { return {3001, 9100, 0xC6336415, 0xA1B2C3D4}; }

NegoRequest Request() {
  NegoRequest request;
  request.body.retry = 1;
  request.body.uin = 10001;
  request.body.game_id_low = 7;
  request.body.game_ip = 0xCB007109;  // 203.0.113.9
  request.body.game_port = 27015;
  request.body.guid = {
      0x00112233, 0x4455, 0x6677, {0x88, 0x99, 0xaa, 0xbb, 0xcc, 0xdd, 0xee, 0xff}};
  request.body.game_idc = 42;
  request.body.game_id = 0x0000000500000007;
  return request;
}

NegoResponse Response() {
  NegoResponse response;
  response.body.accl_token = 0x01020304;
  response.body.client_isp = 4;
  response.body.client_ip = 0xC000024D;     // 192.0.2.77
  response.body.accl_data_ip = 0xC6336414;  // 198.51.100.20
  response.body.accl_data_port = 9200;
  response.body.last_node = LastNode();
  return response;
}

UdpAcclHeader Header(u8 flags, u32 seq) {
  UdpAcclHeader header;
  header.flags = flags;
  header.seq = seq;
  header.accl_token = 0x01020304;
  header.game_ip = 0xCB007109;
  header.game_port = 27015;
  return header;
}

template <class Message>
std::string Packed(Message message, u32 version) {
  Bytes bytes(sizeof message);
  const int size = message.Pack(bytes, version);
  if (size < 0) return std::to_string(size);
  bytes.resize(static_cast<std::size_t>(size));
  return ToHex(bytes);
}

std::string Plain(const char* hex) { return ToHex(Hex(hex)); }

TEST(ProtocolGolden, RequestOfEachVersion) {
  EXPECT_EQ(Packed(Request(), 1), Plain(kRequest1));
  EXPECT_EQ(Packed(Request(), 2), Plain(kRequest2));
  EXPECT_EQ(Packed(Request(), 3), Plain(kRequest3));
}

TEST(ProtocolGolden, RequestThatMovesAFlow) {
  NegoRequest request = Request();
  request.body.flags = kNegoFlagSwitch;
  request.body.retry = 0;
  request.body.last_node = LastNode();
  EXPECT_EQ(Packed(request, 3), Plain(kSwitchRequest));
}

TEST(ProtocolGolden, ResponseOfEachVersion) {
  EXPECT_EQ(Packed(Response(), 1), Plain(kResponse1));
  EXPECT_EQ(Packed(Response(), 2), Plain(kResponse2));
  EXPECT_EQ(Packed(Response(), 3), Plain(kResponse3));
}

TEST(ProtocolGolden, Refusal) {
  NegoResponse response = Response();
  response.body.result = 9;
  EXPECT_EQ(Packed(response, 1), Plain(kRefusal));
}

TEST(ProtocolGolden, RequestIsReadFieldByField) {
  const Bytes bytes = Hex(kSwitchRequest);
  NegoRequest request;
  ASSERT_EQ(request.Unpack(bytes), 73);
  EXPECT_EQ(Value(request.header.magic), 0x78DB3964u);
  EXPECT_EQ(Value(request.header.pkg_len), 73);
  EXPECT_EQ(Value(request.header.version), 3);
  EXPECT_EQ(Value(request.header.reserved), 0);
  EXPECT_EQ(Value(request.body.flags), 2u);
  EXPECT_EQ(Value(request.body.retry), 0);
  EXPECT_EQ(Value(request.body.uin), 10001u);
  EXPECT_EQ(Value(request.body.game_id_low), 7u);
  EXPECT_EQ(Value(request.body.game_ip), 0xCB007109u);
  EXPECT_EQ(Value(request.body.game_port), 27015);
  EXPECT_EQ(Value(request.body.guid.data1), 0x00112233u);
  EXPECT_EQ(Value(request.body.guid.data2), 0x4455);
  EXPECT_EQ(Value(request.body.guid.data3), 0x6677);
  EXPECT_EQ(std::memcmp(request.body.guid.data4, kGuidBytes + 8, 8), 0);
  EXPECT_EQ(Value(request.body.last_node.node_id), 3001);
  EXPECT_EQ(Value(request.body.last_node.port), 9100);
  EXPECT_EQ(Value(request.body.last_node.ip), 0xC6336415u);
  EXPECT_EQ(Value(request.body.last_node.accl_token), 0xA1B2C3D4u);
  EXPECT_EQ(Value(request.body.game_idc), 42u);
  EXPECT_EQ(Value(request.body.game_id), 0x0000000500000007u);
}

TEST(ProtocolGolden, ResponseIsReadFieldByField) {
  const Bytes bytes = Hex(kResponse2);
  NegoResponse response;
  ASSERT_EQ(response.Unpack(bytes), 41);
  EXPECT_EQ(Value(response.header.pkg_len), 41);
  EXPECT_EQ(Value(response.header.version), 2);
  EXPECT_EQ(Value(response.body.result), 0);
  EXPECT_EQ(Value(response.body.accl_token), 0x01020304u);
  EXPECT_EQ(Value(response.body.client_isp), 4u);
  EXPECT_EQ(Value(response.body.client_ip), 0xC000024Du);
  EXPECT_EQ(Value(response.body.accl_data_ip), 0xC6336414u);
  EXPECT_EQ(Value(response.body.accl_data_port), 9200);
  EXPECT_EQ(Value(response.body.last_node.node_id), 3001);
  EXPECT_EQ(Value(response.body.last_node.accl_token), 0xA1B2C3D4u);
}

TEST(ProtocolGolden, NegoHeader) {
  NegoHeader header;
  header.pkg_len = 73;
  u8 bytes[10];
  EXPECT_EQ(header.Pack(bytes), 10);
  EXPECT_EQ(ToHex(bytes, sizeof bytes), "78 db 39 64 00 49 00 03 00 00");
  NegoHeader read;
  EXPECT_EQ(read.Unpack(bytes), 10);
  EXPECT_EQ(Value(read.pkg_len), 73);
}

TEST(ProtocolGolden, LastNodeInfo) {
  LastNodeInfo node = LastNode();
  u8 bytes[12];
  EXPECT_EQ(node.Pack(bytes), 12);
  EXPECT_EQ(ToHex(bytes, sizeof bytes), "0b b9 23 8c c6 33 64 15 a1 b2 c3 d4");
  LastNodeInfo read;
  EXPECT_EQ(read.Unpack(bytes), 12);
  EXPECT_EQ(std::memcmp(&read, &node, sizeof node), 0);
}

TEST(ProtocolGolden, WrappedData) {
  UdpAcclHeader header = Header(kUdpAcclData, 7);
  header.lost = 3;
  EXPECT_EQ(Packed(header, 1), "01 14 00 00 00 00 00 07 01 02 03 04 cb 00 71 09 69 87 00 03");
}

TEST(ProtocolGolden, WrappedDataWithALongerHeaderIsRead) {
  Bytes bytes =
      Hex("01 18 00 00 00 00 00 08 01 02 03 04 cb 00 71 09 69 87 00 65 de ad be ef 68 69");
  UdpAcclHeader header;
  EXPECT_EQ(header.Unpack(bytes), 24);
  EXPECT_EQ(Value(header.version), 1);
  EXPECT_EQ(Value(header.head_len), 24);
  EXPECT_EQ(Value(header.flags), 0);
  EXPECT_EQ(Value(header.relay_idx), 0);
  EXPECT_EQ(Value(header.seq), 8u);
  EXPECT_EQ(Value(header.accl_token), 0x01020304u);
  EXPECT_EQ(Value(header.game_ip), 0xCB007109u);
  EXPECT_EQ(Value(header.game_port), 27015);
  EXPECT_EQ(Value(header.lost), 101);
}

TEST(ProtocolGolden, EndMessage) {
  EXPECT_EQ(Packed(Header(kUdpAcclEnd, 9), 0),
            "01 14 04 00 00 00 00 09 01 02 03 04 cb 00 71 09 69 87 00 00");
}

TEST(ProtocolGolden, Probe) {
  SpeedTestPackage probe;
  probe.header = Header(kUdpAcclSpeedTest, 5);
  probe.payload.seq = 5;
  probe.payload.send_time = 1'700'000'000'123;
  Bytes bytes(sizeof probe);
  ASSERT_EQ(probe.Pack(bytes), 36);
  EXPECT_EQ(ToHex(bytes),
            "01 14 08 00 00 00 00 05 01 02 03 04 cb 00 71 09 69 87 00 00 "
            "8f bd 3a 25 05 00 00 00 7b 68 e5 cf 8b 01 00 00");
}

TEST(ProtocolGolden, ProbeAnsweredByTheSecondRelay) {
  Bytes bytes =
      Hex("01 14 08 02 00 00 00 05 01 02 03 04 cb 00 71 09 69 87 00 00"
          "8f bd 3a 25 05 00 00 00 7b 68 e5 cf 8b 01 00 00");
  UdpAcclHeader header;
  SpeedTestPayload payload;
  ASSERT_TRUE(ReadSpeedTestReply(bytes, &header, &payload));
  EXPECT_EQ(Value(header.relay_idx), 2);
  EXPECT_EQ(Value(header.seq), 5u);
  EXPECT_EQ(Value(payload.seq), 5u);
  EXPECT_EQ(Value(payload.send_time), 1'700'000'000'123u);
}

}  // namespace
}  // namespace moru_vyr::lsp
