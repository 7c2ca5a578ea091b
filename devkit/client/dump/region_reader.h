// What stands in the regions at this moment.
#pragma once

#include <array>
#include <memory>
#include <string>

#include "client/fields/tables.h"

namespace client {

struct StandingTables {
  std::unique_ptr<Tables> tables;  // empty where there is no region
  std::array<bool, kRegionCount> present = {};
  std::string error;  // which regions are there but cannot be read; empty if none

  bool AnyPresent() const;
};

// Copies each region that somebody has made; makes none. Waits so long at most for a mutex.
StandingTables ReadRegions(unsigned wait_ms);

// A route table in a file of its own. The reason in words, or nothing on success.
std::string ReadRouteFile(const std::string& path, Tables* tables);
std::string WriteRouteFile(const std::string& path, const Tables& tables);

}  // namespace client
