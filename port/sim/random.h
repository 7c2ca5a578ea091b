// The simulation's own random numbers. A seed must replay the same run everywhere, and the standard
// library's distributions differ between implementations.
#pragma once
#include <cstdint>

namespace sim {

class Random {
 public:
  explicit Random(uint64_t seed) : state_(seed * 0x9e3779b97f4a7c15u + 0x2545f4914f6cdd1du) {}

  uint64_t Next() {
    state_ += 0x9e3779b97f4a7c15u;
    uint64_t z = state_;
    z = (z ^ (z >> 30)) * 0xbf58476d1ce4e5b9u;
    z = (z ^ (z >> 27)) * 0x94d049bb133111ebu;
    return z ^ (z >> 31);
  }
  // Between 0 and n-1; 0 for n = 0. For the small n in use, the bias is far below what a test could
  // detect.
  uint64_t Below(uint64_t n) { return n == 0 ? 0 : Next() % n; }
  // True with that probability. Draws a number only for probabilities between 0 and 1, so a link
  // without loss costs no draw.
  bool Chance(double probability) {
    if (probability <= 0) return false;
    if (probability >= 1) return true;
    return static_cast<double>(Next() >> 11) * 0x1.0p-53 < probability;
  }

 private:
  uint64_t state_;
};

}  // namespace sim
