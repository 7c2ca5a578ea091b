// Clients that die, stop or come late, other games that report at the same moment, and a platform
// that fails: reports may be lost, but nothing else. The director is the relay's worker.
#include <gtest/gtest.h>

#include <list>
#include <optional>
#include <set>
#include <string>

#include "common/named_mutex.h"
#include "common/shared_mem_obj.h"
#include "port/shared/faults.h"
#include "port/sim/scenario.h"
#include "relay/nego_common.h"
#include "tests/support/log_capture.h"
#include "tests/support/log_texts.h"
#include "tests/support/tracker_fixture.h"
#include "tracker/reports.h"

namespace {

using namespace moru_vyr::lsp;  // NOLINT: every name here is the product's
using test::At;
using test::kSocket;
using test::kToken;
using test::SomeDecision;
using test::UsedSlots;

const ReportChannel* const kChannels[] = {
    &kDecisionChannel,          &kCommunicationChannel,   &kLogPathChannel,       &kLoadedChannel,
    &kNegotiationResultChannel, &kRealNegotiationChannel, &kRecoverySwitchChannel};

class TrackerClient : public sim::ScenarioTest {
 protected:
  // One report for each channel, as of a process that does everything once.
  void ReportEverything() {
    for (const SOCKET socket : {SOCKET{1}, SOCKET{2}, SOCKET{3}})
      tracker.AddToWatchList(socket, kTrackUdp, kToken);
    tracker.SetAcceInfo(1, false, At(SomeDecision()));
    tracker.SetAcceInfo(2, true, At(SomeDecision()));
    tracker.RecordNegSuccess(2, 1, 1, 1, 1, At(SomeDecision()));
    tracker.RecordNegFailed(3, 1, kNegoTimedOut, At(SomeDecision()), 1, 1);
    tracker.SubmitRecoverySwitch(At(RecoverySwitchRecord{}));
    for (const SOCKET socket : {SOCKET{1}, SOCKET{2}, SOCKET{3}})
      tracker.RemoveFromWatchList(socket);
  }
  void ExpectEverything() {
    EXPECT_EQ(UsedSlots(client->log_paths), 1);
    EXPECT_EQ(UsedSlots(client->loaded), 1);
    EXPECT_EQ(UsedSlots(client->decisions), 2);
    EXPECT_GE(UsedSlots(client->traffic), 1);
    EXPECT_EQ(UsedSlots(client->failures), 1);
    EXPECT_EQ(UsedSlots(client->negotiations), 1);
    EXPECT_EQ(UsedSlots(client->switches), 1);
  }
  // A client that takes the mutex, and then does nothing for that long.
  sim::Process& StopClientIn(const ReportChannel& channel,
                             sim::Duration time = std::chrono::hours(10)) {
    const DWORD ms = static_cast<DWORD>(time.count() / 1000);
    sim::Process& process = world.SpawnOn(client_host, "client", [&channel, ms] {
      common::NamedMutex mutex(channel.mutex_name);
      mutex.lock();
      Sleep(ms);
      mutex.unlock();
    });
    RunFor(1ms);
    return process;
  }
  u32 TimeOf(const std::function<void()>& body) {
    const u32 start = GetTickCount();
    body();
    return GetTickCount() - start;
  }

