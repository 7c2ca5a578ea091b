// Scenarios: GoogleTest tests whose bodies run in simulated worlds.
//
//   SCENARIO(Relay, SurvivesASilentNode) {            // one world, seed 1
//     sim::Host& node = world.AddHost("node", {"198.51.100.20"});
//     …
//     world.RunFor(5s);
//     EXPECT_EQ(…);
//   }
//   SCENARIO_SEEDS(Relay, KeepsEveryByte, 200) { … }  // the same for seeds 1 … 200
//
// Each runs in a process of its own, so static objects start fresh. `world` is the world; the body
// is its director. Expectations fail the test as usual, from any simulated thread. So does a crash,
// a hang or a deadlock. Every failure prints the last lines of the trace, the seed, and the command
// that replays the run. VYR_SEED=n runs seed n alone.
//
// For a fixture, derive from sim::ScenarioTest and write SCENARIO_F(Fixture, Name): the fixture
// object is made in the child, inside the world, before the body runs.
#pragma once
#include <gtest/gtest.h>
//
#include "port/sim/child.h"

namespace sim {

// Shortcuts that bodies and fixtures can use without naming the world.
class ScenarioTest {
 public:
  virtual ~ScenarioTest() = default;

 protected:
  virtual void SetUp() {}
  virtual void TearDown() {}

  World& world = TheWorld();
  void RunFor(Duration duration) { world.RunFor(duration); }
  void AdvanceTo(Duration moment) { world.AdvanceTo(moment); }
  bool RunUntil(const std::function<bool()>& condition, Duration most = std::chrono::minutes(10)) {
    return world.RunUntil(condition, most);
  }
  bool RunUntilIdle() { return world.RunUntilIdle(); }
};

inline Verdict GtestVerdict() {
  if (testing::Test::HasFailure()) return Verdict::kFailed;
  return testing::Test::IsSkipped() ? Verdict::kSkipped : Verdict::kPassed;
}

// Runs the body for the seeds 1 to `seeds`, or for that of VYR_SEED, up to the first failure.
// `options` gives everything except the seed.
inline void RunScenario(Options options, unsigned seeds, const std::function<void(World&)>& body) {
  const auto* test = testing::UnitTest::GetInstance()->current_test_info();
  const std::string name = std::string(test->test_suite_name()) + "." + test->name();
  uint64_t first = 1, last = seeds;
  if (SeedFromEnvironment(&first)) last = first;
  for (uint64_t seed = first; seed <= last; ++seed) {
    options.seed = seed;
    const ChildResult result = RunInChild(options, body, GtestVerdict);
    if (result.passed) {
      std::fputs(result.output.c_str(), stdout);
      continue;
    }
    if (result.skipped) GTEST_SKIP() << result.output;
    FAIL() << "the scenario " << result.HowItEnded() << ", with seed " << seed << "\n"
           << result.output << "the trace's last lines:\n"
           << result.last_lines << "to run it again: " << ReplayCommand(name, seed);
  }
}

}  // namespace sim

using namespace std::chrono_literals;  // NOLINT: scenarios write 5s

#define SCENARIO_CLASS_(suite, name) suite##_##name##_Scenario

#define SCENARIO_WITH_(suite, name, base, seeds, options)                           \
  class SCENARIO_CLASS_(suite, name) : public base {                                \
   public:                                                                          \
    void RunAll() {                                                                 \
      SetUp();                                                                      \
      if (!testing::Test::HasFatalFailure() && !testing::Test::IsSkipped()) Body(); \
      TearDown();                                                                   \
    }                                                                               \
                                                                                    \
   private:                                                                         \
    void Body();                                                                    \
  };                                                                                \
  TEST(suite, name) {                                                               \
    sim::RunScenario((options), (seeds), [](sim::World&) {                          \
      SCENARIO_CLASS_(suite, name)().RunAll();                                      \
    });                                                                             \
  }                                                                                 \
  void SCENARIO_CLASS_(suite, name)::Body()

#define SCENARIO(suite, name) SCENARIO_WITH_(suite, name, sim::ScenarioTest, 1, sim::Options{})
#define SCENARIO_SEEDS(suite, name, seeds) \
  SCENARIO_WITH_(suite, name, sim::ScenarioTest, seeds, sim::Options{})
#define SCENARIO_F(fixture, name) SCENARIO_WITH_(fixture, name, fixture, 1, sim::Options{})
#define SCENARIO_F_SEEDS(fixture, name, seeds) \
  SCENARIO_WITH_(fixture, name, fixture, seeds, sim::Options{})
// The same with given sim::Options, such as a tick count that is about to wrap.
#define SCENARIO_OPTIONS(suite, name, options) \
  SCENARIO_WITH_(suite, name, sim::ScenarioTest, 1, options)
