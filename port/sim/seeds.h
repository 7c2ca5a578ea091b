// What a world's seed is made into before its dice are thrown.
#pragma once
#include <cstdint>

#include "port/sim/random.h"

namespace sim {

// Random's streams of neighbouring seeds are one stream, each begun a draw after the other. Worlds
// with the seeds 1, 2, 3 … are to have nothing in common.
inline uint64_t Scattered(uint64_t seed) { return Random(seed).Next(); }

}  // namespace sim
