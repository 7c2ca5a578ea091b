// Each socket's reports through the channels, as the client program finally has them, with real
// threads. What depends on time is tested in the scenarios.
#include <gtest/gtest.h>

#include "common/process_info.h"
#include "relay/nego_common.h"
#include "tests/support/end_worker.h"
#include "tests/support/log_capture.h"
#include "tests/support/log_texts.h"
#include "tests/support/tracker_fixture.h"
#include "tests/unit/out_of_memory.h"

namespace moru_vyr::lsp {
namespace {

using test::At;
using test::kSocket;
using test::kToken;
using test::SomeDecision;
using test::UsedSlots;

class TrackerReports : public test::TrackerTest {
 protected:
  static void SetUpTestSuite() {
    test::EndWorker();
    test::EndTheTrackerOfTheProcess();
  }

  test::ReportClient client;
};

TEST_F(TrackerReports, StartReportsTheProcessAndItsLogPath) {
  common::ProcessInfo& process = common::GetProcessInfo();
  const common::ProcessInfo before = process;
  common::SetFieldText(process.process_name, "dawn.exe");
  common::SetFieldText(process.log_file_path, "C:\\logs\\dawn.log");
  ReportAll();
  process = before;
  ASSERT_EQ(UsedSlots(client.log_paths), 1);
  EXPECT_EQ(client.log_paths->slots[0].game_id, 7u);
  EXPECT_STREQ(client.log_paths->slots[0].log_path, "C:\\logs\\dawn.log");
  ASSERT_EQ(UsedSlots(client.loaded), 1);
  EXPECT_EQ(client.loaded->slots[0].game_id, 7u);
  EXPECT_STREQ(client.loaded->slots[0].process_name, "dawn.exe");
  EXPECT_EQ(client.loaded->slots[0].is_x64, sizeof(void*) == 8 ? 1 : 0);
  EXPECT_EQ(before.is_x64, sizeof(void*) == 8);
  EXPECT_EQ(UsedSlots(client.decisions) + UsedSlots(client.traffic), 0);
}

TEST_F(TrackerReports, DirectSocketIsADecisionAndNothingElse) {
  tracker.AddToWatchList(kSocket, kTrackTcp, kToken);
  tracker.SetAcceInfo(kSocket, false, At(SomeDecision()));
  tracker.RecordSend(kSocket, 10, 0);
  tracker.RemoveFromWatchList(kSocket);
  ReportAll();
  ASSERT_EQ(UsedSlots(client.decisions), 1);
  EXPECT_STREQ(client.decisions->slots[0].guid, "guid");
  EXPECT_EQ(UsedSlots(client.traffic) + UsedSlots(client.failures) + UsedSlots(client.negotiations),
            0);
}

TEST_F(TrackerReports, FailedNegotiationIsThatAndNothingElse) {
  tracker.AddToWatchList(kSocket, kTrackUdp, kToken);
  tracker.SetAcceInfo(kSocket, true, At(SomeDecision()));
  SetLastError(10054);
  tracker.RecordNegFailed(kSocket, 1, kNegoTimedOut, At(SomeDecision()), 5010, 2);
  tracker.RemoveFromWatchList(kSocket);
  ReportAll();
  ASSERT_EQ(UsedSlots(client.failures), 1);
  const NegRetRecord& r = client.failures->slots[0];
  EXPECT_EQ(r.neg_type, 1);
  EXPECT_EQ(r.game_id, 7u);
  EXPECT_EQ(r.nego_result, int{kNegoTimedOut});
  EXPECT_EQ(r.last_error, 10054u);
  EXPECT_EQ(r.game_idc, 11u);
  EXPECT_STREQ(r.game_ip, "198.51.100.10");
  EXPECT_EQ(r.game_port, 27015);
  EXPECT_EQ(r.proxy_idc, 20u);
  EXPECT_STREQ(r.proxy_ip, "198.51.100.20");
  EXPECT_EQ(r.proxy_port, 7001);
  EXPECT_EQ(r.process_id, GetCurrentProcessId());
  EXPECT_EQ(r.reserved_value, 0.0);
  EXPECT_EQ(r.user_isp, 3u);
  EXPECT_EQ(r.header3, 33u);
  EXPECT_EQ(r.nego_count, 2u);
  EXPECT_EQ(r.elapsed_ms, 5010u);
  EXPECT_EQ(r.user_ip, 0x04030201u);
  EXPECT_STREQ(r.guid, "guid");
  EXPECT_EQ(
      UsedSlots(client.decisions) + UsedSlots(client.traffic) + UsedSlots(client.negotiations), 0);
}

// A socket on trial has no decision of its own yet.
TEST_F(TrackerReports, FailedNegotiationOfASocketWithoutAGuidHasNone) {
  tracker.AddToWatchList(kSocket, kTrackUdp, kToken);
  tracker.RecordNegFailed(kSocket, 1, kNegoTimedOut, At(SomeDecision()), 1, 1);
  ReportAll();
  ASSERT_EQ(UsedSlots(client.failures), 1);
  EXPECT_STREQ(client.failures->slots[0].guid, "");
}

TEST_F(TrackerReports, LongGuidIsCutInAFailedNegotiation) {
  tracker.AddToWatchList(kSocket, kTrackUdp, kToken);
  tracker.SetAcceInfo(kSocket, true, At(SomeDecision(std::string(64, 'g'))));
  tracker.RecordNegFailed(kSocket, 1, kNegoTimedOut, At(SomeDecision()), 1, 1);
  ReportAll();
  EXPECT_EQ(std::string(client.failures->slots[0].guid), std::string(36, 'g'));
}

TEST_F(TrackerReports, SuccessIsADecisionANegotiationAndTraffic) {
  AddAccelerated();
  tracker.NoteGameServer(kSocket, "198.51.100.10", htons(27015));
  tracker.RecordSend(kSocket, 10, 0);
  tracker.RecordRecv(kSocket, 20, 0);
  tracker.RemoveFromWatchList(kSocket);
  ReportAll();
  ASSERT_EQ(UsedSlots(client.decisions), 1);
  EXPECT_STREQ(client.decisions->slots[0].guid, "guid");
  ASSERT_EQ(UsedSlots(client.negotiations), 1);
  const RealNegoRecord& n = client.negotiations->slots[0];
  EXPECT_EQ(n.game_id, 7u);
  EXPECT_EQ(n.user_isp, 9u);
  EXPECT_EQ(n.user_ip, 0x0a0b0c0du);
  EXPECT_STREQ(n.guid, "guid");
  EXPECT_EQ(n.proxy_id, 20u);
  EXPECT_STREQ(n.proxy_ip, "198.51.100.20");
  EXPECT_EQ(n.proxy_port, 7001u);
  EXPECT_EQ(n.last_node_id, 21u);
  EXPECT_EQ(n.last_node_ip, 0x05060708u);
  EXPECT_EQ(n.game_ip, 0xc633640au);
  EXPECT_EQ(n.game_port, 27015u);
  EXPECT_GT(n.stamp, 1'600'000'000u);
  EXPECT_EQ(UsedSlots(client.failures), 0);

  // The last report was submitted before the thread began; the snapshot of the success is older.
  ASSERT_EQ(UsedSlots(client.traffic), 1);
  const CommInfoRecord& t = client.traffic->slots[0];
  EXPECT_EQ(t.ended, 1);
  EXPECT_EQ(t.game_id, 7u);
  EXPECT_EQ(t.socket_type, 2u);
  EXPECT_EQ(t.total_sent_bytes, 10u);
  EXPECT_EQ(t.total_recv_bytes, 20u);
  EXPECT_STREQ(t.game_ip, "198.51.100.10");
  EXPECT_EQ(t.game_port, 27015u);
  EXPECT_EQ(t.proxy_idc, 20u);
  EXPECT_STREQ(t.guid_str, "guid");
  EXPECT_EQ(t.user_isp, 9u);
  EXPECT_EQ(t.direct_delay, 90u);
}

TEST_F(TrackerReports, SocketOnTrialHasANegotiationAndNoTraffic) {
  tracker.AddToWatchList(kSocket, kTrackUdp, kToken);
  tracker.RecordNegSuccess(kSocket, 9, 1, 21, 2, At(SomeDecision()));
  tracker.RemoveFromWatchList(kSocket);
  ReportAll();
  EXPECT_EQ(UsedSlots(client.decisions), 1);
  ASSERT_EQ(UsedSlots(client.negotiations), 1);
  EXPECT_STREQ(client.negotiations->slots[0].guid, "");
  EXPECT_STREQ(client.negotiations->slots[0].proxy_ip, "198.51.100.20");
  EXPECT_EQ(UsedSlots(client.traffic), 0);
}

TEST_F(TrackerReports, LinkInTroubleNeedsNoSocket) {
  RecoverySwitchRecord record;
  record.game_id = 7;
  record.count = 3;
  common::SetFieldText(record.guid, "guid");
  const test::LogCapture log(0);
  tracker.SubmitRecoverySwitch(&record);
  EXPECT_TRUE(log.Contains("[Tracker] " + test::kSwitchSubmitted + "7, guid=guid\n"));
  ReportAll();
  ASSERT_EQ(UsedSlots(client.switches), 1);
  EXPECT_EQ(client.switches->slots[0].count, 3);
}

// The order in which a client that looks in between learns of one connection.
TEST_F(TrackerReports, AreMadeChannelByChannel) {
  tracker.SubmitRecoverySwitch(At(RecoverySwitchRecord{}));
  AddAccelerated();
  tracker.RemoveFromWatchList(kSocket);
  tracker.AddToWatchList(kSocket, kTrackUdp, kToken);
  tracker.RecordNegFailed(kSocket, 1, kNegoTimedOut, At(SomeDecision()), 1, 1);
  const test::LogCapture log(0);
  ReportAll();
  const std::string text = log.Text();
  std::size_t at = 0;
  for (const char* line :
       {"ReportLogPath success", "ReportLspLoadedInfo success",
        "ReportCommunicationStatistic ended", "ReportAcceDecisionInfo success",
        "ReportNegRetValue success", "ReportRecoverySwitch success", "ReportRealNego success"}) {
    at = text.find(line, at);
    ASSERT_NE(at, text.npos) << line << text;
  }
}

TEST_F(TrackerReports, EndReportsOpenSocketsOnceMore) {
  tracker.Init();
  AddAccelerated(1, "a");
  AddAccelerated(2, "b");
  tracker.AddToWatchList(3, kTrackUdp, kToken);
  tracker.RecordSend(1, 10, 0);
  tracker.UnInit();
  // The report of the first success may have been written by now, or not yet.
  int last_of_a = -1, last_of_b = -1;
  for (int i = 0; i < UsedSlots(client.traffic); ++i) {
    const CommInfoRecord& record = client.traffic->slots[i];
    EXPECT_EQ(record.ended, 0);
    (std::string(record.guid_str) == "a" ? last_of_a : last_of_b) = i;
  }
  ASSERT_GE(last_of_a, 0);
  ASSERT_GE(last_of_b, 0);
  EXPECT_EQ(client.traffic->slots[last_of_a].total_sent_bytes, 10u);
}

TEST_F(TrackerReports, TwoSocketsWithOneGuidLeaveTheLater) {
  AddAccelerated(1, "same");
  AddAccelerated(2, "same");
  tracker.RecordSend(2, 10, 0);
  ReportAll();
  ASSERT_EQ(UsedSlots(client.traffic), 1);
  EXPECT_EQ(client.traffic->slots[0].total_sent_bytes, 10u);
}

TEST_F(TrackerReports, SocketClosedAtTheEndIsInTheLastReport) {
  tracker.Init();
  AddAccelerated();
  tracker.RemoveFromWatchList(kSocket);
  tracker.UnInit();
  const int used = UsedSlots(client.traffic);
  ASSERT_GE(used, 1);
  int ended = 0;
  for (int i = 0; i < used; ++i) ended += client.traffic->slots[i].ended;
  EXPECT_EQ(ended, 1);
}

// The relay's providers end their sessions after the Tracker has ended.
TEST_F(TrackerReports, ReportsAfterTheEndWaitForTheNextStart) {
  AddAccelerated();
  ReportAll();
  const int before = UsedSlots(client.traffic);
  tracker.RemoveFromWatchList(kSocket);
  tracker.AddToWatchList(kSocket, kTrackTcp, kToken);
  tracker.SetAcceInfo(kSocket, false, At(SomeDecision()));
  EXPECT_EQ(UsedSlots(client.traffic), before);
  EXPECT_EQ(UsedSlots(client.decisions), 1);
  ReportAll();
  EXPECT_EQ(UsedSlots(client.traffic), before + 1);
  EXPECT_EQ(client.traffic->slots[before].ended, 1);
  EXPECT_EQ(UsedSlots(client.decisions), 2);
  EXPECT_EQ(UsedSlots(client.log_paths), 2);
}

TEST_F(TrackerReports, SecondInitStartsNothing) {
  tracker.Init();
  const test::LogCapture log(0);
  tracker.Init();
  EXPECT_FALSE(log.Contains("[Tracker] Init."));
  tracker.UnInit();
  EXPECT_EQ(UsedSlots(client.log_paths), 1);
}

TEST_F(TrackerReports, LifeIsLogged) {
  const test::LogCapture log(0);
  ReportAll();
  const std::string text = log.Text();
  std::size_t at = 0;
  for (const char* line : {"[Tracker] Init.\n", "[Tracker] Sync Thread started.\n",
                           "[Tracker] UnInit.\n", "[Tracker] Sync Thread Ended\n"}) {
    at = text.find(line, at);
    ASSERT_NE(at, text.npos) << line << text;
  }
  EXPECT_NE(text.find("[Tracker] Report Thread quit, do last report in spite of the trigger state"),
            text.npos);
  EXPECT_EQ(text.find("Comm Info Sync"), text.npos) << "there was nothing to write";
}

// Successes are logged as details, so that a game's log has none of them at its usual level.
TEST_F(TrackerReports, ItsOwnLogLinesAreDetails) {
  const test::LogCapture log(1);
  AddAccelerated();
  tracker.NoteGameServer(kSocket, "198.51.100.10", htons(27015));
  tracker.SetRecoveryInfo(kSocket, "0-1-2");
  tracker.SubmitRecoverySwitch(At(RecoverySwitchRecord{}));
  tracker.RecordNegFailed(kSocket, 1, kNegoTimedOut, At(SomeDecision()), 1, 1);
  tracker.SetAcceInfo(kSocket, false, At(SomeDecision()));
  tracker.RemoveFromWatchList(kSocket);
  AddAccelerated();
  tracker.RemoveFromWatchList(kSocket);
  EXPECT_EQ(log.Text(), "");
  AddAccelerated();
  ReportAll();
  for (const char* line : {"[Tracker] Init", "[Tracker] Sync", "[Tracker] UnInit",
                           "[Tracker] Report Thread", "Comm Info Sync"}) {
    EXPECT_FALSE(log.Contains(line)) << log.Text();
  }
}

// The worker and the sync thread, as concurrently as possible.
TEST_F(TrackerReports, NothingIsLostOrDoubledWhileBothSidesRun) {
  constexpr u32 kSockets = 100;  // the decision channel has room for 108
  tracker.Init();
  for (u32 i = 1; i <= kSockets; ++i) {
    tracker.AddToWatchList(i, kTrackUdp, i);
    tracker.SetAcceInfo(i, i % 2 == 0, At(SomeDecision(std::to_string(i))));
    for (int n = 0; n < 50; ++n) tracker.RecordSend(i, 1, 0);
    if (i % 2 == 0) tracker.RecordNegSuccess(i, 1, 1, 1, 1, At(SomeDecision(std::to_string(i))));
    tracker.SnapshotCommInfo(true);
    RecoverySwitchRecord record;
    if (i % 10 == 0) tracker.SubmitRecoverySwitch(&record);
    if (i % 3 == 0) Sleep(1);
    tracker.RemoveFromWatchList(i);
  }
  tracker.UnInit();
  ASSERT_EQ(UsedSlots(client.decisions), static_cast<int>(kSockets));
  for (u32 i = 0; i < kSockets; ++i)
    EXPECT_EQ(std::string(client.decisions->slots[i].guid), std::to_string(i + 1));
  EXPECT_EQ(UsedSlots(client.negotiations), static_cast<int>(kSockets / 2));
  EXPECT_EQ(UsedSlots(client.switches), static_cast<int>(kSockets / 10));
}

// --- out of memory ---------------------------------------------------------------------------

// Each of these needs memory for its report, and a failure must not end the worker.
TEST_F(TrackerReports, WithoutMemoryReportsAreLostAndNothingElse) {
  const AccDecisionInfo decision = SomeDecision();
  const RecoverySwitchRecord record;
  const auto without_memory = [](const auto& call) {
    const test::OutOfMemory none(1, test::OutOfMemory::kOfTheProduct);
    call();
    EXPECT_TRUE(test::OutOfMemory::WasFelt());
  };
  without_memory([&] { tracker.AddToWatchList(kSocket, kTrackUdp, kToken); });
  EXPECT_EQ(tracker.Find(kSocket), nullptr);
  tracker.AddToWatchList(kSocket, kTrackUdp, kToken);
  without_memory([&] { tracker.SetAcceInfo(kSocket, false, &decision); });
  tracker.SetAcceInfo(kSocket, true, &decision);
  without_memory([&] { tracker.RecordNegFailed(kSocket, 1, kNegoTimedOut, &decision, 1, 1); });
  without_memory([&] { tracker.SubmitRecoverySwitch(&record); });
  without_memory([&] { tracker.RecordNegSuccess(kSocket, 9, 8, 7, 6, &decision); });
  EXPECT_TRUE(Record().nego_success) << "it is accelerated all the same";
  without_memory([&] { tracker.OnTimer(GetTickCount()); });
  without_memory([&] { tracker.RemoveFromWatchList(kSocket); });
  EXPECT_EQ(tracker.Find(kSocket), nullptr) << "its handle may come back";
  ReportAll();
  EXPECT_EQ(UsedSlots(client.decisions) + UsedSlots(client.traffic) + UsedSlots(client.failures) +
                UsedSlots(client.negotiations) + UsedSlots(client.switches),
            0);
  AddAccelerated();
  tracker.RemoveFromWatchList(kSocket);
  ReportAll();
  EXPECT_EQ(UsedSlots(client.negotiations), 1);
  EXPECT_EQ(UsedSlots(client.traffic), 1);
}

}  // namespace
}  // namespace moru_vyr::lsp