  sim::Host& client_host = world.host("home");
  std::optional<test::ReportClient> client{std::in_place};
  Tracker tracker;
};

// --- clients that hold a mutex ----------------------------------------------------------------

SCENARIO_F(TrackerClient, MutexOfADeadClientIsTakenOver) {
  sim::Process& victim = world.SpawnOn(client_host, "client", [] {
    for (const ReportChannel* channel : kChannels)
      (new common::NamedMutex(channel->mutex_name))->lock();
    Sleep(INFINITE);
  });
  RunFor(1ms);
  tracker.Init();
  ReportEverything();
  RunFor(5s);
  EXPECT_EQ(UsedSlots(client->log_paths), 0);  // the thread waits at its first report
  world.Kill(victim);
  RunFor(1s);
  ExpectEverything();
  tracker.UnInit();
}

SCENARIO_F_SEEDS(TrackerClient, ClientCanDieWhenItAcquiresAnyMutex, 10) {
  for (const ReportChannel* channel : kChannels) {
    sim::Process& victim = world.SpawnOn(client_host, "client", [channel] {
      common::NamedMutex mutex(channel->mutex_name);
      for (;;) {
        mutex.lock();
        mutex.unlock();
        Sleep(1);
      }
    });
    world.KillWhenItHolds(victim, channel->mutex_name);
  }
  tracker.Init();
  ReportEverything();
  RunFor(1s);
  tracker.UnInit();
  ExpectEverything();
}

SCENARIO_F(TrackerClient, StoppedClientHoldsReportsUpAndNothingElse) {
  tracker.Init();
  RunFor(1s);
  StopClientIn(kDecisionChannel, 30s);
  // The worker goes on undisturbed.
  EXPECT_EQ(TimeOf([&] { ReportEverything(); }), 0u);
  RunFor(29s);
  EXPECT_EQ(UsedSlots(client->decisions), 0);
  EXPECT_EQ(UsedSlots(client->failures), 0);
  RunFor(2s);
  ExpectEverything();
  tracker.UnInit();
}

SCENARIO_F(TrackerClient, EndWaitsTwoSecondsForAThreadThatAStoppedClientHolds) {
  for (const ReportChannel* channel : kChannels) {
    Tracker fresh;
    const test::LogCapture log(0);
    sim::Process& stopped = StopClientIn(*channel);
    fresh.Init();
    fresh.AddToWatchList(kSocket, kTrackUdp, kToken);
    fresh.SetAcceInfo(kSocket, true, At(SomeDecision()));
    fresh.RecordNegSuccess(kSocket, 1, 1, 1, 1, At(SomeDecision()));
    fresh.RecordNegFailed(kSocket, 1, kNegoTimedOut, At(SomeDecision()), 1, 1);
    fresh.SubmitRecoverySwitch(At(RecoverySwitchRecord{}));
    fresh.RecordNegSuccess(kSocket, 1, 1, 1, 1, At(SomeDecision()));
    RunFor(500ms);
    const u32 took = TimeOf([&] { fresh.UnInit(); });
    EXPECT_GE(took, 2000u) << channel->mapping_name;
    EXPECT_LT(took, 2050u) << channel->mapping_name;
    EXPECT_TRUE(log.Contains(test::kSyncEnded));
    EXPECT_FALSE(log.Contains("[Tracker] Report Thread quit"));
    world.Kill(stopped);
    RunFor(1s);
    client.reset();
    client.emplace();
  }
}

SCENARIO_F(TrackerClient, ThreadThatIsFreedWithinTheTwoSecondsReportsEverything) {
  StopClientIn(kLogPathChannel, 1500ms);
  tracker.Init();
  ReportEverything();
  const u32 took = TimeOf([&] { tracker.UnInit(); });
  EXPECT_GE(took, 1400u);
  EXPECT_LT(took, 1600u);
  ExpectEverything();
}

SCENARIO_F(TrackerClient, StartsAgainAfterAThreadThatHadToBeEnded) {
  sim::Process& stopped = StopClientIn(kLogPathChannel);
  tracker.Init();
  ReportEverything();
  tracker.UnInit();
  world.Kill(stopped);
  RunFor(1s);
  EXPECT_EQ(UsedSlots(client->log_paths), 0);
  tracker.Init();
  RunFor(1s);
  tracker.SubmitRecoverySwitch(At(RecoverySwitchRecord{}));
  RunFor(1s);
  EXPECT_EQ(UsedSlots(client->switches), 2);  // the new thread stays at work
  client->switches->slots[1].used = 0;
  ExpectEverything();
  tracker.UnInit();
}

// --- clients that come and go -----------------------------------------------------------------

SCENARIO_F(TrackerClient, WithoutAClientReportsAreLostAndNoRegionAppears) {
  client.reset();
  tracker.Init();
  ReportEverything();
  RunFor(1s);
  for (const ReportChannel* channel : kChannels)
    EXPECT_FALSE(common::Shared_mem_obj::Exists(channel->mapping_name)) << channel->mapping_name;
  client.emplace();  // earlier reports do not come again
  RunFor(1s);
  EXPECT_EQ(UsedSlots(client->decisions) + UsedSlots(client->log_paths), 0);
  tracker.SubmitRecoverySwitch(At(RecoverySwitchRecord{}));
  RunFor(1s);
  EXPECT_EQ(UsedSlots(client->switches), 1);
  tracker.UnInit();
}

// --- other games ------------------------------------------------------------------------------

// All processes with the library write to the same slots. The first free one decides.
SCENARIO_F_SEEDS(TrackerClient, GamesThatReportAtOnceShareTheSlots, 30) {
  constexpr u32 kGames = 2, kReports = 8;  // together as many as there are slots
  for (u32 game = 0; game < kGames; ++game) {
    world.SpawnOn(client_host, "game", [game] {
      for (u32 i = 0; i < kReports; ++i) {
        NegRetRecord record;
        record.game_id = game;
        record.nego_count = i;
        ReportNegRetValue(record);
      }
    });
  }
  ASSERT_TRUE(world.RunUntilAllEnd());
  u32 next[kGames] = {};
  for (const NegRetRecord& slot : client->failures->slots) {
    EXPECT_EQ(slot.used, 1);
    const u64 game = slot.game_id;
    ASSERT_LT(game, kGames);
    EXPECT_EQ(slot.nego_count, next[game]++);  // each game's in its own order
  }
  EXPECT_EQ(next[0], kReports);
  EXPECT_EQ(next[1], kReports);
}

SCENARIO_F_SEEDS(TrackerClient, ClientThatFreesSlotsMeanwhileLosesNothing, 20) {
  constexpr u32 kReports = 200;
  bool done = false;
  std::vector<u32> read;
  const auto drain = [&] {
    common::NamedMutex mutex(kNegotiationResultChannel.mutex_name);
    const common::NamedMutexGuard guard(&mutex, false);
    for (NegRetRecord& slot : client->failures->slots) {
      if (slot.used == 0) continue;
      read.push_back(slot.nego_count);
      slot.used = 0;
    }
  };
  world.SpawnOn(client_host, "client", [&] {
    while (!done) {
      drain();
      Sleep(1);
    }
  });
  world.SpawnOn(client_host, "game", [&] {
    for (u32 i = 0; i < kReports; ++i) {
      NegRetRecord record;
      record.nego_count = i;
      ReportNegRetValue(record);
      if (i % 8 == 7) Sleep(2);
    }
    done = true;
  });
  ASSERT_TRUE(world.RunUntilAllEnd());
  drain();
  ASSERT_EQ(read.size(), kReports);
  const std::set<u32> all(read.begin(), read.end());
  EXPECT_EQ(all.size(), kReports);
}

// --- a platform that fails --------------------------------------------------------------------

SCENARIO_F(TrackerClient, WithoutItsEventsItKeepsListsAndRunsNoThread) {
  for (const unsigned nth : {1u, 2u}) {
    const char* const text = nth == 1 ? "[Tracker] Create Event [qos list ready] failed\n"
                                      : "[Tracker] Create Event [comm info sync ready] failed\n";
    Tracker fresh;
    const test::LogCapture log(4);
    port::FailCall("CreateEventA", nth, ERROR_NOT_ENOUGH_MEMORY);
    fresh.Init();
    port::ClearFaults();
    EXPECT_TRUE(log.Contains(text)) << log.Text();
    fresh.SubmitRecoverySwitch(At(RecoverySwitchRecord{}));
    RunFor(1s);
    EXPECT_EQ(UsedSlots(client->log_paths), static_cast<int>(nth) - 1);
    const u32 took = TimeOf([&] { fresh.UnInit(); });
    EXPECT_EQ(took, 0u);
    EXPECT_EQ(UsedSlots(client->switches), static_cast<int>(nth) - 1);
    fresh.Init();  // the next start finds what was kept
    RunFor(1s);
    fresh.UnInit();
    EXPECT_EQ(UsedSlots(client->switches), static_cast<int>(nth));
  }
}

SCENARIO_F(TrackerClient, InitAfterAMissingEventTriesAgain) {
  port::FailCall("CreateEventA", 2, ERROR_NOT_ENOUGH_MEMORY);
  tracker.Init();
  port::ClearFaults();
  tracker.Init();
  ReportEverything();
  RunFor(1s);
  tracker.UnInit();
  ExpectEverything();
}

SCENARIO_F(TrackerClient, WithoutItsThreadTheEndDoesNotWait) {
  world.FailThreadStart(1);
  const test::LogCapture log(0);
  tracker.Init();
  EXPECT_TRUE(log.Contains("[Tracker] Sync Thread started.\n"));
  ReportEverything();
  RunFor(1s);
  EXPECT_EQ(TimeOf([&] { tracker.UnInit(); }), 0u);
  EXPECT_FALSE(log.Contains(test::kSyncEnded));
  tracker.Init();
  RunFor(1s);
  tracker.UnInit();
  ExpectEverything();
}

SCENARIO_F(TrackerClient, SignalThatIsLostDelaysTheReportToTheNext) {
  tracker.Init();
  RunFor(1s);
  world.LoseSetEvent(1);
  tracker.SubmitRecoverySwitch(At(RecoverySwitchRecord{}));
  RunFor(10s);
  EXPECT_EQ(UsedSlots(client->switches), 0);
  tracker.SubmitRecoverySwitch(At(RecoverySwitchRecord{}));
  RunFor(1s);
  EXPECT_EQ(UsedSlots(client->switches), 2);
  tracker.UnInit();
}

SCENARIO_F(TrackerClient, RegionsThatCannotBeReachedCostTheirReports) {
  std::list<common::NamedMutex> mutexes;  // the client has them open
  for (const ReportChannel* channel : kChannels) mutexes.emplace_back(channel->mutex_name);
  for (const char* call : {"OpenFileMappingA", "MapViewOfFile"}) {
    port::FailCall(call, 0, ERROR_NOT_ENOUGH_MEMORY);
    const test::LogCapture log(4);
    Tracker fresh;
    fresh.Init();
    fresh.SubmitRecoverySwitch(At(RecoverySwitchRecord{}));
    RunFor(1s);
    for (common::NamedMutex& mutex : mutexes) {  // the thread lives, and holds none
      EXPECT_TRUE(mutex.try_lock()) << call;
      mutex.unlock();
    }
    fresh.UnInit();
    port::ClearFaults();
    EXPECT_TRUE(log.Contains("ReportRecoverySwitch failed, mem_addr=null")) << call << log.Text();
    EXPECT_EQ(UsedSlots(client->switches) + UsedSlots(client->log_paths), 0) << call;
  }
}

// Unguarded writing is better than none: the client sees the record whole, as a rule.
SCENARIO_F(TrackerClient, WithoutAMutexReportsAreStillWritten) {
  port::FailCall("CreateMutexA", 0, ERROR_NOT_ENOUGH_MEMORY);
  tracker.Init();
  ReportEverything();
  RunFor(1s);
  tracker.UnInit();
  port::ClearFaults();
  ExpectEverything();
}

}  // namespace
