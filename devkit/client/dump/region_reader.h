// The contents of the regions at this moment.
#pragma once

#include <array>
#include <memory>
#include <string>

#include "client/fields/tables.h"

namespace client {

struct StandingTables {
  std::unique_ptr<Tables> tables;  // empty if there is no region
  std::array<bool, kRegionCount> present = {};
  std::string error;  // which regions are there but cannot be read; empty if none

  bool AnyPresent() const;
};

// Copies each region that exists; creates none. Waits at most that long for each mutex.
StandingTables ReadRegions(unsigned wait_ms);

// Writes a route table into a file of its own. Returns the reason of a failure in words, or
// nothing.
std::string ReadRouteFile(const std::string& path, Tables* tables);
std::string WriteRouteFile(const std::string& path, const Tables& tables);

}  // namespace client
