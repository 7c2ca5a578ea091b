// Turns a world's seed into the seed of its random numbers.
#pragma once
#include <cstdint>

#include "port/sim/random.h"

namespace sim {

// The sequences of neighbouring seeds are one sequence, each begun one draw later. Worlds with the
// seeds 1, 2, 3 … must have nothing in common.
inline uint64_t Scattered(uint64_t seed) { return Random(seed).Next(); }

}  // namespace sim
