// The delays of recent cycles. The unit is a cycle, not a probe; a burst raises the average; after
// many bursts a watch period prevents further ones. All by the tick count, which starts again every
// 49.7 days.
#include "quality/real_route_recent_cycle_data.h"

#include <cstdlib>
#include <string>

#include "port/sim/scenario.h"
#include "route/acc_config.h"
#include "tests/model/quality_recent_cycle_model.h"

namespace {

using namespace moru_vyr::lsp;  // NOLINT: every name here is the product's

constexpr bool kBurst = true;
constexpr bool kSingle = false;
constexpr u8 kFront = 1;

AccConfig Settings(u8 long_cycle, u16 max_bursts = 100, u16 watch_s = 10, u32 interval = 500) {
  AccConfig config;
  config.long_cycle = long_cycle;
  config.norm_test_interval = interval;
  config.max_high_freq_test_count = max_bursts;
  config.watching_time_span = watch_s;
  config.log_level = 6;
  return config;
}

class RecentCycles : public sim::ScenarioTest {
 protected:
  void Configure(const AccConfig& config) {
    ReplaceAccConfig(config);
    data_ = std::make_unique<RealRouteRecentCycleData>();
  }
  // One probe in each cycle, the first in the running one.
  void Probe(std::initializer_list<u32> delays, bool burst = kSingle, u8 relay_idx = 0) {
    for (const u32 delay : delays) {
      data_->Update(delay, burst, relay_idx);
      Sleep(500);
    }
  }
  // Cycles of a burst's probes, then the first probe after it.
  void Burst(int cycles) {
    for (int i = 0; i < cycles; ++i) {
      data_->Update(20, kBurst, 0);
      data_->Update(20, kBurst, 0);
      Sleep(500);
    }
    data_->Update(40, kSingle, 0);
  }
  RealRouteRecentCycleData& data() { return *data_; }

