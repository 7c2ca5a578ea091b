// How the sample game evaluates numbered answers and round trips.
#include "game/counts.h"

#include <gtest/gtest.h>

namespace {

using game::Counts;
using game::PingFigures;
using game::Summarize;

Counts After(std::initializer_list<uint32_t> numbers) {
  Counts counts;
  for (const uint32_t number : numbers) counts.Add(number);
  return counts;
}

struct Case {
  const char* name;
  std::initializer_list<uint32_t> numbers;
  uint32_t received, duplicated, reordered;
};

TEST(GameCounts, EachNumberCountsOnceInAnyOrder) {
  const Case cases[] = {
      {"nothing", {}, 0, 0, 0},
      {"in order", {0, 1, 2}, 3, 0, 0},
      {"a gap is neither", {0, 2, 5}, 3, 0, 0},
      {"overtaken", {0, 2, 1}, 3, 0, 1},
      {"twice", {0, 1, 1}, 2, 1, 0},
      {"twice, and late, is a duplicate alone", {0, 1, 2, 0}, 3, 1, 0},
      {"beyond all counting", {0, 0xffffffff}, 1, 0, 0},
  };
  for (const Case& c : cases) {
    const Counts counts = After(c.numbers);
    EXPECT_EQ(counts.received(), c.received) << c.name;
    EXPECT_EQ(counts.duplicated(), c.duplicated) << c.name;
    EXPECT_EQ(counts.reordered(), c.reordered) << c.name;
  }
}

TEST(GameCounts, PingsAreSummarizedInMilliseconds) {
  const PingFigures none = Summarize({});
  EXPECT_EQ(none.avg_ms, 0);
  const PingFigures figures = Summarize({3000, 1000, 2000});
  EXPECT_DOUBLE_EQ(figures.min_ms, 1);
  EXPECT_DOUBLE_EQ(figures.avg_ms, 2);
  EXPECT_DOUBLE_EQ(figures.max_ms, 3);
  EXPECT_DOUBLE_EQ(figures.p50_ms, 2);
  EXPECT_DOUBLE_EQ(figures.jitter_ms, 1.5);  // of 2 and 1
}

}  // namespace
