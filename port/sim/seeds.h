// Derives the seed of a world's random numbers from the world's seed.
#pragma once
#include <cstdint>

#include "port/sim/random.h"

namespace sim {

// Used directly, neighbouring seeds would give the same sequence shifted by one draw. The worlds of
// the seeds 1, 2, 3, … must be unrelated.
inline uint64_t Scattered(uint64_t seed) { return Random(seed).Next(); }

}  // namespace sim
