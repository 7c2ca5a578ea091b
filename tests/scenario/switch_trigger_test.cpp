// What makes a flow ask for a burst of probes, and what a burst leads to. At stake: a link in
// trouble is tested within one slot of its windows, and a healthy one is left alone.
#include "tests/scenario/switch_world.h"
#include "tests/support/log_texts.h"
//
#include <functional>

#include "tests/support/link_judge.h"
#include "tests/support/wire_bytes.h"

namespace {

using namespace switch_test;  // NOLINT

constexpr char kDead[] =
    "[RecoverySwitch]the received packages in 2 seconds is 0, indicating dead link, so requesting "
    "high freq test, token=77";
constexpr char kShort[] =
    "[RecoverySwitch]the received packages in 2 seconds is above 20 and lost ratio is above 20, "
    "indicating lagging link, so requesting high freq test, token=77";
constexpr char kLong[] =
    "[RecoverySwitch]received packages in 5 seconds is above 30 and lost ratiois above 5, so "
    "requesting high freq test, token=77";
constexpr char kRoute[] =
    "[RecoverySwitch]the received packages in 5 seconds is less than 30 and lost ratio is above "
    "40, so requesting high freq test, token=77";

bool Never(u32) { return false; }
bool Always(u32) { return true; }
std::function<bool(u32)> OneIn(u32 n) {
  return [n](u32 seq) { return seq % n == 0; };
}

class SwitchTrigger : public SwitchWorld {
 protected:
  // The node sends `per_turn` datagrams in every turn of 50 ms, unless they are lost, and answers
  // every probe, unless that is lost.
  struct Traffic {
    u32 per_turn = 1;
    std::function<bool(u32)> data_lost = Never;
    std::function<bool(u32)> probe_lost = Never;
    u8 lost = 101;  // the loss that the node reports for the way up
  };
  void Plays(int ms, const Traffic& traffic) {
    for (int passed = 0; passed < ms; passed += 50) {
      for (u32 i = 0; i < traffic.per_turn; ++i) {
        if (!traffic.data_lost(a.next_seq)) {
          a.SendsData("x", 0, traffic.lost);
        } else {
          ++a.next_seq;
        }
      }
      Turn(50);
      for (const Wrapped& one : a.Takes()) {
        if (!one.IsProbe()) continue;
        ++probes_;
        if (traffic.probe_lost(one.seq)) a.ForgetsProbes();
        a.AnswersProbes();
      }
    }
  }
  void Plays(int ms) { Plays(ms, Traffic{}); }
  // What has been logged as a reason to look closer, and how often: "1 dead, 2 long".
  std::string Triggers() const {
    static constexpr std::pair<const char*, const char*> kReasons[] = {
        {"dead", kDead}, {"short", kShort}, {"long", kLong}, {"route", kRoute}};
    std::string all;
    for (const auto& [name, line] : kReasons) {
      const int count = Count(line);
      if (count != 0) all += (all.empty() ? "" : ", ") + std::to_string(count) + " " + name;
    }
    return all;
  }

