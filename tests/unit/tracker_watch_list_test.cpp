// What the Tracker stores about a socket, call by call.
#include <gtest/gtest.h>

#include <set>
#include <string>

#include "relay/nego_common.h"
#include "tests/support/log_capture.h"
#include "tests/support/log_texts.h"
#include "tests/support/tracker_fixture.h"
#include "tracker/series_code.h"

namespace moru_vyr::lsp {
namespace {

using test::At;
using test::kSocket;
using test::kToken;
using test::SomeDecision;

using WatchList = test::TrackerTest;

TEST_F(WatchList, NewSocketStartsWithNothing) {
  const test::LogCapture log(0);
  const u32 before = GetTickCount();
  tracker.AddToWatchList(kSocket, kTrackTcp, kToken);
  const SocketQosRecord& record = Record();
  EXPECT_EQ(record.socket, kSocket);
  EXPECT_EQ(record.socket_type, 1u);
  EXPECT_EQ(record.token, kToken);
  EXPECT_TRUE(record.continuous);
  EXPECT_FALSE(record.is_acce);
  EXPECT_FALSE(record.nego_success);
  EXPECT_GE(record.create_tick, before);
  EXPECT_EQ(record.total_sent_packets + record.total_recv_packets, 0u);
  EXPECT_TRUE(log.Contains("[Tracker] Add 77 to watch list, token=5\n")) << log.Text();
}

TEST_F(WatchList, SecondEntryKeepsTheFirstAndItsCounters) {
  tracker.AddToWatchList(kSocket, kTrackTcp, kToken);
  tracker.RecordSend(kSocket, 10, 0);
  const std::string code = Record().series_code;
  const test::LogCapture log(0);
  tracker.AddToWatchList(kSocket, kTrackUdp, 6);
  EXPECT_EQ(Record().socket_type, kTrackTcp);
  EXPECT_EQ(Record().token, kToken);
  EXPECT_EQ(Record().total_sent_bytes, 10u);
  EXPECT_EQ(Record().series_code, code);
  EXPECT_EQ(log.Text(), "");
}

TEST_F(WatchList, SocketThatCameBackIsANewOne) {
  tracker.AddToWatchList(kSocket, kTrackTcp, kToken);
  tracker.RecordSend(kSocket, 10, 0);
  tracker.RemoveFromWatchList(kSocket);
  EXPECT_EQ(tracker.Find(kSocket), nullptr);
  tracker.AddToWatchList(kSocket, kTrackUdp, 6);
  EXPECT_EQ(Record().total_sent_bytes, 0u);
  EXPECT_EQ(Record().token, 6u);
}

// --- traffic ----------------------------------------------------------------------------------

TEST_F(WatchList, CountsWhatWasReceived) {
  tracker.AddToWatchList(kSocket, kTrackUdp, kToken);
  tracker.RecordRecv(kSocket, 100, 0);
  const u32 first = Record().last_recv_tick;
  EXPECT_NE(first, 0u);
  Sleep(20);
  tracker.RecordRecv(kSocket, 7, 0);
  tracker.RecordRecv(kSocket, 0, 0);  // an empty datagram is one too
  EXPECT_EQ(Record().total_recv_bytes, 107u);
  EXPECT_EQ(Record().total_recv_packets, 3u);
  EXPECT_GT(Record().last_recv_tick, first);
  EXPECT_EQ(Record().total_sent_packets, 0u);
  EXPECT_EQ(Record().total_recv_errors, 0u);
}

TEST_F(WatchList, CountsWhatWasSent) {
  tracker.AddToWatchList(kSocket, kTrackUdp, kToken);
  tracker.RecordSend(kSocket, 100, 0);
  const u32 first = Record().last_send_tick;
  EXPECT_NE(first, 0u);
  Sleep(20);
  tracker.RecordSend(kSocket, 7, 0);
  EXPECT_EQ(Record().total_sent_bytes, 107u);
  EXPECT_EQ(Record().total_sent_packets, 2u);
  EXPECT_GT(Record().last_send_tick, first);
  EXPECT_EQ(Record().total_recv_packets, 0u);
  EXPECT_EQ(Record().total_sent_errors, 0u);
}

TEST_F(WatchList, KeepsTheFirstErrorAndTheLast) {
  tracker.AddToWatchList(kSocket, kTrackUdp, kToken);
  for (const int error : {10054, 10050, 10051}) tracker.RecordRecv(kSocket, 55, error);
  EXPECT_EQ(Record().total_recv_errors, 3u);
  EXPECT_EQ(Record().first_recv_error_code, 10054u);
  EXPECT_EQ(Record().curr_recv_error_code, 10051u);
  EXPECT_EQ(Record().total_recv_bytes + Record().total_recv_packets, 0u);
  EXPECT_EQ(Record().last_recv_tick, 0u);
  EXPECT_EQ(Record().total_sent_errors + Record().first_send_error_code, 0u);
  for (const int error : {10055, 10052}) tracker.RecordSend(kSocket, 55, error);
  EXPECT_EQ(Record().total_sent_errors, 2u);
  EXPECT_EQ(Record().first_send_error_code, 10055u);
  EXPECT_EQ(Record().curr_send_error_code, 10052u);
  EXPECT_EQ(Record().total_sent_bytes + Record().total_sent_packets, 0u);
  EXPECT_EQ(Record().total_recv_errors, 3u);
}

TEST_F(WatchList, ErrorsThatMeanLaterChangeNoField) {
  tracker.AddToWatchList(kSocket, kTrackUdp, kToken);
  for (const int error : {10035, 997, 10036}) {
    tracker.RecordRecv(kSocket, 55, error);
    tracker.RecordSend(kSocket, 55, error);
  }
  const SocketQosRecord& r = Record();
  EXPECT_EQ(r.total_recv_bytes + r.total_recv_packets + r.total_recv_errors, 0u);
  EXPECT_EQ(r.total_sent_bytes + r.total_sent_packets + r.total_sent_errors, 0u);
  EXPECT_EQ(r.first_recv_error_code + r.curr_recv_error_code, 0u);
  EXPECT_EQ(r.first_send_error_code + r.curr_send_error_code, 0u);
  EXPECT_EQ(r.last_recv_tick + r.last_send_tick, 0u);
}

TEST_F(WatchList, GivesSentAndThenReceivedPackets) {
  tracker.AddToWatchList(kSocket, kTrackUdp, kToken);
  for (int i = 0; i < 3; ++i) tracker.RecordSend(kSocket, 1, 0);
  tracker.RecordRecv(kSocket, 1, 0);
  u32 sent = 0, received = 0;
  ASSERT_TRUE(tracker.GetPacketCounts(kSocket, &sent, &received));
  EXPECT_EQ(sent, 3u);
  EXPECT_EQ(received, 1u);
}

// --- what is known about the route ------------------------------------------------------------

TEST_F(WatchList, GameServerIsKeptAsTextWithItsPortInHostOrder) {
  tracker.AddToWatchList(kSocket, kTrackTcp, kToken);
  const test::LogCapture log(0);
  tracker.NoteGameServer(kSocket, "198.51.100.10", htons(27015));
  EXPECT_STREQ(Record().game_ip, "198.51.100.10");
  EXPECT_EQ(Record().game_port, 27015);
  EXPECT_TRUE(
      log.Contains("[Tracker] Ready to Connect to game server socket=77, "
                   "ip=198.51.100.10, port=27015,token=5\n"))
      << log.Text();
  tracker.NoteGameServer(kSocket, nullptr, htons(1));
  EXPECT_EQ(Record().game_port, 27015);
  tracker.NoteGameServer(kSocket, std::string(40, '1').c_str(), htons(1));
  EXPECT_EQ(std::string(Record().game_ip), std::string(31, '1'));
}

TEST_F(WatchList, AccelerationBringsTheProxysFigures) {
  tracker.AddToWatchList(kSocket, kTrackTcp, kToken);
  const test::LogCapture log(0);
  tracker.SetAcceInfo(kSocket, true, At(SomeDecision()));
  const SocketQosRecord& r = Record();
  EXPECT_TRUE(r.is_acce);
  EXPECT_EQ(r.game_idc, 11u);
  EXPECT_EQ(r.direct_delay, 90u);
  EXPECT_EQ(r.direct_lost, 2u);
  EXPECT_EQ(r.guid, "guid");
  EXPECT_STREQ(r.proxy_ip, "198.51.100.20");
  EXPECT_EQ(r.proxy_port, 7001);
  EXPECT_EQ(r.proxy_idc, 20u);
  EXPECT_EQ(r.section1_delay, 30u);
  EXPECT_EQ(r.section1_lost, 1u);
  EXPECT_EQ(r.section2_delay, 40u);
  EXPECT_TRUE(
      log.Contains("[Tracker] Socket Base Acce Information saved socket=77, is_acce=1, token=5\n"));
  EXPECT_FALSE(log.Contains(test::kReportSubmitted)) << log.Text();
}

TEST_F(WatchList, DirectSocketHasNoProxyEvenIfTheDecisionNamesOne) {
  tracker.AddToWatchList(kSocket, kTrackTcp, kToken);
  const test::LogCapture log(0);
  tracker.SetAcceInfo(kSocket, false, At(SomeDecision()));
  EXPECT_FALSE(Record().is_acce);
  EXPECT_EQ(Record().game_idc, 11u);
  EXPECT_EQ(Record().guid, "guid");
  EXPECT_STREQ(Record().proxy_ip, "");
  EXPECT_EQ(Record().proxy_port + Record().proxy_idc + Record().section1_delay, 0u);
  EXPECT_TRUE(
      log.Contains("[Tracker] Socket Base Acce Information saved socket=77, is_acce=0, token=5\n"));
  EXPECT_TRUE(
      log.Contains("[Tracker] decision info(not acce) qos submitted, socket=77, token=5\n"));
}

// The table that a proxy comes from need not end its texts.
TEST_F(WatchList, UnterminatedTextsAreTruncated) {
  AccDecisionInfo decision = SomeDecision();
  std::memset(decision.selected_proxy.proxy_addr, '9', sizeof decision.selected_proxy.proxy_addr);
  std::memset(decision.guid, 'g', sizeof decision.guid);
  tracker.AddToWatchList(kSocket, kTrackTcp, kToken);
  tracker.SetAcceInfo(kSocket, true, &decision);
  EXPECT_EQ(std::string(Record().proxy_ip), std::string(31, '9'));
  EXPECT_EQ(Record().guid, std::string(65, 'g'));
}

TEST_F(WatchList, SuccessTakesTheProxyThatAgreed) {
  tracker.AddToWatchList(kSocket, kTrackTcp, kToken);
  tracker.SetAcceInfo(kSocket, true, At(SomeDecision()));
  tracker.RecordNegFailed(kSocket, 0, kNegoTimedOut, At(SomeDecision()), 1, 1);
  EXPECT_FALSE(Record().nego_success);
  AccDecisionInfo decision = SomeDecision();
  decision.selected_proxy.proxy_idc = 22;
  const test::LogCapture log(0);
  tracker.RecordNegSuccess(kSocket, 9, 0x0a0b0c0d, 21, 0, &decision);
  EXPECT_TRUE(Record().nego_success);
  EXPECT_EQ(Record().user_isp, 9u);
  EXPECT_EQ(Record().user_ip, 0x0a0b0c0du);
  EXPECT_EQ(Record().proxy_idc, 22u);
  EXPECT_TRUE(log.Contains("[Tracker] Nego Success socket=77, token=5, type=1\n")) << log.Text();
  EXPECT_TRUE(
      log.Contains("[Tracker] decision info(will acce) qos submitted, socket=77, token=5\n"));
  tracker.RecordNegFailed(kSocket, 0, 5, &decision, 1, 2);
  EXPECT_FALSE(Record().nego_success);
  EXPECT_TRUE(
      log.Contains("[Tracker] RecordNegFailed socket=77, neg_type=0, nego_result=5, token=5\n"));
  EXPECT_TRUE(log.Contains("[Tracker] nego ret qos submitted, socket=77, token=5\n"));
}

TEST_F(WatchList, RecoveryTextIsKept) {
  tracker.AddToWatchList(kSocket, kTrackUdp, kToken);
  const test::LogCapture log(0);
  tracker.SetRecoveryInfo(kSocket, "0-1-2");
  EXPECT_EQ(Record().recovery_info, "0-1-2");
  EXPECT_TRUE(log.Contains(test::kSwitchFigures + "0-1-2\n"));
}

// --- probes -----------------------------------------------------------------------------------

SpeedStatsHalf Half(u32 sent, u32 received) {
  SpeedStatsHalf half;
  half.total_send = sent;
  half.fine.count = received;
  half.lost_avg = 77;
  return half;
}

TEST_F(WatchList, StoredProbeFiguresComeBackWithTheirLoss) {
  const struct {
    u32 sent, received;
    double lost;
  } rows[] = {{0, 0, 0},    {10, 10, 0}, {10, 9, 10}, {3, 1, 200.0 / 3},
              {10, 0, 100}, {9, 10, 0},  {0, 5, 0}};
  tracker.AddToWatchList(kSocket, kTrackUdp, kToken);
  for (const auto& row : rows) {
    SpeedStats stats;
    stats.frontend = Half(row.sent, row.received);
    stats.backend = Half(row.received, row.received);
    stats.backend.pending = 1;
    stats.backend.last_send_tick = GetTickCount();
    stats.topology_type = 2;
    ASSERT_TRUE(tracker.SetSpeedTestResult(kSocket, &stats));
    SpeedStats found;
    ASSERT_TRUE(tracker.GetSpeedTestResult(kSocket, &found));
    EXPECT_DOUBLE_EQ(found.frontend.lost_avg, row.lost) << row.sent << " " << row.received;
    EXPECT_EQ(found.backend.total_send, row.received);  // nothing is in flight for this
    EXPECT_EQ(found.backend.lost_avg, 0);
    EXPECT_EQ(found.topology_type, 2u);
  }
}

// --- sockets that are not watched -------------------------------------------------------------

TEST_F(WatchList, UnknownSocketsAreIgnored) {
  const test::LogCapture log(0);
  SpeedStats stats;
  u32 sent = 4, received = 4;
  tracker.NoteGameServer(kSocket, "198.51.100.10", 1);
  tracker.RecordNegSuccess(kSocket, 1, 1, 1, 1, At(SomeDecision()));
  tracker.RecordNegFailed(kSocket, 0, kNegoTimedOut, At(SomeDecision()), 1, 1);
  tracker.RecordSend(kSocket, 1, 0);
  tracker.RecordRecv(kSocket, 1, 0);
  tracker.RemoveFromWatchList(kSocket);
  EXPECT_FALSE(tracker.GetSpeedTestResult(kSocket, &stats));
  EXPECT_FALSE(tracker.SetSpeedTestResult(kSocket, &stats));
  EXPECT_FALSE(tracker.GetPacketCounts(kSocket, &sent, &received));
  EXPECT_EQ(sent + received, 8u);
  EXPECT_EQ(tracker.Find(kSocket), nullptr);
  EXPECT_EQ(log.Text(), "");
}

TEST_F(WatchList, OnlyTwoOperationsReportAnUnknownSocket) {
  const test::LogCapture log(4);
  tracker.SetAcceInfo(kSocket, false, At(SomeDecision()));
  tracker.SetRecoveryInfo(kSocket, "x");
  EXPECT_TRUE(log.Contains("[Tracker] set acce can not find socket\n"));
  EXPECT_TRUE(log.Contains("[Tracker] set recovery can not find socket\n"));
  EXPECT_EQ(tracker.Find(kSocket), nullptr);
}

// --- series codes -----------------------------------------------------------------------------

TEST_F(WatchList, TimesAreSinceTheBeginningAndTheLastReceive) {
  Sleep(50);
  const u32 before = GetTickCount();
  SocketQosRecord record;
  record.create_tick = before - 40;
  record.last_recv_tick = before - 30;
  UpdateTimes(&record);
  const u32 passed = GetTickCount() - before;
  EXPECT_GE(record.life, 40u);
  EXPECT_LE(record.life, 40 + passed);
  EXPECT_GE(record.idle, 30u);
  EXPECT_LE(record.idle, 30 + passed);
  record.last_recv_tick = 0;
  UpdateTimes(&record);
  EXPECT_EQ(record.idle, 0u) << "nothing was ever received";
}

TEST_F(WatchList, SeriesCodeNamesTheGameTheUserAndTheSocket) {
  tracker.AddToWatchList(kSocket, kTrackTcp, kToken);
  const std::string code = Record().series_code;
  EXPECT_EQ(code.rfind("7-10001-77-", 0), 0u) << code;
  EXPECT_EQ(code.substr(code.size() - 3), "-77") << code;
}

TEST_F(WatchList, SeriesCodesOfOneSocketDiffer) {
  std::set<std::string> codes;
  for (int i = 0; i < 20; ++i) {
    char code[kSeriesCodeSize];
    MakeSeriesCode(kSocket, code, sizeof code);
    codes.insert(code);
  }
  EXPECT_GT(codes.size(), 15u);
}

TEST_F(WatchList, SeriesCodeIsCutToItsBufferAndNotMadeForASmallerOne) {
  AccConfigRecord config;
  config.game_id = ~u64{0};
  common::SetFieldText(config.uin, std::string(63, '9'));
  ReplaceAccConfig(config);
  char code[kSeriesCodeSize + 1];
  std::memset(code, 'x', sizeof code);
  MakeSeriesCode(kSocket, code, kSeriesCodeSize);
  EXPECT_EQ(std::string(code), "18446744073709551615-" + std::string(43, '9'));
  EXPECT_EQ(code[kSeriesCodeSize], 'x') << "beyond its buffer";
  std::memset(code, 'x', sizeof code);
  MakeSeriesCode(kSocket, code, kSeriesCodeSize - 1);
  EXPECT_EQ(code[0], 'x');
}

// --- the end of a socket ----------------------------------------------------------------------

TEST_F(WatchList, EndOfAnAcceleratedSocketIsSubmitted) {
  AddAccelerated();
  const test::LogCapture log(0);
  tracker.RemoveFromWatchList(kSocket);
  const std::string text = log.Text();
  std::size_t at = 0;
  for (const char* line : {"[Tracker] socket closed, socket=77, token=5\n",
                           "[Tracker] update info, is_acce=true, socket=77, token=5\n",
                           "[Tracker] acce final comm info submitted, socket=77, token=5\n",
                           "[Tracker] Remove 77 from watch list, token=5\n"}) {
    at = text.find(line, at);
    ASSERT_NE(at, text.npos) << line << text;
  }
  EXPECT_EQ(tracker.Find(kSocket), nullptr);
}

// Direct, refused by its node, or on trial, where a node has agreed and nothing was decided.
TEST_F(WatchList, EndOfASocketThatIsNotAcceleratedIsIgnored) {
  const struct {
    const char* what;
    bool decided, is_acce, agreed;
  } rows[] = {{"direct", true, false, false},
              {"refused", true, true, false},
              {"on trial", false, false, true},
              {"direct after all", true, false, true}};
  for (const auto& row : rows) {
    SCOPED_TRACE(row.what);
    tracker.AddToWatchList(kSocket, kTrackTcp, kToken);
    if (row.agreed) tracker.RecordNegSuccess(kSocket, 1, 1, 1, 1, At(SomeDecision()));
    if (row.decided) tracker.SetAcceInfo(kSocket, row.is_acce, At(SomeDecision()));
    if (row.is_acce) tracker.RecordNegFailed(kSocket, 0, kNegoTimedOut, At(SomeDecision()), 1, 1);
    const test::LogCapture log(0);
    tracker.RemoveFromWatchList(kSocket);
    EXPECT_TRUE(log.Contains("[Tracker] direct final comm info ignored, socket=77, token=5\n"));
    EXPECT_TRUE(log.Contains(std::string("[Tracker] update info, is_acce=") +
                             (row.is_acce ? "true" : "false") + ", socket=77, token=5\n"));
    EXPECT_FALSE(log.Contains(test::kReportSubmitted));
    EXPECT_EQ(tracker.Find(kSocket), nullptr);
  }
}

}  // namespace
}  // namespace moru_vyr::lsp
