// The lists of faults. Worlds with lists that resemble each other would find what one of them
// finds, however many are run.
#include "tests/scenario/whole_faults.h"

#include <gtest/gtest.h>

#include <set>
#include <tuple>

namespace {

using namespace whole_test;  // NOLINT

constexpr uint64_t kSeeds = 300;

TEST(WholeFaults, NeighbouringSeedsHaveNoFaultInCommon) {
  std::set<std::tuple<FaultKind, uint32_t, uint64_t, uint64_t, uint64_t>> seen;
  for (uint64_t seed = 1; seed <= kSeeds; ++seed) {
    for (const Fault& fault : DrawFaults(seed, ShortCourse())) {
      EXPECT_TRUE(seen.insert({fault.kind, fault.at_ms, fault.a, fault.b, fault.c}).second)
          << "seed " << seed << ": " << fault.Text();
    }
  }
}

// The kinds that are drawn by their share, and those that come at most once in a world.
TEST(WholeFaults, EveryKindIsDrawn) {
  std::set<FaultKind> seen;
  for (uint64_t seed = 1; seed <= kSeeds; ++seed)
    for (const Fault& fault : DrawFaults(seed, ShortCourse())) seen.insert(fault.kind);
  EXPECT_EQ(seen.size(), static_cast<size_t>(kFaultKinds));
}

}  // namespace
