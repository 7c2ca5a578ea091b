// The courses of long play: what must be true of each, whatever the seed, so that a long world
// finds what only hours can show.
#include "tests/scenario/whole_course.h"

#include <gtest/gtest.h>

#include <map>
#include <set>

namespace {

using namespace whole_test;  // NOLINT

constexpr uint64_t kCourses = 300;
constexpr uint32_t kMsOfAnHour = 3'600'000;
constexpr uint32_t kLongestPairMs = 30'000 + 40 * 60'000;  // a busy and a quiet stretch

TEST(WholeCourse, AShortOneIsBusyAllTheTime) {
  const Course course = ShortCourse();
  ASSERT_EQ(course.stretches.size(), 1u);
  EXPECT_FALSE(course.IsLong());
  EXPECT_EQ(course.stretches[0].kind, Stretch::kBusy);
  EXPECT_EQ(course.stretches[0].timers_ms, 0u);
  EXPECT_EQ(course.length_ms(), kPlayMs);
}

TEST(WholeCourse, EachStretchBeginsWhereTheOneBeforeHasEnded) {
  for (uint64_t seed = 1; seed <= kCourses; ++seed) {
    const Course course = DrawLongCourse(seed);
    EXPECT_TRUE(course.IsLong());
    uint32_t now = 0;
    for (const Stretch& stretch : course.stretches) {
      EXPECT_EQ(stretch.begin_ms, now) << "seed " << seed;
      EXPECT_GT(stretch.length_ms, 0u) << "seed " << seed;
      now += stretch.length_ms;
    }
    EXPECT_EQ(course.length_ms(), now);
  }
}

// What is compared at the end is counted in the silence, which therefore comes first and once.
TEST(WholeCourse, SilenceComesOnceAndThenBusyAndQuietInTurn) {
  for (uint64_t seed = 1; seed <= kCourses; ++seed) {
    const auto stretches = DrawLongCourse(seed).stretches;
    ASSERT_GE(stretches.size(), 4u) << "seed " << seed;
    ASSERT_EQ(stretches.size() % 2, 0u) << "seed " << seed;
    for (size_t i = 0; i < stretches.size(); ++i) {
      const Stretch::Kind expected = i % 2 == 0 ? Stretch::kBusy
                                     : i == 1   ? Stretch::kSilent
                                                : Stretch::kQuiet;
      EXPECT_EQ(stretches[i].kind, expected) << "seed " << seed << ", stretch " << i;
    }
  }
}

TEST(WholeCourse, ALongOneTakesTwoToTwelveHoursAndIsHardlyEverBusy) {
  std::set<uint32_t> hours;
  for (uint64_t seed = 1; seed <= kCourses; ++seed) {
    const Course course = DrawLongCourse(seed);
    EXPECT_GE(course.length_ms(), 2 * kMsOfAnHour) << "seed " << seed;
    EXPECT_LE(course.length_ms(), 12 * kMsOfAnHour + kLongestPairMs) << "seed " << seed;
    hours.insert(course.length_ms() / kMsOfAnHour);
    for (const Stretch& stretch : course.stretches) {
      if (stretch.kind == Stretch::kBusy) {
        EXPECT_LE(stretch.length_ms, 30'000u) << "seed " << seed;
      } else {
        EXPECT_GE(stretch.length_ms, 600'000u) << "seed " << seed;
      }
    }
  }
  EXPECT_EQ(hours.size(), 11u);  // of every length there are some
}

// Coarse timers are for hours that nobody plays. Some of these have the timers of any machine.
TEST(WholeCourse, TimersAreCoarseWhereNobodyPlays) {
  std::map<uint32_t, int> seen;
  for (uint64_t seed = 1; seed <= kCourses; ++seed) {
    for (const Stretch& stretch : DrawLongCourse(seed).stretches) {
      EXPECT_EQ(stretch.timers_ms == 0, stretch.kind == Stretch::kBusy) << "seed " << seed;
      if (stretch.timers_ms != 0) ++seen[stretch.timers_ms];
    }
  }
  ASSERT_EQ(seen.size(), 4u);
  EXPECT_EQ(seen.begin()->first, 16u);
  for (const auto& [timers, count] : seen) EXPECT_GT(count, 50) << timers;
  EXPECT_EQ(seen.rbegin()->first, 1000u);
}

TEST(WholeCourse, ASeedGivesItsCourseAgainAndAnotherSeedAnother) {
  std::set<uint32_t> lengths;
  for (uint64_t seed = 1; seed <= kCourses; ++seed) {
    const Course course = DrawLongCourse(seed);
    EXPECT_EQ(course.length_ms(), DrawLongCourse(seed).length_ms());
    lengths.insert(course.length_ms());
  }
  EXPECT_EQ(lengths.size(), kCourses);
}

}  // namespace
