// What stands in the tables but keeps datagram flows from moving to a better node, or would move
// them without need: each a warning with its key, and why.
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

// A game that asks for no switching is left in peace.
std::vector<SwitchAdvice> AdviseOnSwitching(const Tables& tables);

}  // namespace client
