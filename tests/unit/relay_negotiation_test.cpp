// The exchange with a node over a real stream. At stake: a node that sends anything but a complete,
// good answer may cost the game one attempt, and must never cause a read beyond the record's own
// bytes.
#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "protocol/nego_request.h"
#include "relay/relay_interfaces.h"
#include "route/acc_config.h"
#include "route/decision.h"
#include "stream/tcp_negotiation.h"
#include "tests/support/log_capture.h"
#include "tests/support/log_texts.h"
#include "tests/support/loopback.h"
#ifndef _WIN32
#include "port/shared/faults.h"
#endif

namespace moru_vyr::lsp {
namespace {

struct WriteRequests final : IRelaySocketMgr {
  u32 AddSocket(SOCKET, IRelaySocketDelegate*) noexcept override { return 0; }
  void StopReading(SOCKET) noexcept override {}
  u32 EnableWrite(SOCKET) noexcept override {
    ++count;
    return 0;
  }
  IRelaySocketDelegate* RemoveSocket(SOCKET) noexcept override { return nullptr; }
  u32 NextToken() noexcept override { return 0; }
  int count = 0;
};

NegoResponse GoodAnswer() {
  NegoResponse answer;
  answer.Init(3);
  answer.body.accl_token = 77;
  answer.body.client_isp = 4;
  answer.body.client_ip = 0xC6336401;  // 198.51.100.1
  answer.body.accl_data_ip = 0xC6336414;
  answer.body.accl_data_port = 5000;
  answer.body.last_node.node_id = 12;
  answer.body.last_node.ip = 0xC6336415;
  answer.body.last_node.port = 6000;
  answer.body.last_node.accl_token = 88;
  return answer;
}

std::string Wire(NegoResponse answer, u32 version = 3) {
  u8 bytes[sizeof answer];
  const int size = answer.Pack(bytes, version);
  return std::string(reinterpret_cast<const char*>(bytes), static_cast<size_t>(size));
}

struct Negotiation : testing::Test {
  Negotiation() {
    AccConfig config;
    config.game_id = 0x1122334455667788;
    std::strcpy(config.uin, "18446744073709551615");
    ReplaceAccConfig(config);
    common::SetLogThreshold(0);
    decision.game_idc = 501;
    decision.selected_proxy.surport_isps = 6;
  }
  ~Negotiation() override { ReplaceAccConfig(AccConfig{}); }

  bool Ask(u8 retry = 0) {
    return negotiation.SendTcpNegotiation(&requests, pair.here, 9, htonl(0xC633640A), htons(27015),
                                          retry, &guid, &decision);
  }
  // What the session would be told if the node sent exactly these bytes.
  int Hear(const std::string& bytes) {
    pair.OtherEndSays(bytes);
    return negotiation.ParseTcpNegotiation(&decision, &reason);
  }
  std::string Tail() { return "socket=" + std::to_string(SOCKET{pair.here}) + ", token=9\n"; }

