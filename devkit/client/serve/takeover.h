// Puts an edited file into the regions, or refuses it.
#pragma once

#include <array>
#include <set>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "client/check/problems.h"
#include "client/serve/region_server.h"
#include "client/serve/spur_notifier.h"

namespace client {

struct Change {
  RegionId region;
  std::string summary;    // "3 nodes, 2 routes"
  size_t notified = 0;    // spur list: running games that were told
  std::string lost = {};  // what it held before, if it is empty now
};

struct TakeoverReport {
  Problems problems;            // if one is an error, nothing was touched
  std::string failure;          // a region could not be written, in words
  std::vector<Change> changes;  // what was, in the order of the regions; may be nothing
  unsigned game_count = 0;
};

// Serves one file and its later edits. One thread.
class Takeover {
 public:
  // Processes to notify besides the running games.
  explicit Takeover(std::set<unsigned long> extra_pids) : extra_pids_(std::move(extra_pids)) {}

  // Makes the regions match the text. A text with a mistake leaves them as they are.
  TakeoverReport Apply(std::string_view text, unsigned wait_ms);

 private:
  const std::set<unsigned long> extra_pids_;
  std::array<std::string, kRegionCount> filled_;  // what each region holds, empty if nothing
  RegionServer server_;
  SpurNotifier notifier_;
};

// What a region holds, in words.
std::string Summary(const Tables& tables, RegionId region);

// Whether there is an entry in its list.
bool HasEntries(const Tables& tables, RegionId region);

}  // namespace client
