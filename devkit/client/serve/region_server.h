// Keeps the regions in being, for the games that run and those that start meanwhile.
#pragma once

#include <array>
#include <memory>
#include <string>
#include <vector>

#include "client/fields/tables.h"
#include "common/shared_mem_obj.h"

namespace client {

// A region lives as long as somebody has it open, so it lives at least as long as this does.
// One thread.
class RegionServer {
 public:
  struct Outcome {
    std::vector<RegionId> written;
    std::string error;  // what could not be written, in words; empty if nothing
  };

  // Brings the regions to what the tables say, and touches only those that differ from what was
  // published last. Makes a region, or takes over the one that stands: a game that has an older
  // mapping open sees the new content. A region that nothing was ever written into is not made,
  // because a route table that is there, if empty, keeps the library from its binary file; the
  // games' region always is. Plain regions are written under their mutex, for which it waits so
  // long at most; of the route table the buffer that nobody reads is filled, then the two change
  // places.
  Outcome Publish(const Tables& tables, unsigned wait_ms);

 private:
  std::string Write(RegionId id, const Tables& tables, unsigned wait_ms);

  std::array<std::unique_ptr<common::Shared_mem_obj>, kRegionCount> owners_;
  std::unique_ptr<Tables> published_;
};

}  // namespace client