  test::StreamPair pair;
  WriteRequests requests;
  SessionGuid guid = SessionGuid::Make();
  AccDecisionInfo decision;
  TcpNegotiation negotiation;
  u32 reason = 0;
};

TEST_F(Negotiation, TheRequestNamesTheClientAndTheServer) {
  test::LogCapture log(0);
  ASSERT_TRUE(Ask(1));
  EXPECT_TRUE(log.Contains("[0][lsp][TCP]Negotiation request is sent successfully\n"));
  u8 bytes[100];
  ASSERT_TRUE(test::BecomesReadable(pair.there));
  ASSERT_EQ(recv(pair.there, reinterpret_cast<char*>(bytes), sizeof bytes, 0), 73);
  NegoRequest request;
  ASSERT_EQ(request.Unpack(bytes), 73);
  EXPECT_EQ(int{request.header.version}, 3);
  EXPECT_EQ(int{request.header.pkg_len}, 73);
  EXPECT_EQ(u32{request.body.flags}, 0u);
  EXPECT_EQ(int{request.body.retry}, 1);
  EXPECT_EQ(u64{request.body.uin}, 18446744073709551615u);
  EXPECT_EQ(u32{request.body.game_id_low}, 0x55667788u);
  EXPECT_EQ(u64{request.body.game_id}, 0x1122334455667788u);
  EXPECT_EQ(u32{request.body.game_ip}, 0xC633640Au);
  EXPECT_EQ(int{request.body.game_port}, 27015);
  EXPECT_EQ(u32{request.body.game_idc}, 501u);
  EXPECT_EQ(std::memcmp(&request.body.guid, &guid, sizeof guid), 0);
  const LastNodeInfo none;
  EXPECT_EQ(std::memcmp(&request.body.last_node, &none, sizeof none), 0);
}

TEST(NegoRequestTest, TheUsersNumberIsParsedFromItsText) {
  const std::pair<const char*, u64> cases[] = {
      {"", 0}, {"x", 0}, {"12x", 12}, {"0010", 10}, {"99999999999999999999", ~u64{0}}};
  for (const auto& [text, number] : cases) {
    AccConfig config;
    std::strcpy(config.uin, text);
    ReplaceAccConfig(config);
    const NegoRequest request = MakeNegoRequest(0, 0, 0, SessionGuid{}, AccDecisionInfo{});
    EXPECT_EQ(u64{request.body.uin}, number) << text;
  }
  ReplaceAccConfig(AccConfig{});
}

TEST_F(Negotiation, AGoodAnswerIdentifiesTheClient) {
  test::LogCapture log(4);
  ASSERT_TRUE(Ask());
  EXPECT_EQ(Hear(Wire(GoodAnswer())), 0);
  EXPECT_EQ(u32{decision.selected_proxy.user_isp}, 4u);
  EXPECT_EQ(u32{decision.selected_proxy.user_ip}, htonl(0xC6336401));
  EXPECT_TRUE(log.Contains("[TCP]Negotiation response is received successfully, " + Tail()));
  EXPECT_TRUE(log.Contains("[4][lsp][TCP]Negotiation is successful\n"));
  EXPECT_TRUE(log.Contains(
      "[5][lsp][TCP] TcpNegotiation, NegotiationSuccess, accl_data_addr=198.51.100.20:5000, "
      "client_ip=198.51.100.1, client_isp=4, accl_token=77, last_node:(node_id=12, "
      "ip=198.51.100.21, port=6000, accl_token=88), token=9\n"))
      << log.Text();
}

// Data that the game server sends right behind the answer belongs to the game.
TEST_F(Negotiation, NothingAfterTheAnswerIsRead) {
  ASSERT_TRUE(Ask());
  EXPECT_EQ(Hear(Wire(GoodAnswer()) + "game"), 0);
  char rest[8];
  EXPECT_EQ(recv(pair.here, rest, sizeof rest, 0), 4);
  EXPECT_EQ(std::string(rest, 4), "game");
}

TEST_F(Negotiation, AnAnswerOfTheFirstVersionHasNoLastNode) {
  test::LogCapture log(5);
  ASSERT_TRUE(Ask());
  const std::string wire = Wire(GoodAnswer(), 1);
  ASSERT_EQ(wire.size(), 29u);
  EXPECT_EQ(Hear(wire), 0);
  EXPECT_TRUE(log.Contains(test::kNoLastNode + ", token=9\n"));
}

// The version decides, not the bytes that the node has put there.
TEST_F(Negotiation, AnAnswerBelowTheSecondVersionHasNoLastNodeWhateverItsBytesSay) {
  for (const int version : {0, 1, 2}) {
    test::LogCapture log(5);
    test::StreamPair fresh;
    TcpNegotiation attempt;
    ASSERT_TRUE(attempt.SendTcpNegotiation(&requests, fresh.here, 9, 1, 2, 0, &guid, &decision));
    std::string wire = Wire(GoodAnswer());
    wire[7] = static_cast<char>(version);
    fresh.OtherEndSays(wire);
    EXPECT_EQ(attempt.ParseTcpNegotiation(&decision, &reason), 0) << version;
    EXPECT_TRUE(log.Contains(version < 2 ? "last_node:(node_id=0, ip=0.0.0.0, port=0, accl_token=0)"
                                         : "last_node:(node_id=12, ip=198.51.100.21, port=6000, "
                                           "accl_token=88)"))
        << version << log.Text();
  }
}

TEST_F(Negotiation, EachBadAnswerHasItsReason) {
  const std::string good = Wire(GoodAnswer());
  std::string wrong_magic = good;
  wrong_magic[0] = 'y';
  const auto with_length = [&](int length) {
    std::string bytes = good;
    bytes[4] = static_cast<char>(length >> 8);
    bytes[5] = static_cast<char>(length);
    return bytes + std::string(100, 'z');
  };
  struct Case {
    const char* name;
    std::string bytes;
    u32 reason;
  };
  for (const Case& bad : {
           Case{"nothing", "", kNegoReceiveFailed},
           Case{"one byte", good.substr(0, 1), kNegoReceiveFailed},
           Case{"four bytes", good.substr(0, 4), kNegoReceiveFailed},
           Case{"the header alone", good.substr(0, 10), kNegoReceiveFailed},
           Case{"all but a byte", good.substr(0, good.size() - 1), kNegoReceiveFailed},
           Case{"wrong magic", wrong_magic, kNegoBadHeader},
           Case{"no body", with_length(10), kNegoBadHeader},
           Case{"less than itself", with_length(0), kNegoBadHeader},
           Case{"longer than any", with_length(42), kNegoBadHeader},
           Case{"much longer", with_length(65535), kNegoBadHeader},
       }) {
    test::StreamPair fresh;
    TcpNegotiation attempt;
    u32 why = 0;
    ASSERT_TRUE(attempt.SendTcpNegotiation(&requests, fresh.here, 9, 1, 2, 0, &guid, &decision));
    fresh.OtherEndSays(bad.bytes);
    EXPECT_EQ(attempt.ParseTcpNegotiation(&decision, &why), -1) << bad.name;
    EXPECT_EQ(why, bad.reason) << bad.name;
  }
}

TEST_F(Negotiation, ANodeThatClosesHasFailed) {
  ASSERT_TRUE(Ask());
  u8 request[73];
  ASSERT_TRUE(test::BecomesReadable(pair.there));
  EXPECT_EQ(recv(pair.there, reinterpret_cast<char*>(request), sizeof request, 0), 73);
  pair.there.Close();
  ASSERT_TRUE(test::BecomesReadable(pair.here));
  EXPECT_EQ(negotiation.ParseTcpNegotiation(&decision, &reason), -1);
  EXPECT_EQ(reason, kNegoReceiveFailed);
}

#ifndef _WIN32
struct NegotiationErrors : Negotiation {
  ~NegotiationErrors() override {
    port::SuccessKeepsLastError(false);
    port::SuccessLeavesLastError(0);
  }
  int HearTheEnd() {
    EXPECT_TRUE(Ask());
    u8 request[73];
    EXPECT_EQ(recv(pair.there, reinterpret_cast<char*>(request), sizeof request, 0), 73);
    pair.there.Close();
    EXPECT_TRUE(test::BecomesReadable(pair.here));
    WSASetLastError(WSAEWOULDBLOCK);
    return negotiation.ParseTcpNegotiation(&decision, &reason);
  }
};

// The last error of an earlier call says nothing about the node.
TEST_F(NegotiationErrors, AnErrorOfAnEarlierCallDoesNotHideThatTheNodeHasClosed) {
  port::SuccessKeepsLastError(true);
  EXPECT_EQ(HearTheEnd(), -1);
  EXPECT_EQ(reason, kNegoReceiveFailed);
}

// Kept: if the call that saw the end reports "would block", the node counts as one that has not
// answered yet.
TEST_F(NegotiationErrors, AnEndWithWouldBlockIsNeitherAnAnswerNorAFailure) {
  port::SuccessLeavesLastError(WSAEWOULDBLOCK);
  EXPECT_EQ(HearTheEnd(), 1);
  EXPECT_EQ(reason, kNegoReceiveFailed);
}
#endif

TEST_F(Negotiation, ARefusalKeepsItsNumberAndStillIdentifiesTheClient) {
  NegoResponse refusal = GoodAnswer();
  refusal.body.result = 9;
  refusal.body.client_isp = 8;  // not served either, but the refusal came first
  ASSERT_TRUE(Ask());
  EXPECT_EQ(Hear(Wire(refusal)), -1);
  EXPECT_EQ(reason, 9u);
  EXPECT_EQ(u32{decision.selected_proxy.user_isp}, 8u);
  EXPECT_EQ(u32{decision.selected_proxy.user_ip}, htonl(0xC6336401));
}

TEST_F(Negotiation, AnIspThatIsNotServedIsRefusedUnlessForced) {
  struct Case {
    i32 acc_reason;
    int result;
    u32 reason;
  };
  for (const Case& expected :
       {Case{kReasonAcce, -1, kNegoIspNotServed}, Case{kReasonOverMaxLost, -1, kNegoIspNotServed},
        Case{kReasonForceAuto, 0, 0}, Case{kReasonForceManual, 0, 0}}) {
    test::LogCapture log(5);
    test::StreamPair fresh;
    TcpNegotiation attempt;
    NegoResponse answer = GoodAnswer();
    answer.body.client_isp = 0x18;
    decision.acc_reason = expected.acc_reason;
    ASSERT_TRUE(attempt.SendTcpNegotiation(&requests, fresh.here, 9, 1, 2, 0, &guid, &decision));
    fresh.OtherEndSays(Wire(answer));
    EXPECT_EQ(attempt.ParseTcpNegotiation(&decision, &reason), expected.result);
    EXPECT_EQ(reason, expected.reason);
    const std::string forced =
        expected.result == 0 ? "isp not support, but force accl, " : "isp not support, ";
    EXPECT_TRUE(log.Contains("[TCP]CheckNegotiation " + forced +
                             "client_isp=18, support_isps=6, socket=" +
                             std::to_string(SOCKET{fresh.here}) + ", token=9\n"))
        << log.Text();
  }
}

// A refusal names a last node; an answer that is too short to name one must not inherit it.
TEST_F(Negotiation, ASecondAttemptForgetsTheFirst) {
  NegoResponse refusal = GoodAnswer();
  refusal.body.result = 9;
  ASSERT_TRUE(Ask());
  EXPECT_EQ(Hear(Wire(refusal)), -1);
  test::LogCapture log(5);
  test::StreamPair other;
  ASSERT_TRUE(negotiation.SendTcpNegotiation(&requests, other.here, 10, 1, 2, 1, &guid, &decision));
  std::string brief = Wire(GoodAnswer(), 1);
  brief[7] = 2;  // it says that there is more
  other.OtherEndSays(brief);
  EXPECT_EQ(negotiation.ParseTcpNegotiation(&decision, &reason), 0);
  EXPECT_TRUE(log.Contains("accl_token=77, last_node:(node_id=0, ip=0.0.0.0, port=0, "))
      << log.Text();
}

TEST_F(Negotiation, ARequestThatCannotBeSentIsAFailure) {
  test::LogCapture log(4);
  const SOCKET gone = pair.here.Release();
  closesocket(gone);
  EXPECT_FALSE(negotiation.SendTcpNegotiation(&requests, gone, 9, 1, 2, 0, &guid, &decision));
  EXPECT_TRUE(log.Contains("[4][lsp]" + test::kRequestNotSent +
                           "10038,socket=" + std::to_string(gone) + ", token=9\n"));
  EXPECT_EQ(requests.count, 0);
}

// Kept: it counts as sent, and the writable event that was requested ends the session.
TEST_F(Negotiation, ARequestThatWouldBlockCountsAsSent) {
  const auto fill = [&] {  // whether there was room
    const std::string much(1 << 16, 'x');
    bool took = false;
    while (send(pair.here, much.data(), static_cast<int>(much.size()), 0) > 0) took = true;
    while (send(pair.here, "x", 1, 0) == 1) took = true;
    return took;
  };
  // The other end's buffer takes its part when the system finds the time.
  while (fill()) test::BecomesWritable(pair.here, 300);
  ASSERT_EQ(WSAGetLastError(), WSAEWOULDBLOCK);
  test::LogCapture log(0);
  EXPECT_TRUE(Ask());
  EXPECT_EQ(requests.count, 1);
  EXPECT_FALSE(log.Contains("sent successfully"));
}

TEST_F(Negotiation, TimeIsCountedFromTheRequestAndIsNeverNothing) {
  EXPECT_GT(negotiation.ElapsedMs(), 0u);
  ASSERT_TRUE(Ask());
  const u32 elapsed = negotiation.ElapsedMs();
  EXPECT_GE(elapsed, 1u);
  EXPECT_LT(elapsed, 60000u);
}

}  // namespace
}  // namespace moru_vyr::lsp