  int probes_ = 0;
};

SCENARIO_F(SwitchTrigger, AHealthyLinkIsProbedRarelyAndHasNoBurst) {
  IsCarried();
  Plays(60'000);
  EXPECT_EQ(Triggers(), "");
  EXPECT_GE(probes_, 105);
  EXPECT_LE(probes_, 110);
}

// The answers to the probes say that it is the game that is silent, not the link. Kept: not in the
// first slot, which has only the probe from which they are counted, so that a young link has to be
// left alone for longer than that.
SCENARIO_F(SwitchTrigger, AQuietGameIsNotADeadLink) {
  config.ignore_high_freq_test_time = 2;
  IsCarried();
  Traffic quiet;
  quiet.per_turn = 0;
  Plays(1'100, quiet);
  EXPECT_EQ(Triggers(), "1 dead");
  Plays(30'000, quiet);
  EXPECT_EQ(Triggers(), "1 dead");
  EXPECT_LE(probes_, 60) << "no burst";
}

SCENARIO_F(SwitchTrigger, SilenceForAWindowIsADeadLink) {
  config.ignore_high_freq_test_time = 3600;  // no burst: the request shows only in the log
  IsCarried();
  Plays(10'000);
  Traffic dead;
  dead.data_lost = dead.probe_lost = Always;
  Plays(1'000, dead);
  EXPECT_EQ(Triggers(), "");
  Plays(3'000, dead);
  const int first = Count(kDead);
  EXPECT_GE(first, 1);
  EXPECT_LE(first, 2);
  // From then on once a slot, which takes 21 turns here.
  Plays(10'500, dead);
  EXPECT_EQ(Count(kDead), first + 10);
  EXPECT_EQ(Count(kShort) + Count(kLong) + Count(kRoute), 0) << "one reason at a time";
}

// Kept: combined with the last reported loss of the way up, the code for "nothing expected" becomes
// another code, which counts as no loss. Then the probes alone show it, over the longer window.
SCENARIO_F(SwitchTrigger, ANodeThatDiesAfterItReportedLossIsNoticedByProbesOnly) {
  config.ignore_high_freq_test_time = 3600;
  IsCarried();
  Traffic lossy;
  lossy.lost = 5;
  Plays(10'000, lossy);
  EXPECT_EQ(Count(kShort), 0);
  const int before = Count(kLong);
  EXPECT_GT(before, 0) << "five percent of the way up are five percent of the link";
  Traffic dead;
  dead.data_lost = dead.probe_lost = Always;
  Plays(15'000, dead);
  EXPECT_EQ(Count(kDead), 0);
  EXPECT_GT(Count(kRoute), 5);
}

SCENARIO_F(SwitchTrigger, LossOverTheShortWindow) {
  config.ignore_high_freq_test_time = 3600;
  IsCarried();
  Plays(10'000);
  Traffic lossy;
  lossy.data_lost = OneIn(5);
  Plays(10'000, lossy);
  EXPECT_GE(Count(kShort), 7);
  EXPECT_EQ(Count(kDead) + Count(kRoute), 0);
  EXPECT_LE(Count(kLong), 1) << "while the short window still held no more than a little";
}

SCENARIO_F(SwitchTrigger, LossOfTheUploadAsTheNodeReportsIt) {
  config.ignore_high_freq_test_time = 3600;
  IsCarried();
  Traffic lossy;
  lossy.lost = 1;
  Plays(5'000, lossy);
  EXPECT_EQ(Triggers(), "");
  lossy.lost = 2;
  Plays(5'000, lossy);
  EXPECT_GE(Count(kLong), 4);
  lossy.lost = 9;
  Plays(5'000, lossy);
  EXPECT_EQ(Count(kShort), 0);
  lossy.lost = 10;
  Plays(10'000, lossy);
  EXPECT_GE(Count(kShort), 9);
}

// Of ten datagrams at least: fewer prove nothing about the short window.
SCENARIO_F(SwitchTrigger, TheShortWindowNeedsTenDatagrams) {
  config.ignore_high_freq_test_time = 3600;
  config.short_cycle = 1;
  IsCarried();
  Traffic few;
  few.data_lost = [](u32 seq) { return seq % 2 != 0 || seq % 20 == 0; };  // 9 of 20 arrive
  Plays(15'000, few);
  EXPECT_EQ(Count(kShort), 0) << log->Text();
  EXPECT_GT(Count(kLong), 0) << "which has five times as many";
  few.data_lost = [](u32 seq) { return seq % 2 != 0; };  // 10 of 20
  Plays(5'000, few);
  EXPECT_GE(Count(kShort), 3);
}

SCENARIO_F(SwitchTrigger, TheLongWindowNeedsTwentyDatagrams) {
  config.ignore_high_freq_test_time = 3600;
  IsCarried();
  Traffic few;
  few.data_lost = [](u32 seq) { return seq % 5 != 0 || seq % 100 == 0; };  // 19 of 100 arrive
  Plays(15'000, few);
  EXPECT_EQ(Triggers(), "");
  few.data_lost = [](u32 seq) { return seq % 5 != 0; };  // 20 of 100
  Plays(10'000, few);
  EXPECT_GE(Count(kLong), 3);
}

// The longest possible window takes the running slot as its oldest: that slot has no range, and
// with everything received there is no loss.
SCENARIO_F(SwitchTrigger, AWindowOfAllSlotsShowsNoLoss) {
  config.ignore_high_freq_test_time = 3600;
  config.lost_calc_unit_size = 100;
  config.long_cycle = 60;
  IsCarried();
  Plays(15'000);
  EXPECT_EQ(Count(kLong), 0);
}

SCENARIO_F(SwitchTrigger, LossOverTheLongWindow) {
  config.ignore_high_freq_test_time = 3600;
  IsCarried();
  Plays(10'000);
  Traffic lossy;
  lossy.data_lost = OneIn(20);
  Plays(10'000, lossy);
  EXPECT_GE(Count(kLong), 6);
  EXPECT_EQ(Count(kDead) + Count(kShort) + Count(kRoute), 0);
}

SCENARIO_F(SwitchTrigger, LossBelowBothThresholdsHasNoEffect) {
  config.data_link_short_cycle_lost = 30;
  config.data_link_long_cycle_lost = 30;
  IsCarried();
  Traffic lossy;
  lossy.data_lost = OneIn(4);
  Plays(20'000, lossy);
  EXPECT_EQ(Triggers(), "");
}

// A game that sends little: then lost probes decide.
SCENARIO_F(SwitchTrigger, LossOfProbesCountsIfTheGameIsQuiet) {
  config.ignore_high_freq_test_time = 3600;
  config.data_link_long_cycle_pkg = 1000;
  IsCarried();
  Traffic lossy;
  lossy.probe_lost = OneIn(3);
  Plays(20'000, lossy);
  EXPECT_GE(Count(kRoute), 10);
  EXPECT_EQ(Count(kDead) + Count(kShort) + Count(kLong), 0);
}

SCENARIO_F(SwitchTrigger, LossOfProbesFromItsThresholdOn) {
  config.ignore_high_freq_test_time = 3600;
  config.data_link_long_cycle_pkg = 1000;
  config.max_real_route_lost = 100;
  IsCarried();
  Traffic lossy;
  lossy.probe_lost = Always;
  Plays(5'000, lossy);
  EXPECT_GE(Count(kRoute), 2);
}

SCENARIO_F(SwitchTrigger, LossOfProbesDoesNotCountWhileTheGamePlays) {
  config.ignore_high_freq_test_time = 3600;
  IsCarried();
  Traffic lossy;
  lossy.probe_lost = OneIn(3);
  Plays(20'000, lossy);
  EXPECT_EQ(Triggers(), "");
}

// Probes that were never sent are no loss.
SCENARIO_F(SwitchTrigger, ARouteWithoutProbesHasNoLoss) {
  config.data_link_long_cycle_pkg = 1000;
  IsCarried();
  flow->SetClosing();  // no more probes
  Plays(20'000);
  EXPECT_EQ(probes_, 0);
  EXPECT_EQ(Triggers(), "");
}

SCENARIO_F(SwitchTrigger, ABurstIsTwentyProbesAtLeastAndEndsInAReportOfALossyRoute) {
  config.switch_open = 0;
  IsCarried();
  Plays(10'000);
  probes_ = 0;
  Traffic lossy;
  lossy.data_lost = lossy.probe_lost = OneIn(2);
  Plays(5'000, lossy);
  EXPECT_GE(probes_, 22);
  EXPECT_GE(Count(test::kSwitchReported), 1) << log->Text();
  EXPECT_TRUE(Logged("[RecoverySwitch][IsAllowSwitch]switch_open is false"));
  EXPECT_EQ(Trial(), nullptr);
}

SCENARIO_F(SwitchTrigger, ADeadLinkEndsInATrialOfAnotherNode) {
  IsCarried();
  Plays(10'000);
  Traffic dead;
  dead.data_lost = dead.probe_lost = Always;
  for (int i = 0; i < 200 && !b.IsAsked(); ++i) Plays(50, dead);
  EXPECT_EQ(test::Value(b.request.body.flags), 2u);
  EXPECT_EQ(Count(test::kSwitchFires + "0, proxy_idc=1"), 1);
}

// The trial of a node that never sends data has no end, and bars every other: reports go on, and
// say that a switch was wanted. Such an attempt is not counted and sets no clock.
SCENARIO_F(SwitchTrigger, DuringAnEndlessTrialRequestedSwitchesAreOnlyReported) {
  IsCarried();
  Plays(10'000);
  Traffic dead;
  dead.data_lost = dead.probe_lost = Always;
  for (int i = 0; i < 200 && !b.IsAsked(); ++i) Plays(50, dead);
  b.Answers();
  HealthyTurns(20);
  ASSERT_TRUE(Logged(test::kTrialVerified));
  Plays(25'000, dead);
  EXPECT_TRUE(Logged(test::SwitchTooSoon(1)));
  EXPECT_EQ(Count(test::kSwitchFires), 1);
  const int held_back = Count(test::SwitchWanted(false));
  EXPECT_GT(held_back, 0);
  Plays(20'000, dead);
  EXPECT_GT(Count(test::SwitchWanted(true)), 1);
  EXPECT_EQ(Count(test::kSwitchFires + "1"), Count(test::SwitchWanted(true)))
      << "each is refused, and the next may try at once";
  EXPECT_FALSE(b.IsAsked());
  EXPECT_EQ(Results(), Outcomes{});
}

SCENARIO_F(SwitchTrigger, AFailedTrialCountsAndTheNextComesThirtySecondsLater) {
  config.max_link_switch_count = 2;
  config.switching_max_real_route_lost = 0;  // none passes
  IsCarried();
  Plays(10'000);
  Traffic dead;
  dead.data_lost = dead.probe_lost = Always;
  std::vector<sim::Duration> asked;
  for (int i = 0; i < 2000 && asked.size() < 3; ++i) {
    Plays(50, dead);
    if (b.IsAsked()) {
      asked.push_back(world.now());
      b.Answers();
    }
  }
  ASSERT_EQ(asked.size(), 2u);
  EXPECT_GE(asked[1] - asked[0], 30s);
  EXPECT_LE(asked[1] - asked[0], 38s);
  EXPECT_EQ(Results(),
            (Outcomes{SwitchResult::kVerificationFailed, SwitchResult::kVerificationFailed}));
  EXPECT_TRUE(Logged(test::SwitchLimitReached(2, 1)));
}

// A trial that finds no node counts as a switch all the same.
SCENARIO_F(SwitchTrigger, ATrialWithoutAnotherNodeCountsAsASwitch) {
  config.max_link_switch_count = 1;
  ScriptedNode::Answer leads_nowhere;
  leads_nowhere.last_node = kLastNode + 1;
  IsCarried(leads_nowhere);
  Plays(10'000);
  Traffic dead;
  dead.data_lost = dead.probe_lost = Always;
  for (int i = 0; i < 200 && Results().empty(); ++i) Plays(50, dead);
  ASSERT_EQ(Results(), Outcomes{SwitchResult::kNoRoute});
  Plays(60'000, dead);
  EXPECT_EQ(Count(test::kSwitchFires + "0, proxy_idc=1"), 1);
  EXPECT_TRUE(Logged(test::SwitchLimitReached(1, 1)));
  EXPECT_EQ(Results(), Outcomes{SwitchResult::kNoRoute});
}

// If data is lost and probes are not, bursts would never stop.
SCENARIO_F(SwitchTrigger, TooManyFruitlessBurstsStartAWatchPeriod) {
  config.max_high_freq_test_count = 3;
  config.watching_time_span = 20;
  IsCarried();
  Plays(10'000);
  Traffic lossy;
  lossy.data_lost = OneIn(5);
  Plays(10'000, lossy);
  EXPECT_TRUE(Logged(test::kBurstRefused));
  probes_ = 0;
  Plays(10'000, lossy);
  EXPECT_LE(probes_, 20) << "no burst";
  // Loss of probes ends it before its time.
  lossy.probe_lost = OneIn(2);
  Plays(5'000, lossy);
  EXPECT_GE(probes_, 40);
  EXPECT_TRUE(Logged(test::kSwitchReported) || Trial() != nullptr);
}

// Nothing is evaluated any more once all reports have been made: a link in trouble stays.
SCENARIO_F(SwitchTrigger, AfterTheLastReportNothingIsChecked) {
  config.switch_open = 0;
  config.max_link_except_rep_num = 1;
  IsCarried();
  Plays(10'000);
  Traffic dead;
  dead.data_lost = dead.probe_lost = Always;
  for (int i = 0; i < 200 && Count(test::kSwitchReported) == 0; ++i) Plays(50, dead);
  ASSERT_EQ(Count(test::kSwitchReported), 1);
  const std::string before = Triggers();
  Plays(60'000, dead);
  EXPECT_EQ(Triggers(), before);
  EXPECT_EQ(Count(test::kSwitchReported), 1);
}

// Each evaluation leaves its figures with the Tracker.
SCENARIO_F(SwitchTrigger, TheIntervalOfChecksRestartsWithANewLink) {
  config.ignore_high_freq_test_time = 3600;
  IsCarried();
  IsVerified();
  const int looks = Count(test::kSwitchFigures);
  for (int i = 0; i < 25 && Count(test::kSwitchFigures) == looks; ++i) Turn(50);
  Turns(15, 50);
  const int before = Count(test::kSwitchFigures);
  b.SendsData("proof");
  Turn(50);
  ASSERT_EQ(Results(), Outcomes{SwitchResult::kTakenOver});
  Turns(19, 50);
  EXPECT_EQ(Count(test::kSwitchFigures), before);
  Turn(50);
  EXPECT_EQ(Count(test::kSwitchFigures), before + 1);
}

SCENARIO_F(SwitchTrigger, ALinkThatIsNotMeasuredIsNotChecked) {
  image.proxies[0].flag = 4;
  IsCarried();
  Traffic dead;
  dead.data_lost = dead.probe_lost = Always;
  Plays(20'000, dead);
  EXPECT_EQ(Triggers(), "");
  EXPECT_TRUE(Logged(test::MeasuringBarred(4) + "1"));
}

}  // namespace
