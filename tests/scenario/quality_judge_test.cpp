// The judge of a link and time: how soon it may report, how soon it may ask for a switch again, and
// how a wrap of the tick counter affects both.
#include <winsock2.h>
//
#include <windows.h>

#include "port/sim/scenario.h"
#include "tests/support/link_judge.h"
#include "tests/support/log_texts.h"
#include "tracker/tracker.h"

namespace {

using namespace moru_vyr::lsp;  // NOLINT: every name here is the product's
using test::CountOf;
using test::LinkJudge;
using test::LogCapture;

sim::Options TickStart(u32 tick) {
  sim::Options options;
  options.tick_start = tick;
  return options;
}

bool Trouble(LinkJudge& link) { return link.JudgesDelay(1000, 0, 0); }

SCENARIO(LinkJudge, ReportsAtLeastAWindowApartAndAfterTheStart) {
  LinkJudge link(0);
  link.config.lost_calc_unit_size = 0;  // 1000
  link.config.long_cycle = 0;           // 5
  ASSERT_TRUE(link.Start());
  LogCapture log;
  Sleep(4999);
  EXPECT_TRUE(Trouble(link));
  EXPECT_TRUE(link.owner.fired.empty());
  EXPECT_TRUE(
      log.Contains("[RecoverySwitch]IsBelowReportLimit could not happen within 5000 "
                   "milliseconds, socket=1234, token=77"));
  Sleep(1);
  EXPECT_TRUE(Trouble(link));
  ASSERT_EQ(link.owner.fired.size(), 1u);
  EXPECT_EQ(link.owner.fired[0].elapse_time, 5000u);
  Sleep(4999);
  Trouble(link);
  EXPECT_EQ(CountOf(test::kSwitchReported, log.Text()), 0);
  Sleep(1);
  Trouble(link);
  EXPECT_EQ(CountOf(test::kSwitchReported, log.Text()), 1);
}

SCENARIO(LinkJudge, AsksForSwitchesNoMoreOftenThanAllowed) {
  LinkJudge link;
  link.config.link_switch_min_inter = 40;
  link.config.max_link_switch_count = 2;
  ASSERT_TRUE(link.Start());
  Sleep(100);
  Trouble(link);
  EXPECT_EQ(link.owner.fired.size(), 1u);
  Sleep(39'999);
  Trouble(link);
  EXPECT_EQ(link.owner.fired.size(), 1u);
  // The refused one has been reported; a window later and forty seconds after the switch:
  Sleep(11);
  Trouble(link);
  EXPECT_EQ(link.owner.fired.size(), 2u);
  Sleep(100'000);
  Trouble(link);
  EXPECT_EQ(link.owner.fired.size(), 2u);  // as many as are allowed
  // A new link does not change that.
  ASSERT_TRUE(link.Start());
  Sleep(100'000);
  Trouble(link);
  EXPECT_EQ(link.owner.fired.size(), 2u);
}

// Until the first switch, the time of the last switch is the system's start.
SCENARIO_OPTIONS(LinkJudge, DoesNotSwitchRightAfterTheSystemHasStarted, TickStart(0)) {
  LinkJudge link;
  ASSERT_TRUE(link.Start());
  Sleep(29'999);
  Trouble(link);
  EXPECT_TRUE(link.owner.fired.empty());
  Sleep(11);
  Trouble(link);
  EXPECT_EQ(link.owner.fired.size(), 1u);
}

SCENARIO_OPTIONS(LinkJudge, MaySwitchHalfAMinuteAfterThat, TickStart(0)) {
  LinkJudge link;
  ASSERT_TRUE(link.Start());
  Sleep(30'000);
  Trouble(link);
  EXPECT_EQ(link.owner.fired.size(), 1u);
}

SCENARIO(LinkJudge, TheFirstSlotOfDataLastsAWholeUnit) {
  LinkJudge link;
  link.config.lost_calc_unit_size = 1000;
  ASSERT_TRUE(link.Start());
  Sleep(999);
  EXPECT_TRUE(link.judge.OnUpdate());
  Sleep(LinkJudge::kWait);
  EXPECT_TRUE(link.judge.OnUpdate());  // begins the grace period, if the one before did not
  EXPECT_EQ(link.judge.DataLinkGetDefCurLost(true), kLostNeverComputed);
  Sleep(LinkJudge::kWait);
  EXPECT_TRUE(link.judge.OnUpdate());
  EXPECT_EQ(link.judge.DataLinkGetDefCurLost(true), kLostNoRange);
}

SCENARIO_OPTIONS(LinkJudge, StartsItsClockAnewWhenTheTickCountDoes, TickStart(0u - 1000)) {
  LinkJudge link(0);
  link.config.lost_calc_unit_size = 500;
  ASSERT_TRUE(link.Start());
  link.Probe(11, 9);
  EXPECT_TRUE(link.judge.OnUpdate());  // no time has passed: nothing is evaluated
  Sleep(500);
  EXPECT_TRUE(link.judge.OnUpdate());
  Sleep(600);  // 100 past the wrap: the grace period would be over
  EXPECT_TRUE(link.judge.OnUpdate());
  EXPECT_EQ(link.RealRouteLost(false), 102);
  LogCapture log;
  Sleep(549);
  link.judge.OnUpdate();
  EXPECT_EQ(link.RealRouteLost(false), 102);
  Sleep(1);  // the open slot began at 500 of the old clock, and wants 50 more
  link.judge.OnUpdate();
  EXPECT_EQ(link.RealRouteLost(false), 10);
  EXPECT_TRUE(log.Contains(test::kRealRouteUpdate + "550, socket=1234"));
}

// After a switch the judge of the new link still evaluates what it saw of the old one, for as long
// as that had lasted. Kept; it is why a second switch can follow a first without a reason of its
// own.
SCENARIO(LinkJudge, ANewLinkIsSeenWithTheOldWindowsForAsLongAsTheOldOneLasted) {
  LinkJudge link;
  link.config.lost_calc_unit_size = 1000;
  link.config.recovery_window_word = 200;
  link.config.long_cycle = 2;
  ASSERT_TRUE(link.Start());
  const auto run = [&link](u32 ms) {
    for (u32 i = 0; i < ms / 10; ++i) {
      Sleep(10);
      link.judge.OnUpdate();
    }
  };
  for (int second = 0; second < 20; ++second) {
    link.Probe(10, second < 15 ? 10 : 2);
    run(1000);
  }
  EXPECT_EQ(link.RealRouteLost(false), 80);
  ASSERT_TRUE(link.Start());  // the flow has moved, and the new link is healthy
  for (int second = 0; second < 20; ++second) {
    link.Probe(10, 10);
    EXPECT_EQ(link.RealRouteLost(false), 80) << second;
    run(1000);
  }
  for (int second = 0; second < 5; ++second) {
    link.Probe(10, 10);
    run(1000);
  }
  EXPECT_EQ(link.RealRouteLost(false), 0);
}

// Asked to forget, it sees the new link alone, from its first slot on.
SCENARIO(LinkJudge, AForgottenLinkLeavesNothingInTheWindows) {
  LinkJudge link;
  link.config.lost_calc_unit_size = 1000;
  link.config.recovery_window_word = 200;
  link.config.long_cycle = 2;
  ASSERT_TRUE(link.Start());
  const auto probe = [&link](u32 answered) {
    link.Probe(10, answered);
    for (u32 i = 0; i < 100; ++i) {
      Sleep(10);
      link.judge.OnUpdate();
    }
  };
  for (int second = 0; second < 20; ++second) probe(2);
  EXPECT_EQ(link.RealRouteLost(false), 80);
  link.judge.Forget();
  ASSERT_TRUE(link.Start());
  link.seq = 0;  // a new link has numbers of its own
  EXPECT_EQ(link.RealRouteLost(false), kLostNoRange);
  EXPECT_EQ(link.judge.DataLinkGetDefCurLost(true), kLostNeverComputed);
  for (int second = 0; second < 3; ++second) probe(10);
  EXPECT_EQ(link.RealRouteLost(false), 0);
  for (int second = 0; second < 3; ++second) probe(5);
  EXPECT_EQ(link.RealRouteLost(false), 50);
}

SCENARIO(LinkJudge, TakesThePacketCountsOfTheSocketAndLeavesItsFiguresThere) {
  LinkJudge link(0);
  GetTracker().AddToWatchList(link.socket, kTrackUdp, LinkJudge::kToken);
  for (int i = 0; i < 3; ++i) GetTracker().RecordSend(link.socket, 10, 0);
  for (int i = 0; i < 5; ++i) GetTracker().RecordRecv(link.socket, 10, 0);
  ASSERT_TRUE(link.Start());
  link.PassReportLimit();
  LogCapture log;
  link.judge.UpdateRecoveryInfo();
  EXPECT_TRUE(log.Contains(test::kSwitchFigures + "0-0-0-0-0-0-0-0-0-0-0-0-0-0-0"));
  Trouble(link);
  ASSERT_EQ(link.owner.fired.size(), 1u);
  EXPECT_EQ(link.owner.fired[0].total_send_pack, 3);
  EXPECT_EQ(link.owner.fired[0].total_recv_pack, 5);
  // And a report that no switch follows goes to the Tracker.
  link.PassReportLimit();
  Trouble(link);
  EXPECT_TRUE(log.Contains(test::kSwitchSubmitted + "7, guid=01234567-89AB"));
}

}  // namespace
