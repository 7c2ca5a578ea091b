// When the Tracker reports: its two intervals, its waits, and the effect of a tick counter that
// wraps. The director is the relay's worker.
#include <gtest/gtest.h>

#include <algorithm>
#include <vector>

#include "common/named_mutex.h"
#include "common/own_thread.h"
#include "port/shared/objects.h"
#include "port/sim/scenario.h"
#include "relay/nego_common.h"
#include "tests/support/log_capture.h"
#include "tests/support/log_texts.h"
#include "tests/support/tracker_fixture.h"

namespace {

using namespace moru_vyr::lsp;  // NOLINT: every name here is the product's
using test::At;
using test::kSocket;
using test::kToken;
using test::SomeDecision;
using test::UsedSlots;

class TrackerTime : public sim::ScenarioTest {
 protected:
  void AddAccelerated(SOCKET socket, const std::string& guid, u32 type = kTrackUdp) {
    tracker.AddToWatchList(socket, type, kToken);
    tracker.SetAcceInfo(socket, true, At(SomeDecision(guid)));
    tracker.RecordNegSuccess(socket, 1, 1, 1, 1, At(SomeDecision(guid)));
  }
  void SubmitOne() { tracker.SubmitRecoverySwitch(At(RecoverySwitchRecord{})); }
  template <typename Region>
  static void FreeSlots(test::ClientRegion<Region>& region) {
    for (auto& slot : region->slots) slot.used = 0;
  }
  u32 TimeOf(const std::function<void()>& body) {
    const u32 start = GetTickCount();
    body();
    return GetTickCount() - start;
  }

