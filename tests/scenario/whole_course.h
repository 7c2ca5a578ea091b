// When a world's game is busy and when it is quiet: once for forty seconds, or in short stretches
// with long quiet ones between them, for hours.
#pragma once
#include <cstdint>
#include <vector>

namespace whole_test {

inline constexpr uint32_t kExactMs = 60'000;  // the first minute of each stretch, and after a wrap
inline constexpr uint32_t kPlayMs = 40'000;   // of a world that is busy all the time

// At its end everything that went wrong is healed.
struct Stretch {
  enum Kind {
    kBusy,
    kQuiet,   // with flows that say little
    kSilent,  // nothing is begun: what has been released by its end is what a game at rest has
  };
  uint32_t begin_ms = 0;  // since the play began
  uint32_t length_ms = 0;
  Kind kind = kBusy;
  // What the machine's timers are multiples of after the first minute, where nobody plays: it saves
  // power. 0: they are exact.
  uint32_t timers_ms = 0;
  uint32_t end_ms() const { return begin_ms + length_ms; }
};

struct Course {
  std::vector<Stretch> stretches;  // each begins where the one before has ended
  bool IsLong() const { return stretches.size() > 1; }
  uint32_t length_ms() const { return stretches.back().end_ms(); }
};

Course ShortCourse();
// Two to twelve hours: a busy stretch, a silent one, then busy and quiet ones in turn.
Course DrawLongCourse(uint64_t seed);

}  // namespace whole_test
