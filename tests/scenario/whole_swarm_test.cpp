// One game that does everything at once while anything may fail, one world for each seed. At stake:
// streams arrive whole or end, datagrams arrive at most once, unchanged and at their server,
// answers have the address of their server, no call hangs, reports agree with each other, and
// afterwards no socket, handle or view is left and the game plays on.
//
// The faults of a world are a list. A failure is run again with parts of its list, and the smallest
// part that still fails is printed with the command that runs exactly that. VYR_SWARM_SEEDS=500
// runs more worlds than usual, VYR_SWARM_FIRST=1001 other ones; scripts/swarm.sh counts by hours.
//
// LongPlay has the same world for hours, which are quiet for the most part (whole_course.h). At the
// end nothing may be there that was not there after the first minutes.
#include <cstdio>
#include <cstdlib>

#include "tests/scenario/whole_world.h"

namespace {

using namespace whole_test;  // NOLINT
using test::Kept;

constexpr unsigned kUsualSeeds = 20;
constexpr unsigned kUsualLongSeeds = 1;  // scenario/long_play.cmake plays more
constexpr uint32_t kSetUpMs = 38'000;    // before the play begins, nearly
constexpr unsigned kMostRuns = 150;      // to reduce one list
constexpr uint64_t kStepsOfLongWorlds = 1'000'000'000;

// Which worlds: what one is like follows from its seed alone.
enum class Length { kShort, kLong };

Course CourseOf(Length length, uint64_t seed) {
  return length == Length::kShort ? ShortCourse() : DrawLongCourse(seed);
}
FaultList FaultsOf(Length length, uint64_t seed) {
  return DrawFaults(seed, CourseOf(length, seed));
}

bool PrintsDigests() { return std::getenv("VYR_SWARM_DIGESTS") != nullptr; }

// With a trace it takes twice as long.
sim::ChildResult RunWorld(Length length, uint64_t seed, const Kept& kept, bool traces) {
  const Course course = CourseOf(length, seed);
  const FaultList faults = DrawFaults(seed, course);
  sim::Options options;
  if (course.IsLong()) options.max_steps = kStepsOfLongWorlds;
  options.seed = seed;
  options.traces = traces;
  for (const size_t at : kept) {
    if (faults[at].kind == FaultKind::kTickWraps)
      options.tick_start = 0u - kSetUpMs - faults[at].at_ms;
  }
  return sim::RunInChild(
      options,
      // Never freed: threads of the world that never end use it.
      [&](sim::World&) { (new WholeWorld(course, faults, kept))->Live(); }, sim::GtestVerdict,
      std::chrono::seconds(course.IsLong() ? 3600 : 120));
}

// What a passed world has printed of itself.
double SimulatedSeconds(const sim::ChildResult& result) {
  const size_t at = result.output.rfind("simulated ");
  return at == std::string::npos ? 0 : std::atof(result.output.c_str() + at + 10) / 1000;
}

// Of a passed world: what it says of itself.
const char* LastLine(const std::string& output) {
  const size_t at = output.rfind("simulated ");
  return at == std::string::npos ? "\n" : output.c_str() + at;
}

std::string Listed(const FaultList& faults, const Kept& kept) {
  std::string text;
  for (const size_t at : kept) text += "  " + std::to_string(at) + ": " + faults[at].Text() + "\n";
  return text.empty() ? "  none at all\n" : text;
}

std::string Failure(Length length, uint64_t seed, const Kept& all) {
  unsigned runs = 0;
  const bool is_chosen = std::getenv("VYR_SWARM_FAULTS") != nullptr;
  Kept kept = all;
  if (!is_chosen) {
    kept = test::Smallest(all, [length, seed, &runs](const Kept& part) {
      return ++runs <= kMostRuns && !RunWorld(length, seed, part, false).passed;
    });
  }
  const sim::ChildResult result = RunWorld(length, seed, kept, true);
  const auto* const info = testing::UnitTest::GetInstance()->current_test_info();
  const std::string name = std::string(info->test_suite_name()) + "." + info->name();
  return "the world of seed " + std::to_string(seed) + " " + result.HowItEnded() + ", with " +
         std::to_string(kept.size()) + " of " + std::to_string(all.size()) + " faults (found in " +
         std::to_string(runs) + " runs):\n" + Listed(FaultsOf(length, seed), kept) + result.output +
         "the trace's last lines:\n" + result.last_lines +
         "to run it again: VYR_SWARM_FAULTS=" + TextOf(kept) + " " + sim::ReplayCommand(name, seed);
}

void RunWorlds(Length length, unsigned usual) {
  uint64_t first = 1;
  if (const char* const text = std::getenv("VYR_SWARM_FIRST"))
    first = std::strtoull(text, nullptr, 10);
  uint64_t last = first + SwarmSeeds(usual) - 1;
  if (sim::SeedFromEnvironment(&first)) last = first;
  double seconds = 0;
  unsigned resting = 0,
           going_on = 0;  // worlds whose timers a wrap of the tick counter has stopped, or not
  for (uint64_t seed = first; seed <= last; ++seed) {
    const Kept kept = KeptFaults(FaultsOf(length, seed));
    const sim::ChildResult result = RunWorld(length, seed, kept, PrintsDigests());
    if (!result.passed) FAIL() << Failure(length, seed, kept);
    seconds += SimulatedSeconds(result);
    if (PrintsDigests())
      std::printf("seed %llu: %016llx of %llu lines, %s", static_cast<unsigned long long>(seed),
                  static_cast<unsigned long long>(result.trace_hash),
                  static_cast<unsigned long long>(result.trace_lines), LastLine(result.output));
    resting += result.output.find("timers rest") != std::string::npos;
    going_on += result.output.find("timers go on") != std::string::npos;
  }
  std::printf(
      "swarm: seeds %llu to %llu, %.1f simulated seconds, timers rest in %u worlds, go on after a "
      "wrap in %u\n",
      static_cast<unsigned long long>(first), static_cast<unsigned long long>(last), seconds,
      resting, going_on);
}

TEST(WholeSwarm, EverythingAtOnceIsRightUnderAnyFaults) { RunWorlds(Length::kShort, kUsualSeeds); }

TEST(LongPlay, NothingIsLeftOfHoursOfQuietAndBusyStretches) {
  test::PrepareCensus();
  RunWorlds(Length::kLong, kUsualLongSeeds);
}

}  // namespace