  test::ReportClient client;
  Tracker tracker;
};

// --- the sync thread's pace -------------------------------------------------------------------

// After twenty milliseconds it is still too early, and each check that comes too early costs ten.
SCENARIO_F(TrackerTime, PassesAreMoreThanTwentyMillisecondsApart) {
  tracker.Init();
  AddAccelerated(kSocket, "guid");
  std::vector<u32> passes;
  for (int i = 0; i < 400; ++i) {
    SubmitOne();
    tracker.SnapshotCommInfo(true);  // so that neither wait lasts
    RunFor(1ms);
    if (UsedSlots(client.switches) > 0) passes.push_back(GetTickCount());
    FreeSlots(client.switches);
    FreeSlots(client.traffic);
  }
  ASSERT_GT(passes.size(), 8u);
  for (size_t i = 1; i < passes.size(); ++i) {
    EXPECT_GE(passes[i] - passes[i - 1], 29u);
    EXPECT_LE(passes[i] - passes[i - 1], 31u);
  }
  tracker.UnInit();
}

// The wait for the other event delays a report.
SCENARIO_F(TrackerTime, ReportsWaitForOneWaitAtMost) {
  tracker.Init();
  AddAccelerated(kSocket, "guid");
  const auto expect_one_wait = [this](auto& region, const auto& call) {
    u32 longest = 0, shortest = 1000;
    RunFor(1s);
    FreeSlots(region);
    for (int i = 0; i < 40; ++i) {
      const u32 start = GetTickCount();
      call();
      EXPECT_TRUE(RunUntil([&] { return UsedSlots(region) > 0; }, 2s));
      const u32 took = GetTickCount() - start;
      longest = std::max(longest, took);
      shortest = std::min(shortest, took);
      FreeSlots(region);
      RunFor(std::chrono::milliseconds(7 * i));
    }
    EXPECT_LE(longest, 100u);
    EXPECT_GT(longest, 92u);
    EXPECT_LE(shortest, 5u);
  };
  expect_one_wait(client.switches, [this] { SubmitOne(); });
  expect_one_wait(client.traffic, [this] { tracker.SnapshotCommInfo(true); });
  tracker.UnInit();
}

SCENARIO_F(TrackerTime, EachReportGoesOutWithoutWaitingForAnother) {
  tracker.Init();
  RunFor(1s);
  for (const SOCKET socket : {SOCKET{1}, SOCKET{2}, SOCKET{3}})
    tracker.AddToWatchList(socket, kTrackUdp, kToken);
  tracker.SetAcceInfo(1, false, At(SomeDecision()));
  EXPECT_TRUE(RunUntil([&] { return UsedSlots(client.decisions) == 1; }, 250ms));
  tracker.RecordNegFailed(2, 1, kNegoTimedOut, At(SomeDecision()), 1, 1);
  EXPECT_TRUE(RunUntil([&] { return UsedSlots(client.failures) == 1; }, 250ms));
  tracker.SetAcceInfo(3, true, At(SomeDecision()));
  tracker.RecordNegSuccess(3, 1, 1, 1, 1, At(SomeDecision()));
  EXPECT_TRUE(RunUntil(
      [&] { return UsedSlots(client.decisions) == 2 && UsedSlots(client.negotiations) == 1; },
      250ms));
  EXPECT_TRUE(RunUntil([&] { return UsedSlots(client.traffic) == 1; }, 250ms));
  tracker.RemoveFromWatchList(3);
  EXPECT_TRUE(RunUntil([&] { return UsedSlots(client.traffic) == 2; }, 250ms));
  SubmitOne();
  EXPECT_TRUE(RunUntil([&] { return UsedSlots(client.switches) == 1; }, 250ms));
  tracker.UnInit();
}

// A report that is added while the thread takes over the waiting ones must not wait for the signal
// of the next one.
SCENARIO_F_SEEDS(TrackerTime, ReportsAddedDuringAPassNeedNoFurtherSignal, 6) {
  constexpr int kAtOnce = 3;
  tracker.Init();
  AddAccelerated(kSocket, "guid");
  RunFor(300ms);
  for (u32 sent = kAtOnce; sent <= 40 * kAtOnce; sent += kAtOnce) {
    FreeSlots(client.switches);
    FreeSlots(client.traffic);
    for (int i = 0; i < kAtOnce; ++i) {
      SubmitOne();
      tracker.RecordSend(kSocket, 1, 0);
      tracker.SnapshotCommInfo(true);
    }
    RunFor(250ms);
    ASSERT_EQ(UsedSlots(client.switches), kAtOnce);
    const int reports = UsedSlots(client.traffic);
    ASSERT_GE(reports, 1);
    ASSERT_EQ(client.traffic->slots[reports - 1].total_sent_packets, sent);
  }
  tracker.UnInit();
}

// --- snapshots --------------------------------------------------------------------------------

SCENARIO_F(TrackerTime, SuccessShowsTheTrafficUnlessThatWasDoneWithinASecond) {
  const struct {
    int gap_ms;
    int reports;  // of both successes; the second shows both sockets
  } rows[] = {{1, 1}, {999, 1}, {1000, 1}, {1001, 3}};
  for (const auto& row : rows) {
    Tracker fresh;
    fresh.Init();
    for (const char* guid : {"a", "b"}) {
      const SOCKET socket = static_cast<SOCKET>(guid[0]);
      fresh.AddToWatchList(socket, kTrackUdp, kToken);
      fresh.SetAcceInfo(socket, true, At(SomeDecision(guid)));
      fresh.RecordNegSuccess(socket, 1, 1, 1, 1, At(SomeDecision(guid)));
      if (guid[0] == 'a') RunFor(std::chrono::milliseconds(row.gap_ms));
    }
    RunFor(300ms);
    EXPECT_EQ(UsedSlots(client.traffic), row.reports) << row.gap_ms;
    fresh.UnInit();
    FreeSlots(client.traffic);
  }
}

SCENARIO_F(TrackerTime, TimerShowsTheTrafficWhenMoreThanFiveSecondsHavePassed) {
  tracker.Init();
  AddAccelerated(kSocket, "guid");
  RunFor(2s);
  FreeSlots(client.traffic);
  const auto reports_of_a_tick = [&] {
    tracker.OnTimer(GetTickCount());
    const u32 start = GetTickCount();
    RunFor(300ms);
    const int reports = UsedSlots(client.traffic);
    FreeSlots(client.traffic);
    EXPECT_EQ(GetTickCount() - start, 300u);
    return reports;
  };
  EXPECT_EQ(reports_of_a_tick(), 1);  // the first tick ever
  RunFor(4699ms);
  EXPECT_EQ(reports_of_a_tick(), 0);  // 4999
  FreeSlots(client.traffic);
  RunFor(6s);
  EXPECT_EQ(reports_of_a_tick(), 1);
  RunFor(4700ms);
  tracker.OnTimer(GetTickCount());  // 5000
  RunFor(1ms);
  EXPECT_EQ(reports_of_a_tick(), 1);  // 5001
  tracker.UnInit();
}

// A check that finds nothing does not count.
SCENARIO_F(TrackerTime, SuccessRightAfterATimerWithoutSocketsShowsTheTraffic) {
  tracker.Init();
  tracker.OnTimer(GetTickCount());
  RunFor(500ms);
  AddAccelerated(kSocket, "guid");
  RunFor(250ms);
  EXPECT_EQ(UsedSlots(client.traffic), 1);
  tracker.UnInit();
}

// Every pass of the worker checks; the client program sees one report in five seconds.
SCENARIO_F(TrackerTime, LiveReportsComeOnceInFiveSeconds) {
  tracker.Init();
  AddAccelerated(kSocket, "guid");
  for (int i = 0; i < 1500; ++i) {  // 30 s
    tracker.OnTimer(GetTickCount());
    RunFor(20ms);
  }
  EXPECT_GE(UsedSlots(client.traffic), 6);
  EXPECT_LE(UsedSlots(client.traffic), 7);
  for (int i = 0; i < UsedSlots(client.traffic); ++i) EXPECT_EQ(client.traffic->slots[i].ended, 0);
  tracker.UnInit();
}

SCENARIO_F(TrackerTime, TimerThatComesRightAfterASuccessShowsNothingForFiveSeconds) {
  tracker.Init();
  AddAccelerated(kSocket, "guid");
  RunFor(500ms);
  ASSERT_EQ(UsedSlots(client.traffic), 1);
  tracker.OnTimer(GetTickCount());
  RunFor(5000ms);
  tracker.OnTimer(GetTickCount());
  RunFor(300ms);
  EXPECT_EQ(UsedSlots(client.traffic), 1);
}

SCENARIO_F(TrackerTime, TrafficReportsLifeAndIdleTimeOfASocket) {
  tracker.Init();
  AddAccelerated(kSocket, "guid");
  RunFor(300ms);
  EXPECT_EQ(client.traffic->slots[0].life, 0u);
  EXPECT_EQ(client.traffic->slots[0].idle, 0u);  // nothing was received yet
  tracker.RecordRecv(kSocket, 1, 0);
  RunFor(1500ms);
  tracker.RecordSend(kSocket, 1, 0);  // does not show that the other side lives
  tracker.RemoveFromWatchList(kSocket);
  RunFor(300ms);
  EXPECT_EQ(client.traffic->slots[1].life, 1800u);
  EXPECT_EQ(client.traffic->slots[1].idle, 1500u);
  EXPECT_EQ(client.traffic->slots[1].create_tick, 3'600'000u);
  tracker.UnInit();
}

SCENARIO_F(TrackerTime, LiveReportsShowLifeAndIdleTime) {
  tracker.Init();
  AddAccelerated(kSocket, "guid");
  tracker.RecordRecv(kSocket, 1, 0);
  RunFor(1500ms);
  FreeSlots(client.traffic);
  tracker.SnapshotCommInfo(true);
  RunFor(300ms);
  EXPECT_EQ(client.traffic->slots[0].ended, 0);
  EXPECT_EQ(client.traffic->slots[0].life, 1500u);
  EXPECT_EQ(client.traffic->slots[0].idle, 1500u);
  tracker.UnInit();
}

// Neither one on trial, for which nothing was decided, nor one whose node refuses.
SCENARIO_F(TrackerTime, OnlyAcceleratedSocketsAreShown) {
  tracker.Init();
  for (const SOCKET socket : {SOCKET{1}, SOCKET{2}})
    tracker.AddToWatchList(socket, kTrackUdp, kToken);
  tracker.RecordNegSuccess(1, 1, 1, 1, 1, At(SomeDecision()));
  tracker.SetAcceInfo(2, true, At(SomeDecision("refused")));
  tracker.RecordNegFailed(2, 1, kNegoTimedOut, At(SomeDecision("refused")), 1, 1);
  tracker.SnapshotCommInfo(true);
  RunFor(300ms);
  EXPECT_EQ(UsedSlots(client.traffic), 0);
  tracker.UnInit();
}

// Kept: last reports are written before a snapshot, even before one that is older than they are. So
// a client that believes the latest report takes the socket for open for good.
SCENARIO_F(TrackerTime, ASocketThatEndsRightAfterASnapshotIsShownOnceMoreAfterItsEnd) {
  tracker.Init();
  RunFor(1s);
  AddAccelerated(kSocket, "guid");  // with a snapshot
  tracker.RecordSend(kSocket, 10, 0);
  tracker.RemoveFromWatchList(kSocket);
  RunFor(300ms);
  ASSERT_EQ(UsedSlots(client.traffic), 2);
  const CommInfoRecord &last = client.traffic->slots[0], &late = client.traffic->slots[1];
  EXPECT_EQ(last.ended, 1);
  EXPECT_EQ(late.ended, 0);
  EXPECT_STREQ(late.guid_str, last.guid_str);
  EXPECT_EQ(late.create_tick, last.create_tick);
  EXPECT_EQ(last.total_sent_bytes, 10u);
  EXPECT_EQ(late.total_sent_bytes, 0u);  // as it was at the snapshot
  RunFor(10s);
  EXPECT_EQ(UsedSlots(client.traffic), 2);
  tracker.UnInit();
}

// The same where a client that holds the mutex delays both.
SCENARIO_F(TrackerTime, ASnapshotThatWaitsForAClientIsWrittenAfterTheEndsThatCameMeanwhile) {
  tracker.Init();
  RunFor(1s);
  AddAccelerated(1, "a");
  RunFor(300ms);
  FreeSlots(client.traffic);
  world.SpawnOn(world.home().host, "client", [] {
    common::NamedMutex mutex(kCommunicationChannel.mutex_name);
    mutex.lock();
    Sleep(300);
    mutex.unlock();
  });
  RunFor(1ms);
  tracker.SnapshotCommInfo(true);  // the thread takes this one, and waits with it
  RunFor(250ms);
  tracker.SnapshotCommInfo(true);
  tracker.RemoveFromWatchList(1);
  RunFor(1s);
  ASSERT_EQ(UsedSlots(client.traffic), 3);
  EXPECT_EQ(client.traffic->slots[0].ended, 0);
  EXPECT_EQ(client.traffic->slots[1].ended, 1);
  EXPECT_EQ(client.traffic->slots[2].ended, 0);
  tracker.UnInit();
}

SCENARIO_F(TrackerTime, LiveReportsComeInTheOrderOfTheirGuids) {
  tracker.Init();
  AddAccelerated(1, "c");
  AddAccelerated(2, "a");
  AddAccelerated(3, "b");
  RunFor(1500ms);
  FreeSlots(client.traffic);
  const test::LogCapture log(0);
  tracker.SnapshotCommInfo(false);
  RunFor(300ms);
  EXPECT_STREQ(client.traffic->slots[0].guid_str, "a");
  EXPECT_STREQ(client.traffic->slots[1].guid_str, "b");
  EXPECT_STREQ(client.traffic->slots[2].guid_str, "c");
  EXPECT_TRUE(log.Contains("[Tracker] Comm Info Sync Start\n"));
  EXPECT_TRUE(log.Contains("[Tracker] Comm Info Sync End\n"));
  tracker.UnInit();
}

// --- a probe that is still under way ----------------------------------------------------------

SCENARIO_F(TrackerTime, ProbeOfTheLastTwoSecondsIsNotLostYet) {
  const struct {
    const char* what;
    u32 type;
    int age_ms;
    u32 pending, sent, received;
    u32 reported;
    double lost;
  } rows[] = {
      {"just sent", kTrackUdp, 0, 1, 10, 9, 9, 0},
      {"almost two seconds", kTrackUdp, 1999, 1, 10, 9, 9, 0},
      {"two seconds", kTrackUdp, 2000, 1, 10, 9, 10, 10},
      {"answered", kTrackUdp, 100, 0, 10, 9, 10, 10},
      {"none sent", kTrackUdp, 100, 1, 0, 0, 0, 0},
      {"a stream", kTrackTcp, 100, 1, 10, 9, 10, 10},
  };
  tracker.Init();
  for (const auto& row : rows) {
    AddAccelerated(kSocket, "guid", row.type);
    SpeedStats stats;
    for (SpeedStatsHalf* half : {&stats.frontend, &stats.backend}) {
      half->total_send = row.sent;
      half->fine.count = row.received;
      half->pending = row.pending;
      half->last_send_tick = GetTickCount();
    }
    tracker.SetSpeedTestResult(kSocket, &stats);
    RunFor(std::chrono::milliseconds(row.age_ms));
    const test::LogCapture log(5);
    tracker.RemoveFromWatchList(kSocket);
    FreeSlots(client.traffic);
    RunFor(500ms);
    const int used = UsedSlots(client.traffic);
    const CommInfoRecord* last = nullptr;
    for (const CommInfoRecord& record : client.traffic->slots)
      if (record.used != 0 && record.ended != 0) last = &record;
    ASSERT_NE(last, nullptr) << row.what << used;
    EXPECT_EQ(last->frontend_fine.total_send, row.reported) << row.what;
    EXPECT_EQ(last->backend_fine.total_send, row.reported) << row.what;
    char lost[32];
    std::snprintf(lost, sizeof lost, "lost_avg=%.1f,backend", row.lost);
    EXPECT_TRUE(log.Contains(lost)) << row.what << log.Text();
    FreeSlots(client.traffic);
  }
  tracker.UnInit();
}

// --- the wrap of the tick count ---------------------------------------------------------------

sim::Options WrapIn(u32 ms) {
  sim::Options options;
  options.tick_start = 0u - ms;
  return options;
}

class TrackerWrap : public TrackerTime {};
#define SCENARIO_WRAP(name, ms) SCENARIO_WITH_(TrackerWrap, name, TrackerWrap, 1, WrapIn(ms))

// Kept: the thread waits for a tick that comes again in 49 days. The end reports everything.
SCENARIO_WRAP(ReportsPauseAtTheWrapUntilTheEnd, 1050) {
  tracker.Init();
  RunFor(2s);
  SubmitOne();
  AddAccelerated(kSocket, "guid");
  RunFor(60s);
  EXPECT_EQ(UsedSlots(client.switches), 0);
  EXPECT_LT(TimeOf([&] { tracker.UnInit(); }), 100u);
  EXPECT_EQ(UsedSlots(client.switches), 1);
  EXPECT_EQ(UsedSlots(client.traffic), 1);
}

// Kept: in the last five seconds before the wrap the limit stands beyond it, so every tick counts
// as due, and the second between snapshots is no limit in its own last second.
SCENARIO_WRAP(TimerIsAlwaysDueRightBeforeTheWrap, 5000) {
  tracker.Init();
  tracker.OnTimer(GetTickCount());
  for (int i = 0; i < 3; ++i) {
    AddAccelerated(static_cast<SOCKET>(i), std::to_string(i));
    RunFor(1001ms);
    FreeSlots(client.traffic);
    tracker.OnTimer(GetTickCount());
    RunFor(200ms);
    EXPECT_GE(UsedSlots(client.traffic), 1) << i;
  }
  tracker.UnInit();
}

SCENARIO_WRAP(SocketThatIsOlderThanTheWrapHasNoAge, 1000) {
  tracker.Init();
  AddAccelerated(kSocket, "guid");
  tracker.RecordRecv(kSocket, 1, 0);
  RunFor(3s);
  tracker.RemoveFromWatchList(kSocket);
  tracker.UnInit();
  const int last = UsedSlots(client.traffic) - 1;
  ASSERT_GE(last, 0);
  EXPECT_EQ(client.traffic->slots[last].ended, 1);
  EXPECT_EQ(client.traffic->slots[last].life, 0u);
  EXPECT_EQ(client.traffic->slots[last].idle, 0u);
}

sim::Options JustStarted() {
  sim::Options options;
  options.tick_start = 500;
  return options;
}

// No snapshot has been taken yet, however young the system is.
SCENARIO_WITH_(TrackerTime, TheFirstSuccessIsShownAtOnce, TrackerTime, 1, JustStarted()) {
  tracker.Init();
  AddAccelerated(kSocket, "guid");
  RunFor(300ms);
  EXPECT_EQ(UsedSlots(client.traffic), 1);
  tracker.UnInit();
}

// --- the end ----------------------------------------------------------------------------------

SCENARIO_F_SEEDS(TrackerTime, EndDoesNotWaitForTheThreadsWaits, 20) {
  for (const int reports : {0, 1}) {
    tracker.Init();
    RunFor(std::chrono::milliseconds(400 + world.random().Below(400)));
    if (reports != 0) SubmitOne();
    EXPECT_LT(TimeOf([&] { tracker.UnInit(); }), 50u);
    EXPECT_EQ(UsedSlots(client.switches), reports);
  }
}

SCENARIO_F(TrackerTime, EndLeavesNoHandleOpenAndCanBeRepeated) {
  const size_t before = port::OpenHandles();
  for (int i = 0; i < 2; ++i) {
    tracker.Init();
    SubmitOne();
    RunFor(300ms);
    EXPECT_GT(port::OpenHandles(), before);
    tracker.UnInit();
    EXPECT_EQ(port::OpenHandles(), before);
  }
  const test::LogCapture log(0);
  tracker.UnInit();
  EXPECT_FALSE(log.Contains(test::kSyncEnded)) << "there was none";
}

// Where a stranger has ended the worker, the thread leaves by itself, and the next start is like
// the first.
SCENARIO_F(TrackerTime, ALostWorkerLeavesNoHandleOpen) {
  const auto work = [](LPVOID self) -> DWORD {
    const common::OwnThread own;
    static_cast<Tracker*>(self)->Init();
    Sleep(INFINITE);
    return 0;
  };
  for (int i = 0; i < 2; ++i) {
    const test::LogCapture log(0);
    const size_t before = port::OpenHandles();
    const HANDLE worker = CreateThread(nullptr, 0, work, &tracker, 0, nullptr);
    RunFor(300ms);
    EXPECT_TRUE(log.Contains("[Tracker] Init.\n"));
    EXPECT_GT(port::OpenHandles(), before + 1);
    TerminateThread(worker, 1);
    CloseHandle(worker);
    RunFor(1s);
    EXPECT_EQ(port::OpenHandles(), before) << i;
  }
}

SCENARIO_F(TrackerTime, AWorkerThatEndsInOrderIsNotLost) {
  static int lost = 0;
  tracker.Init([]() noexcept { ++lost; });
  RunFor(300ms);
  tracker.UnInit();
  EXPECT_EQ(lost, 0);
}

// A client that keeps a mutex costs the thread its life, and no more: there are few names for the
// next ones.
SCENARIO_F(TrackerTime, AThreadThatIsEndedGivesItsNameBack) {
  world.SpawnOn(world.home().host, "client", [] {
    common::NamedMutex mutex(kLogPathChannel.mutex_name);
    mutex.lock();
    Sleep(INFINITE);
  });
  RunFor(10ms);
  for (int i = 0; i < 5; ++i) {
    tracker.Init();
    RunFor(10ms);
    EXPECT_GE(TimeOf([&] { tracker.UnInit(); }), 2000u);
  }
  const common::OwnThread own;
  EXPECT_NE(own.name(), 0u);
}

// The thread is busy when it is told to end; open sockets must still be reported.
SCENARIO_F_SEEDS(TrackerTime, EndReportsOpenSocketsInEveryStateOfTheThread, 6) {
  for (u32 sent = 1; sent <= 60; ++sent) {
    tracker.Init();
    if (sent == 1) AddAccelerated(kSocket, "guid");
    RunFor(30ms);
    FreeSlots(client.traffic);
    tracker.SnapshotCommInfo(true);
    SubmitOne();
    tracker.RecordSend(kSocket, 1, 0);
    tracker.UnInit();
    const int reports = UsedSlots(client.traffic);
    ASSERT_GE(reports, 1);
    ASSERT_EQ(client.traffic->slots[reports - 1].total_sent_packets, sent);
  }
}

}  // namespace
