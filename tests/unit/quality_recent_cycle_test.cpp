// The truncating arithmetic of recent delays, on every platform. What depends on the clock is
// tested where the clock can be moved.
#include "quality/real_route_recent_cycle_data.h"

#include "tests/support/link_judge.h"

namespace moru_vyr::lsp {
namespace {

TEST(RecentCycleArithmetic, TruncatesAveragesAndSwing) {
  struct Case {
    u32 first, second, avg, amp;
  };
  constexpr Case kCases[] = {{10, 21, 15, 5},      {40, 40, 40, 0},       {1, 2, 1, 0},
                             {30, 61, 45, 15},     {9999, 9998, 9998, 0}, {1, 9997, 4999, 4998},
                             {333, 666, 499, 166}, {1, 3, 2, 1}};
  AccConfig config;
  config.long_cycle = 2;
  config.log_level = 6;
  ReplaceAccConfig(config);
  std::vector<RealRouteRecentCycleData> windows(std::size(kCases));
  test::Pass(3 * 500);  // after a pause every probe closes a cycle: first, second, and one more
  for (std::size_t i = 0; i < std::size(kCases); ++i) {
    const auto& [first, second, avg, amp] = kCases[i];
    for (const u32 delay : {first, second, 1u}) windows[i].Update(delay, false, 0);
    EXPECT_EQ(windows[i].delay_avg(), avg) << first << " " << second;
    EXPECT_EQ(windows[i].delay_amp(), amp) << first << " " << second;
  }
  ReplaceAccConfig(AccConfig{});
}

// 30, 32 and 50 swing by 8.99 about their average, and by 9.01 about what is left of it.
TEST(RecentCycleArithmetic, TheSwingIsAboutTheTruncatedAverage) {
  AccConfig config;
  config.long_cycle = 3;
  config.log_level = 6;
  ReplaceAccConfig(config);
  RealRouteRecentCycleData window;
  test::Pass(4 * 500);
  for (const u32 delay : {30u, 32u, 50u, 1u}) window.Update(delay, false, 0);
  EXPECT_EQ(window.delay_avg(), 37u);
  EXPECT_EQ(window.delay_amp(), 9u);
  ReplaceAccConfig(AccConfig{});
}

// The entry of a burst is the sum of its delays, and the squares are of single ones: what is under
// the root falls below zero.
TEST(RecentCycleArithmetic, ABurstHasNoVariation) {
  AccConfig config;
  config.long_cycle = 2;
  config.log_level = 6;
  ReplaceAccConfig(config);
  RealRouteRecentCycleData window;
  for (int i = 0; i < 3; ++i) window.Update(40, true, 0);
  test::Pass(2 * 500);
  window.Update(40, false, 0);
  window.Update(1, false, 0);
  EXPECT_EQ(window.delay_avg(), 80u);
  EXPECT_EQ(window.delay_amp(), 0u);
  ReplaceAccConfig(AccConfig{});
}

// Asked for averages, a burst is one entry like any other: neither higher nor without a swing.
TEST(RecentCycleArithmetic, ABurstMayBeAveraged) {
  AccConfig config;
  config.long_cycle = 2;
  config.log_level = 6;
  ReplaceAccConfig(config);
  RealRouteRecentCycleData window(true);
  for (int i = 0; i < 4; ++i) window.Update(i % 2 == 0 ? 30 : 50, true, 0);
  test::Pass(2 * 500);
  window.Update(40, false, 0);
  window.Update(1, false, 0);
  EXPECT_EQ(window.delay_avg(), 40u);
  EXPECT_EQ(window.delay_amp(), 7u) << "the root of half of a hundred";
  ReplaceAccConfig(AccConfig{});
}

// Neither its time nor anything of the probes that it had has a part in what comes.
TEST(RecentCycleArithmetic, AResetBeginsANewCycle) {
  AccConfig config;
  config.long_cycle = 2;
  config.max_high_freq_test_count = 1;
  config.watching_time_span = 60;
  config.log_level = 6;
  ReplaceAccConfig(config);
  RealRouteRecentCycleData window;
  window.Update(900, true, 1);
  test::Pass(3 * 500);
  window.Reset();
  for (int i = 0; i < 3; ++i) window.Update(40, false, 0);
  EXPECT_EQ(window.delay_avg(), kDelayNotMeasured) << "one cycle, which is not over";
  for (const u32 delay : {120u, 1u}) {
    test::Pass(500);
    window.Update(delay, false, 0);
  }
  EXPECT_EQ(window.delay_avg(), 120u);
  EXPECT_EQ(window.delay_amp(), 0u);
  EXPECT_FALSE(window.IsWatching()) << "the burst was before";
  ReplaceAccConfig(AccConfig{});
}

TEST(RecentCycleArithmetic, AnAverageIsOfTheProbesSinceTheReset) {
  AccConfig config;
  config.long_cycle = 1;
  ReplaceAccConfig(config);
  const test::LogCapture log(0);
  RealRouteRecentCycleData window(true);
  for (int i = 0; i < 3; ++i) window.Update(90, true, 0);
  window.Reset();
  window.Update(40, true, 0);
  window.Update(60, false, 0);
  test::Pass(500);
  window.Update(1, false, 0);
  EXPECT_EQ(window.delay_avg(), 50u);
  EXPECT_TRUE(log.Contains(", is high freq test=true\n"));
  EXPECT_TRUE(log.Contains(", is high freq test=false\n"));
  EXPECT_TRUE(log.Contains("delay=100, is high freq test_=true\n"));
  ReplaceAccConfig(AccConfig{});
}

}  // namespace
}  // namespace moru_vyr::lsp
