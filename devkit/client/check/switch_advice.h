// Finds settings that keep datagram flows from moving to a better node, or that would move them
// without need. Each becomes a warning with its key and the reason.
//
// It knows the rules by which links are judged, not how good a link is: a table without a warning
// can still be a poor one.
#pragma once

#include <cstdint>
#include <vector>

#include "client/check/problems.h"
#include "client/fields/tables.h"

namespace client {

struct SwitchAdvice {
  uint32_t game = 0;  // its place among the games
  Problem problem;    // a warning; its line is for whoever has the file
};

// A game that is configured without switching gets no advice.
std::vector<SwitchAdvice> AdviseOnSwitching(const Tables& tables);

}  // namespace client
