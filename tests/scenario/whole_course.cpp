#include "tests/scenario/whole_course.h"

#include <iterator>

#include "port/sim/random.h"
#include "port/sim/seeds.h"

namespace whole_test {
namespace {

constexpr uint32_t kMinuteMs = 60'000;
constexpr uint32_t kHourMs = 60 * kMinuteMs;
// Longer than any flow of a busy stretch lasts, and than the library keeps what it does not need.
constexpr uint32_t kSilenceMs = 20 * kMinuteMs;
constexpr uint32_t kUsualTimersMs = 16;  // of a machine that does not save power

}  // namespace

Course ShortCourse() { return {{{0, kPlayMs, Stretch::kBusy}}}; }

Course DrawLongCourse(uint64_t seed) {
  sim::Random random(sim::Scattered(seed ^ 0x636f75727365));
  const auto between = [&random](uint32_t least, uint32_t most) {
    return least + static_cast<uint32_t>(random.Below(most - least + 1));
  };
  Course course;
  uint32_t now = 0;
  const auto timers_of = [&random](Stretch::Kind kind) -> uint32_t {
    if (kind == Stretch::kBusy) return 0;
    constexpr uint32_t kCoarse[] = {250, 500, 1000};
    return random.Below(16) == 0 ? kUsualTimersMs : kCoarse[random.Below(std::size(kCoarse))];
  };
  const auto add = [&](uint32_t length, Stretch::Kind kind) {
    course.stretches.push_back({now, length, kind, timers_of(kind)});
    now += length;
  };
  const uint32_t most = between(2 * kHourMs, 12 * kHourMs);
  add(between(10'000, 30'000), Stretch::kBusy);
  add(kSilenceMs, Stretch::kSilent);
  while (now < most) {
    add(between(5'000, 30'000), Stretch::kBusy);
    add(between(10 * kMinuteMs, 40 * kMinuteMs), Stretch::kQuiet);
  }
  return course;
}

}  // namespace whole_test
