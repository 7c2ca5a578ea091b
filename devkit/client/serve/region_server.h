// Keeps the regions in existence, for running games and those that start later.
#pragma once

#include <array>
#include <memory>
#include <string>
#include <vector>

#include "client/fields/tables.h"
#include "common/shared_mem_obj.h"

namespace client {

// A region exists as long as somebody has it open, so at least as long as this object. One thread.
class RegionServer {
 public:
  struct Outcome {
    std::vector<RegionId> written;
    std::string error;  // what could not be written, in words; empty if nothing
  };

  // Brings the regions to what the tables say, and touches only those that differ from what was
  // published last. Makes a region, or takes over the one that stands: a game that has an older
  // mapping open sees the new content. A region that has never had content is not made, because
  // even an empty route table keeps the library from its binary file; the games' region is always
  // made. Plain regions are written under their mutex, with a limit to the wait; of the route
  // table, the buffer that nobody reads is filled, then the two are swapped.
  Outcome Publish(const Tables& tables, unsigned wait_ms);

 private:
  std::string Write(RegionId id, const Tables& tables, unsigned wait_ms);

  std::array<std::unique_ptr<common::Shared_mem_obj>, kRegionCount> owners_;
  std::unique_ptr<Tables> published_;
};

}  // namespace client
