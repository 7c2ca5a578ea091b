// The flows as a table that fits a screen.
#pragma once

#include <string>
#include <vector>

#include "client/watch/flow_book.h"

namespace client {

struct ScreenSize {
  unsigned columns = 120;
  unsigned rows = 0;  // 0: as many as there are

  bool operator==(const ScreenSize&) const = default;
};

// A heading, then one row for each flow with its node, and under it one for a node on trial and for
// each of the nodes that it had before: open ones before those that have ended, of which the
// newest comes first. A narrow screen has fewer columns, a low one fewer rows, and no line is wider
// than the screen.
std::vector<std::string> TopLines(const FlowBook& book, ScreenSize screen, uint64_t now_ms);

}  // namespace client