 private:
  std::unique_ptr<RealRouteRecentCycleData> data_;
};

SCENARIO_F(RecentCycles, HasNoResultBeforeTheWindowIsFull) {
  Configure(Settings(5));
  Probe({40, 40, 40, 40, 40});  // four entries, the fifth still runs
  EXPECT_EQ(data().delay_avg(), 9999u);
  EXPECT_EQ(data().delay_amp(), 9999u);
  Probe({40});
  EXPECT_EQ(data().delay_avg(), 40u);
  EXPECT_EQ(data().delay_amp(), 0u);
}

SCENARIO_F(RecentCycles, DefaultsAndFloorsApply) {
  Configure(Settings(0, 100, 10, 1));  // five cycles of 500 ms
  data().Update(10, kSingle, 0);
  Sleep(499);
  data().Update(30, kSingle, 0);  // the same cycle still
  Sleep(1);
  Probe({40, 40, 40, 40});
  EXPECT_EQ(data().delay_avg(), 9999u);
  Probe({40});
  EXPECT_EQ(data().delay_avg(), 40u);
}

SCENARIO_F(RecentCycles, AveragesAndSwingAreTruncated) {
  Configure(Settings(2));
  Probe({10, 21, 1});
  EXPECT_EQ(data().delay_avg(), 15u);
  EXPECT_EQ(data().delay_amp(), 5u);  // the root of 30.5, about the truncated average
  Probe({1, 1});
  EXPECT_EQ(data().delay_avg(), 1u);
  EXPECT_EQ(data().delay_amp(), 0u);
}

// The window is of entries: the sums of their cycles.
SCENARIO_F(RecentCycles, ABurstRaisesTheAverage) {
  Configure(Settings(2));
  Probe({40});
  for (int i = 0; i < 10; ++i) data().Update(40, kBurst, 0);
  Sleep(500);
  Probe({40});
  EXPECT_EQ(data().delay_avg(), 220u);  // 40 and 400
  // Squares are of single delays, so they make less than the square of the average.
  EXPECT_EQ(data().delay_amp(), 0u);
}

SCENARIO_F(RecentCycles, OldEntriesLeave) {
  Configure(Settings(3));
  Probe({900, 900, 900, 30, 30, 30, 30});
  EXPECT_EQ(data().delay_avg(), 30u);
}

SCENARIO_F(RecentCycles, ASumThatIsTheMarkCountsAsNotMeasured) {
  Configure(Settings(1));
  Probe({9999, 1});
  EXPECT_EQ(data().delay_avg(), 9999u);
  Probe({1});
  EXPECT_EQ(data().delay_avg(), 1u);

  Configure(Settings(3));
  Probe({5000, 4000, 999, 1});
  EXPECT_EQ(data().delay_avg(), 9999u);
  // The swing is reckoned all the same, about the mark.
  EXPECT_EQ(data().delay_amp(), 6879u);
}

SCENARIO_F(RecentCycles, OneEntryDoesNotChangeTheVariation) {
  Configure(Settings(1));
  data().Update(700, kSingle, 0);
  EXPECT_EQ(data().delay_amp(), 9999u);
  Sleep(500);
  Probe({100, 300});
  EXPECT_EQ(data().delay_avg(), 100u);
  EXPECT_EQ(data().delay_amp(), 9999u);
  data().Reset();
  Probe({100, 300});
  EXPECT_EQ(data().delay_amp(), 9999u);
}

SCENARIO_F(RecentCycles, ACycleWithoutProbesOrDelaysHasNoEntry) {
  Configure(Settings(2));
  Probe({50});
  Sleep(500);
  Probe({0});   // closes the cycle of 50
  Probe({70});  // closes that of nothing
  EXPECT_EQ(data().delay_avg(), 9999u);
  Probe({70});
  EXPECT_EQ(data().delay_avg(), 60u);
  Probe({70});
  EXPECT_EQ(data().delay_avg(), 70u);
}

// The start of the cycle moves by one cycle a call: after a pause, probes close cycles of their
// own.
SCENARIO_F(RecentCycles, AfterAPauseEveryProbeClosesACycleUntilItHasCaughtUp) {
  Configure(Settings(3));
  Sleep(2000);
  for (const u32 delay : {10u, 20u, 30u}) data().Update(delay, kSingle, 0);
  EXPECT_EQ(data().delay_avg(), 9999u);
  data().Update(40, kSingle, 0);
  EXPECT_EQ(data().delay_avg(), 20u);
  data().Update(50, kSingle, 0);  // the time is made up: the same cycle as 40
  data().Update(50, kSingle, 0);
  EXPECT_EQ(data().delay_avg(), 20u);
  Sleep(500);
  data().Update(1, kSingle, 0);
  EXPECT_EQ(data().delay_avg(), (20u + 30 + 140) / 3);
}

SCENARIO_F(RecentCycles, AResetDropsDelaysAndKeepsTheWatchPeriod) {
  Configure(Settings(2, 2));
  Burst(1);
  EXPECT_FALSE(data().IsWatching());
  Burst(2);
  EXPECT_TRUE(data().IsWatching());
  data().Reset();
  EXPECT_TRUE(data().IsWatching());
  EXPECT_EQ(data().delay_avg(), 0u);
  EXPECT_EQ(data().delay_amp(), 0u);
  data().Update(40, kSingle, 0);
  EXPECT_EQ(data().delay_avg(), 9999u);
  data().StopWatching();
  EXPECT_FALSE(data().IsWatching());
  Sleep(500);
  Probe({40, 40});
  EXPECT_FALSE(data().IsWatching());  // the bursts are forgotten too
}

SCENARIO_F(RecentCycles, AWatchEndsAtTheFirstProbePastItsTime) {
  Configure(Settings(2, 2, 10));
  Burst(2);
  ASSERT_TRUE(data().IsWatching());
  Sleep(500);
  Probe({40, 40, 40});  // the bursts leave the window
  Sleep(10'000 - 4 * 500);
  data().Update(40, kSingle, 0);  // exactly its time is not past it
  EXPECT_TRUE(data().IsWatching());
  Sleep(1);
  EXPECT_TRUE(data().IsWatching());
  data().Update(40, kSingle, kFront);  // does not affect the front section
  EXPECT_TRUE(data().IsWatching());
  data().Update(40, kSingle, 2);
  EXPECT_FALSE(data().IsWatching());
}

// Kept: the mark of the probe that closes a cycle goes with that cycle, not with its own.
SCENARIO_F(RecentCycles, TheFirstProbeOfABurstMarksTheCycleBeforeIt) {
  Configure(Settings(2, 1));
  Probe({40});
  data().Update(40, kBurst, 0);
  EXPECT_TRUE(data().IsWatching());

  Configure(Settings(2, 2));
  Probe({40, 40}, kBurst);  // one burst of one probe a cycle never counts twice
  Probe({40});
  EXPECT_FALSE(data().IsWatching());
}

SCENARIO_F(RecentCycles, TheFrontSectionHasNoWatchPeriod) {
  Configure(Settings(2, 1));
  Probe({40, 40, 40, 40}, kBurst, kFront);
  EXPECT_FALSE(data().IsWatching());
}

SCENARIO_F(RecentCycles, WithNoBurstAllowedTheWatchPeriodDoesNotEnd) {
  Configure(Settings(5, 0, 1));
  data().Update(40, kSingle, 0);
  EXPECT_TRUE(data().IsWatching());
  Sleep(1001);
  data().Update(40, kSingle, 0);  // ends, and begins again
  EXPECT_TRUE(data().IsWatching());
  data().StopWatching();
  data().Update(40, kSingle, 2);
  EXPECT_TRUE(data().IsWatching());
}

sim::Options TickBeforeWrap(u32 ms) {
  sim::Options options;
  options.tick_start = 0u - ms;
  return options;
}

SCENARIO_OPTIONS(RecentCycle, ContinuesOverTheWrapOfTheTickCount, TickBeforeWrap(1250)) {
  ReplaceAccConfig(Settings(5));
  RealRouteRecentCycleData data;
  for (int i = 0; i < 6; ++i) {
    data.Update(40, kSingle, 0);
    Sleep(500);
  }
  EXPECT_EQ(data.delay_avg(), 40u);
}

// A cycle that runs while the count wraps seems to have begun in the future, and begins again.
SCENARIO_OPTIONS(RecentCycle, StretchesTheCycleOfTheWrap, TickBeforeWrap(250)) {
  ReplaceAccConfig(Settings(1));
  RealRouteRecentCycleData data;
  data.Update(40, kSingle, 0);
  Sleep(350);
  data.Update(40, kSingle, 0);
  Sleep(499);
  data.Update(40, kSingle, 0);
  EXPECT_EQ(data.delay_avg(), 9999u);
  Sleep(1);
  data.Update(40, kSingle, 0);
  EXPECT_EQ(data.delay_avg(), 120u);
}

// --- and all at random, beside the model ---------------------------------------------------------

u32 FromEnvironment(const char* name, u32 otherwise) {
  const char* const text = std::getenv(name);
  return text != nullptr ? static_cast<u32>(std::strtoul(text, nullptr, 10)) : otherwise;
}

// One window with settings of its own, and the model of it.
class Pair {
 public:
  explicit Pair(sim::Random& random) : random_(random) {
    ReplaceAccConfig(config_);
    data_ = std::make_unique<RealRouteRecentCycleData>();
    test::RecentCycleModel::Settings settings;
    settings.cycle_ms = config_.norm_test_interval < 500 ? 500 : config_.norm_test_interval;
    settings.window = config_.long_cycle == 0 ? 5 : config_.long_cycle;
    settings.max_bursts = config_.max_high_freq_test_count;
    settings.watch_ms = config_.watching_time_span * 1000u;
    model_ = std::make_unique<test::RecentCycleModel>(settings, GetTickCount());
  }

  void Step() {
    Pass();
    if (Below(10) == 0) burst_ = Below(3) == 0;
    const u32 what = Below(1000);
    if (what < 3) {
      data_->Reset();
      model_->Reset(GetTickCount());
    } else if (what < 10) {
      data_->StopWatching();
      model_->StopWatching();
    } else {
      const u32 delay = Delay();
      const auto relay_idx = static_cast<u8>(Below(3));
      data_->Update(delay, burst_, relay_idx);
      model_->Update(delay, burst_, relay_idx, GetTickCount());
    }
    EXPECT_EQ(data_->delay_avg(), model_->delay_avg);
    EXPECT_EQ(data_->delay_amp(), model_->delay_amp);
    EXPECT_EQ(data_->IsWatching(), model_->IsWatching());
  }

 private:
  u32 Below(u32 limit) { return static_cast<u32>(random_.Below(limit)); }

  AccConfig RandomConfig() {
    const u32 window = Below(3) == 0 ? Below(256) : Below(8);
    const u32 interval = Below(1500);
    const auto watch_s = static_cast<u16>(Below(20));
    return Settings(static_cast<u8>(window), static_cast<u16>(Below(6)), watch_s, interval);
  }
  void Pass() {
    switch (Below(40)) {
      case 0:
        return Sleep(Below(20'000));
      case 1:
        return Sleep(Below(400) == 0 ? 0x40000000 : 1);  // a machine that slept for twelve days
      case 2:
      case 3:
        return;
      default:
        return Sleep(burst_ ? 50 + Below(20) : 400 + Below(300));
    }
  }
  u32 Delay() {
    switch (Below(20)) {
      case 0:
        return Below(2);
      case 1:
        return 9999;
      case 2:
        return 9990 + Below(20);
      case 3:
        return Below(0xFFFFFFFF);  // no probe has that; the arithmetic is the same
      default:
        return 30 + Below(30);
    }
  }

  sim::Random& random_;
  const AccConfig config_ = RandomConfig();
  std::unique_ptr<RealRouteRecentCycleData> data_;
  std::unique_ptr<test::RecentCycleModel> model_;
  bool burst_ = false;
};

sim::Options LongTime() {
  sim::Options options = TickBeforeWrap(300'000);
  options.max_time = std::chrono::hours(24 * 365 * 100);
  options.max_steps = 100'000'000;
  return options;
}

SCENARIO_OPTIONS(RecentCycle, AgreesWithItsModelAfterEveryStep, LongTime()) {
  constexpr u32 kStepsPerPair = 1000;
  const u32 pairs = FromEnvironment("VYR_STEPS", 50'000) / kStepsPerPair;
  for (u32 i = 0; i < pairs; ++i) {
    Pair pair(world.random());
    for (u32 step = 0; step < kStepsPerPair; ++step) {
      pair.Step();
      ASSERT_FALSE(testing::Test::HasFailure()) << "pair " << i << ", step " << step;
    }
  }
}

}  // namespace
