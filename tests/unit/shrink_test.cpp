// How the list of faults of a failed world is reduced. At stake: what is printed still fails, and
// each of its faults is needed.
#include "tests/support/shrink.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <set>

namespace {

using test::Kept;
using test::Smallest;

Kept Numbers(size_t count) {
  Kept all;
  for (size_t i = 0; i < count; ++i) all.push_back(i);
  return all;
}

// Fails where all of these are there.
auto Needs(const Kept& needed, unsigned* runs) {
  return [needed, runs](const Kept& part) {
    ++*runs;
    return std::includes(part.begin(), part.end(), needed.begin(), needed.end());
  };
}

TEST(Shrink, FindsWhatTogetherFails) {
  for (const Kept& needed : {Kept{0}, Kept{23}, Kept{3, 17}, Kept{0, 1, 22, 23}, Numbers(24)}) {
    unsigned runs = 0;
    EXPECT_EQ(Smallest(Numbers(24), Needs(needed, &runs)), needed);
    EXPECT_LE(runs, 120u);
  }
}

TEST(Shrink, FindsASingleCauseInFewRuns) {
  unsigned runs = 0;
  EXPECT_EQ(Smallest(Numbers(1000), Needs({777}, &runs)), Kept{777});
  EXPECT_LE(runs, 60u);
}

TEST(Shrink, LeavesNothingWhereNothingIsNeeded) {
  unsigned runs = 0;
  EXPECT_EQ(Smallest(Numbers(24), Needs({}, &runs)), Kept{});
  EXPECT_EQ(runs, 1u);
  EXPECT_EQ(Smallest({}, Needs({}, &runs)), Kept{});
}

// Either of two causes will do: one is found, and nothing beside it.
TEST(Shrink, FindsOneOfSeveralCauses) {
  const auto either = [](const Kept& part) {
    const std::set<size_t> in(part.begin(), part.end());
    return in.count(5) != 0 || (in.count(2) != 0 && in.count(9) != 0);
  };
  const Kept found = Smallest(Numbers(12), either);
  EXPECT_TRUE(found == Kept{5} || found == (Kept{2, 9}));
}

}  // namespace
