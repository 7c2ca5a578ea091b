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

// A heading, then a row a flow: those that live before those that have ended, the newest of these
// first. On a narrow screen columns are left out, on a low one rows, and no line is longer than
// the screen is wide.
std::vector<std::string> TopLines(const FlowBook& book, ScreenSize screen, uint64_t now_ms);

}  // namespace client
